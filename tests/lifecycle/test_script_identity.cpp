#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <string>

#include "core/packagemanager.h"
#include "lifecycle/script_env.h"
#include "lifecycle/script_log.h"
#include "platform/accounts.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/sysroot.h"
#include "privilege/privilege.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class ScriptIdentity : public TempRootTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "switching a script to a package's account needs root";
        }
        TempRootTest::SetUp();
        // The package's user must be able to reach its scripts inside the temporary root.
        ASSERT_TRUE(ZARNChmod("/", 0755));
    }
    void TearDown() override {
        CleanAllEnv();
        TempRootTest::TearDown();
    }

    void addPackage(const std::string& name, const std::string& privilege) {
        TempRootTest::addPackage(name);
        const std::string dir = "/var/packages/" + name;
        writeFile(dir + "/conf/privilege", privilege);
        writeFile(dir + "/scripts/postinst",
                  "#!/bin/sh\necho \"uid=$(id -u)\"\necho \"gid=$(id -g)\"\n"
                  "echo \"groups=$(id -G | tr ' ' '\\n' | sort -nu | tr '\\n' ' ')\"\n"
                  "echo \"home=$HOME\"\n",
                  0755);
    }

    // Runs the package's postinst the way a pipeline does and returns the value lines it
    // wrote into its log.
    std::string runAsPackage(const std::string& name) {
        PackageInfo info;
        info.name = name;
        info.version = "1.0";
        const std::string script = "/var/packages/" + name + "/scripts/postinst";
        ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(script)});
        runner.setArgv0("postinst");
        PMSPrepareScriptEnv(info, runner, "enu", nullptr, PKG_INSTALLATION_INSTALL, nullptr,
                            nullptr, nullptr, nullptr);
        EXPECT_TRUE(Privilege::SetIdentity(runner, name, "postinst", ""));
        EXPECT_EQ(
            PMSRunAndWriteScriptLog(info, PKG_INSTALLATION_INSTALL, runner, PKG_RUN_MODE_SCRIPT),
            0);
        return readFile("/var/log/packages/" + name + ".log");
    }

    static std::string value(const std::string& log, const std::string& key) {
        const size_t at = log.find("\n" + key + "=");
        return at == std::string::npos
                   ? "<missing>"
                   : log.substr(at + key.size() + 2, log.find('\n', at + 1) - at - key.size() - 2);
    }
};

TEST_F(ScriptIdentity, ScriptRunsAsThePackageAccountAsRoot) {
    addPackage("idpkg", R"({"defaults": {"run-as": "package"}})");
    ASSERT_EQ(ZARNLocalAccountUserPrepareForPkg("idpkg", "idpkg", "/var/packages/idpkg/target"), 0);
    uid_t uid = 0;
    gid_t gid = 0;
    ASSERT_EQ(ZARNUserGetUGID("idpkg", &uid, &gid), 0);
    ASSERT_NE(uid, 0u);
    std::vector<gid_t> member;
    ASSERT_GE(ZARNUserListGroupIds("idpkg", member), 0);
    member.push_back(gid);
    std::set<gid_t> groups(member.begin(), member.end());
    std::string expectedGroups;
    for (gid_t g : groups) {
        expectedGroups += std::to_string(g) + " ";
    }

    const std::string log = runAsPackage("idpkg");
    EXPECT_EQ(value(log, "uid"), std::to_string(uid)) << log;
    EXPECT_EQ(value(log, "gid"), std::to_string(gid)) << log;
    EXPECT_EQ(value(log, "groups"), expectedGroups) << log;
    // The account's home reaches the script as the machine's path.
    EXPECT_EQ(value(log, "home"), phys("/var/packages/idpkg/target")) << log;

    // The status query runs its script under the same identity.
    writeFile("/var/packages/idpkg/scripts/start-stop-status",
              "#!/bin/sh\n[ \"$(id -u)\" = \"" + std::to_string(uid) + "\" ] || exit 7\nexit 0\n",
              0755);
    enable("idpkg");
    PackageManager pm;
    bool running = false;
    EXPECT_TRUE(pm.getServiceStatus("idpkg", running, true));
    EXPECT_EQ(pm.getResult(), PKG_ERR_SUCCESS);
}

TEST_F(ScriptIdentity, RunAsRootStaysRootAsRoot) {
    addPackage("rootpkg", R"({"defaults": {"run-as": "root"}})");
    const std::string log = runAsPackage("rootpkg");
    EXPECT_EQ(value(log, "uid"), "0") << log;
    EXPECT_EQ(value(log, "gid"), "0") << log;

    // A package whose account doesn't exist never has its script run as root instead.
    addPackage("ghostpkg", R"({"defaults": {"run-as": "package"}})");
    writeFile("/var/packages/ghostpkg/scripts/start-stop-status",
              "#!/bin/sh\n: > \"$ZARNPKG_PKGDEST/status-ran\"\nexit 0\n", 0755);
    PackageManager pm;
    bool running = true;
    EXPECT_FALSE(pm.getServiceStatus("ghostpkg", running, true));
    EXPECT_FALSE(running);
    EXPECT_EQ(pm.getResult(), PKG_ERR_SYSTEM);
    EXPECT_TRUE(logged("Failed to query package status, ghostpkg"));
    EXPECT_FALSE(IsFileExists("/volume1/@appstore/ghostpkg/status-ran"));
}

}  // namespace
