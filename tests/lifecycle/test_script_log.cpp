#include <gtest/gtest.h>

#include <string>

#include "core/packagemanager.h"
#include "lifecycle/script_env.h"
#include "lifecycle/script_log.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/sysroot.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class ScriptLog : public TempRootTest {
protected:
    void TearDown() override {
        CleanAllEnv();
        TempRootTest::TearDown();
    }
    PackageInfo record(const std::string& name) {
        PackageInfo info;
        info.name = name;
        info.version = "3.0";
        return info;
    }
    // Runs a script that prints to both streams and leaves a marker that it ran.
    int runScript(const PackageInfo& info, int exitCode) {
        const std::string script = "/var/packages/" + info.name + "/scripts/postinst";
        writeFile(
            script,
            "#!/bin/sh\necho \"out of $ZARNPKG_PKGNAME\"\necho \"err of $ZARNPKG_PKGNAME\" >&2\n"
            ": > \"$ZARNPKG_PKGDEST_VOL/ran-" +
                info.name + "\"\nexit " + std::to_string(exitCode) + "\n",
            0755);
        ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(script)});
        runner.setArgv0("postinst");
        PMSPrepareScriptEnv(info, runner, "enu", nullptr, PKG_INSTALLATION_INSTALL, nullptr,
                            "/volume1", nullptr, nullptr);
        return PMSRunAndWriteScriptLog(info, PKG_INSTALLATION_INSTALL, runner, PKG_RUN_MODE_SCRIPT);
    }
};

// The End line with its result, and a log that keeps earlier runs, the CLI tests read.
TEST_F(ScriptLog, OutputLandsInThePackageLog) {
    EXPECT_EQ(runScript(record("logme"), 0), 0);
    const std::string log = readFile("/var/log/packages/logme.log");
    EXPECT_NE(log.find("\tinstall logme 3.0 Begin " + phys("/var/packages/logme/scripts/postinst") +
                       "\n"),
              std::string::npos);
    EXPECT_NE(log.find("out of logme\n"), std::string::npos);
    EXPECT_NE(log.find("err of logme\n"), std::string::npos) << "standard error too";
    const std::string common = readFile("/var/log/zarnpkg.log");
    EXPECT_NE(common.find("install logme 3.0 Begin "), std::string::npos);
    EXPECT_NE(common.find("install logme 3.0 End "), std::string::npos);
    EXPECT_EQ(common.find("out of logme"), std::string::npos);

    EXPECT_EQ(runScript(record("logme"), 3), 3);
    EXPECT_NE(readFile("/var/log/packages/logme.log").find(" ret=[3]\n"), std::string::npos);

    // Plain commands are logged the same way.
    ZARNUtils::ProcessRunner mkdir({"/bin/mkdir", "-p", phys("/volume1/made")});
    EXPECT_EQ(PMSRunAndWriteScriptLog(record("logme"), PKG_INSTALLATION_NONE, mkdir,
                                      PKG_RUN_MODE_COMMAND),
              0);
    EXPECT_TRUE(ZARNIsDir("/volume1/made"));
    EXPECT_NE(readFile("/var/log/packages/logme.log").find("(system) trigger logme 3.0 Begin "),
              std::string::npos);
}

TEST_F(ScriptLog, FallbacksNeverStopTheScript) {
    // The package log is a directory: the output goes to the common log.
    writeFile("/var/log/packages/dirlog.log/.keep", "");
    EXPECT_EQ(runScript(record("dirlog"), 0), 0);
    EXPECT_NE(readFile("/var/log/zarnpkg.log").find("out of dirlog"), std::string::npos);
    EXPECT_TRUE(logged("try to fallback"));
    EXPECT_TRUE(IsFileExists("/volume1/ran-dirlog"));

    // No log at all: the script still runs.
    ASSERT_TRUE(ZARNRemoveTree("/var/log/zarnpkg.log"));
    writeFile("/var/log/zarnpkg.log/.keep", "");
    EXPECT_EQ(runScript(record("dirlog"), 0), 0);
    EXPECT_TRUE(logged("Failed to open package log for [dirlog]"));
    ASSERT_TRUE(ZARNRemoveTree("/volume1/ran-dirlog"));
    EXPECT_EQ(runScript(record("dirlog"), 0), 0);
    EXPECT_TRUE(IsFileExists("/volume1/ran-dirlog"));
}

TEST_F(ScriptLog, StampsAndMessageFiles) {
    const std::string stamped = ToStringWithCurrentTime("hello");
    ASSERT_EQ(stamped.size(), std::string("2024/01/02 03:04:05\thello").size());
    EXPECT_EQ(stamped[4], '/');
    EXPECT_EQ(stamped.substr(19), "\thello");

    PMSWriteSysLog(nullptr);
    PMSWriteSysLog("");
    EXPECT_FALSE(IsFileExists("/var/log/zarnpkg.log"));  // the CLI chain test reads real lines

    writeFile("/tmp/blank", "  \n\t \n");
    EXPECT_EQ(PMSReadPackageLog("/tmp/blank"), "");
    writeFile("/tmp/msg", "\n  Please restart.\n\n");
    EXPECT_EQ(PMSReadPackageLog("/tmp/msg"), "Please restart.");
    EXPECT_EQ(PMSReadPackageLog("/tmp/absent"), "");
    std::string big(1500, 'a');
    writeFile("/tmp/big", big + "\n");
    EXPECT_EQ(PMSReadPackageLog("/tmp/big"), big);
}

// The CLI tests read a log and see a failing script; here the refusals the CLI folds into one.
TEST_F(ScriptLog, PackageLogFromTheControlScript) {
    addPackage("talky");
    const std::string dir = "/var/packages/talky";
    writeFile(dir + "/scripts/start-stop-status",
              "#!/bin/sh\n[ \"$1\" = log ] || exit 1\nprintf 'line one\\nline two\\n\\n'\n", 0755);
    writeFile(dir + "/conf/privilege", R"({"ctrl-script": [{"action": "log"}]})");
    PackageManager pm;
    EXPECT_EQ(pm.getPackageLog("talky"), "");
    EXPECT_EQ(pm.getResult(), PKG_ERR_BAD_PACKAGE);
    EXPECT_TRUE(logged("Failed to set identity for talky [0x4000"));
    ASSERT_TRUE(ZARNUnlink(dir + "/conf/privilege"));
    EXPECT_EQ(pm.getPackageLog("talky"), "line one\nline two\n");

    ASSERT_TRUE(ZARNUnlink(dir + "/scripts/start-stop-status"));
    EXPECT_EQ(pm.getPackageLog("talky"), "");
    EXPECT_EQ(pm.getResult(), PKG_ERR_NO_SCRIPT);
}

}  // namespace
