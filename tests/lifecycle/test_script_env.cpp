#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>

#include "core/packagemanager.h"
#include "core/script_mask.h"
#include "lifecycle/script_env.h"
#include "platform/files.h"
#include "platform/process.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

using Env = std::map<std::string, std::string>;

class ScriptEnv : public TempRootTest {
protected:
    void TearDown() override {
        CleanAllEnv();
        TempRootTest::TearDown();
    }

    PackageInfo record(const std::string& name, unsigned int port = 0) {
        PackageInfo info;
        info.name = name;
        info.version = "2.1-0003";
        info.adminport = port;
        return info;
    }

    // What a program started by the runner sees.
    Env childEnv(const PackageInfo& info, PKG_INSTALLATION_TYPE type, const char* lang = "enu",
                 const std::string* logFile = nullptr, const Json::Value* wizard = nullptr,
                 const char* volume = nullptr, const char* packageFile = nullptr,
                 const char* user = nullptr) {
        ZARNUtils::ProcessRunner runner({"/usr/bin/env"});
        runner.captureOutput();
        PMSPrepareScriptEnv(info, runner, lang, logFile, type, wizard, volume, packageFile, user);
        EXPECT_EQ(runner.run(), 0);
        Env env;
        std::istringstream lines(runner.getStdout());
        std::string line;
        while (std::getline(lines, line)) {
            size_t eq = line.find('=');
            if (eq != std::string::npos) {
                env[line.substr(0, eq)] = line.substr(eq + 1);
            }
        }
        return env;
    }
    static bool has(const Env& env, const std::string& name) { return env.count(name) != 0; }
};

TEST_F(ScriptEnv, InstallVariables) {
    addPackage("demo", "", "/volume1/@appstore/demo");
    const std::string logFile = "/tmp/zarnpkgmgr.log-demo";
    Env env = childEnv(record("demo", 8080), PKG_INSTALLATION_INSTALL, "ger", &logFile, nullptr,
                       nullptr, "/tmp/demo.qar", "alice");
    EXPECT_EQ(env["ZARNPKG_PKGNAME"], "demo");
    EXPECT_EQ(env["ZARNPKG_PKGVER"], "2.1-0003");
    EXPECT_EQ(env["ZARNPKG_PKG_PROGRESS_PATH"], phys("/tmp/install_progress_demo"));
    EXPECT_EQ(env["ZARNPKG_PKG_STATUS"], "INSTALL");
    EXPECT_FALSE(has(env, "ZARNPKG_TEMP_UPGRADE_FOLDER"));
    EXPECT_FALSE(has(env, "ZARNPKG_TEMP_REPLACE_FOLDER")) << "the deprecated mechanism is on";
    EXPECT_EQ(env["ZARNPKG_KOS_LANGUAGE"], "ger");
    EXPECT_EQ(env["ZARNPKG_KOS_VERSION_MAJOR"], std::to_string(ZARN_OS_MAJOR));
    EXPECT_EQ(env["ZARNPKG_KOS_VERSION_MINOR"], std::to_string(ZARN_OS_MINOR));
    EXPECT_EQ(env["ZARNPKG_KOS_VERSION_BUILD"], std::to_string(ZARN_OS_BUILD));
    EXPECT_FALSE(env["ZARNPKG_KOS_ARCH"].empty());
    EXPECT_EQ(env["ZARNPKG_PKGDEST"], phys("/volume1/@appstore/demo"));
    EXPECT_EQ(env["ZARNPKG_PKGDEST_VOL"], phys("/volume1"));
    EXPECT_EQ(env["ZARNPKG_PKGPORT"], "8080");
    EXPECT_EQ(env["ZARNPKG_TEMP_QARFILE"], phys("/tmp/demo.qar"));
    EXPECT_EQ(env["ZARNPKG_USERNAME"], "alice");
    EXPECT_EQ(env["ZARNPKG_TEMP_LOGFILE"], phys(logFile));
    EXPECT_EQ(env["ZARNPKG_ROOT"], root());
}

TEST_F(ScriptEnv, UnsetRulesAndSystemLanguage) {
    // Values left in the process by an earlier action must not leak into a status query.
    setenv("ZARNPKG_PKG_STATUS", "INSTALL", 1);
    setenv("ZARNPKG_PKGPORT", "1", 1);
    setenv("ZARNPKG_USERNAME", "old", 1);
    setenv("ZARNPKG_TEMP_LOGFILE", "/old", 1);
    setenv("ZARNPKG_PKGDEST", "/old", 1);
    Env env = childEnv(record("lonely"), PKG_INSTALLATION_NONE, nullptr);
    for (const char* name :
         {"ZARNPKG_PKG_PROGRESS_PATH", "ZARNPKG_PKG_STATUS", "ZARNPKG_TEMP_UPGRADE_FOLDER",
          "ZARNPKG_TEMP_REPLACE_FOLDER", "ZARNPKG_PKGDEST", "ZARNPKG_PKGDEST_VOL",
          "ZARNPKG_PKGPORT", "ZARNPKG_TEMP_QARFILE", "ZARNPKG_USERNAME", "ZARNPKG_TEMP_LOGFILE"}) {
        EXPECT_FALSE(has(env, name)) << name;
        EXPECT_EQ(getenv(name), nullptr) << name;
    }
    EXPECT_EQ(env["ZARNPKG_KOS_LANGUAGE"], "enu") << "from /etc/zarninfo.conf";

    // Restart, start and stop.
    EXPECT_FALSE(has(childEnv(record("x"), PKG_INSTALLATION_RESTART), "ZARNPKG_PKG_STATUS"));
    EXPECT_EQ(childEnv(record("x"), PKG_INSTALLATION_START)["ZARNPKG_PKG_STATUS"], "START");
    EXPECT_EQ(childEnv(record("x"), PKG_INSTALLATION_STOP)["ZARNPKG_PKG_STATUS"], "STOP");
    EXPECT_EQ(childEnv(record("x"), PKG_INSTALLATION_UNINSTALL)["ZARNPKG_PKG_STATUS"], "UNINSTALL");

    // Without a language setting the value stays empty and the gap is logged.
    writeFile("/etc/zarninfo.conf", "timezone=\"UTC\"\n");
    Env bare = childEnv(record("x"), PKG_INSTALLATION_NONE, nullptr);
    EXPECT_EQ(bare.at("ZARNPKG_KOS_LANGUAGE"), "");
    EXPECT_TRUE(logged("Not find language in /etc/zarninfo.conf"));
}

TEST_F(ScriptEnv, UpgradeFoldersAndVolumes) {
    addPackage("up", "", "/volume1/@appstore/up");
    PackageInfo info = record("up");
    info.extra.get()->use_deprecated_replace_mechanism = false;
    Env env = childEnv(info, PKG_INSTALLATION_UPGRADE);
    EXPECT_EQ(env["ZARNPKG_PKG_STATUS"], "UPGRADE");
    EXPECT_EQ(env["ZARNPKG_TEMP_UPGRADE_FOLDER"], phys("/volume1/@tmp/zarnpkg.tmp/up"));
    EXPECT_EQ(env["ZARNPKG_TEMP_REPLACE_FOLDER"], env["ZARNPKG_TEMP_UPGRADE_FOLDER"]);

    // A dangling link: no destination, but an explicit volume still shows.
    addPackage("gone", "", "");
    ASSERT_TRUE(ZARNSymlink("/volume2/@appstore/gone", "/var/packages/gone/target"));
    Env dangling =
        childEnv(record("gone"), PKG_INSTALLATION_INSTALL, "enu", nullptr, nullptr, "/volume2");
    EXPECT_FALSE(has(dangling, "ZARNPKG_PKGDEST"));
    EXPECT_EQ(dangling["ZARNPKG_PKGDEST_VOL"], phys("/volume2"));

    // The system partition gives the head of the path.
    addPackage("sys", "", "/usr/local/packages/@appstore/sys");
    Env sys = childEnv(record("sys"), PKG_INSTALLATION_NONE);
    EXPECT_EQ(sys["ZARNPKG_PKGDEST"], phys("/usr/local/packages/@appstore/sys"));
    EXPECT_EQ(sys["ZARNPKG_PKGDEST_VOL"], phys("/usr"));
}

TEST_F(ScriptEnv, WizardValuesComeAndGo) {
    Json::Value wizard(Json::objectValue);
    wizard["WIZ_PORT"] = "9000";
    wizard["wiz_flag"] = true;
    wizard[""] = "empty name";
    wizard["BAD=NAME"] = "x";
    wizard[std::string("NUL\0NAME", 8)] = "y";
    wizard["WIZ_LIST"] = Json::Value(Json::arrayValue);
    Env env = childEnv(record("w"), PKG_INSTALLATION_INSTALL, "enu", nullptr, &wizard);
    EXPECT_EQ(env["wiz_flag"], "true");
    EXPECT_FALSE(has(env, "WIZ_LIST"));
    EXPECT_FALSE(has(env, "BAD"));
    EXPECT_FALSE(has(env, "NUL"));
    for (const auto& entry : env) {
        EXPECT_FALSE(entry.first.empty()) << "an entry without a name: " << entry.second;
    }
    EXPECT_TRUE(logged("Skip wizard value of w: [BAD=NAME]"));
    EXPECT_TRUE(logged("Skip wizard value of w: []"));
    EXPECT_EQ(PMSGetWizardEnv().getMemberNames(),
              (std::vector<std::string>{"WIZ_PORT", "wiz_flag"}));

    // The next action's scripts don't see them, even if the process had them.
    setenv("WIZ_PORT", "9000", 1);
    Env next = childEnv(record("w"), PKG_INSTALLATION_INSTALL);
    EXPECT_FALSE(has(next, "WIZ_PORT"));
    EXPECT_EQ(getenv("WIZ_PORT"), nullptr);
    EXPECT_TRUE(PMSGetWizardEnv().empty());

    // Non-object wizard values add nothing.
    Json::Value notObject("WIZ=1");
    Env none = childEnv(record("w"), PKG_INSTALLATION_INSTALL, "enu", nullptr, &notObject);
    EXPECT_FALSE(has(none, "WIZ"));

    // A wizard name that is also a package variable: the wizard wins for its own action, and
    // the next action still gets the package's value.
    Json::Value shadowing(Json::objectValue);
    shadowing["ZARNPKG_PKGVER"] = "9.9";
    EXPECT_EQ(childEnv(record("w"), PKG_INSTALLATION_INSTALL, "enu", nullptr,
                       &shadowing)["ZARNPKG_PKGVER"],
              "9.9");
    Env after = childEnv(record("w"), PKG_INSTALLATION_INSTALL);
    EXPECT_EQ(after["ZARNPKG_PKGVER"], "2.1-0003");
    EXPECT_EQ(after["ZARNPKG_PKGNAME"], "w");

    // The last wizard's names leave the process only: what the caller gave this runner before
    // the preparation (the old version of an upgrade) stays.
    Json::Value clash(Json::objectValue);
    clash["ZARNPKG_OLD_PKGVER"] = "from the wizard";
    childEnv(record("w"), PKG_INSTALLATION_UPGRADE, "enu", nullptr, &clash);
    ZARNUtils::ProcessRunner upgrade({"/usr/bin/env"});
    upgrade.captureOutput();
    upgrade.setEnv("ZARNPKG_OLD_PKGVER", "1.0");
    PMSPrepareScriptEnv(record("w"), upgrade, "enu", nullptr, PKG_INSTALLATION_UPGRADE, nullptr,
                        nullptr, nullptr, nullptr);
    ASSERT_EQ(upgrade.run(), 0);
    EXPECT_NE(upgrade.getStdout().find("ZARNPKG_OLD_PKGVER=1.0\n"), std::string::npos);
    EXPECT_TRUE(PMSGetWizardEnv().empty());
}

TEST_F(ScriptEnv, PrepareEnvAndCleanAll) {
    addPackage("own", "", "/volume1/@appstore/own");
    // The values are those of the runner's preparation, set in this process instead.
    PMSPrepareEnv(record("own", 5000), "fre", nullptr, "/tmp/own.qar");
    EXPECT_STREQ(getenv("ZARNPKG_PKGNAME"), "own");
    EXPECT_STREQ(getenv("ZARNPKG_KOS_LANGUAGE"), "fre");
    EXPECT_EQ(std::string(getenv("ZARNPKG_PKGDEST")), phys("/volume1/@appstore/own"));
    EXPECT_STREQ(getenv("ZARNPKG_PKGPORT"), "5000");
    EXPECT_NE(getenv("ZARNPKG_TEMP_QARFILE"), nullptr);

    Json::Value wizard(Json::objectValue);
    wizard["WIZ_A"] = "1";
    ZARNUtils::ProcessRunner runner({"/usr/bin/true"});
    PMSPrepareScriptEnv(record("own"), runner, "enu", nullptr, PKG_INSTALLATION_INSTALL, &wizard,
                        nullptr, nullptr, nullptr);
    setenv("WIZ_A", "1", 1);
    setenv("ZARNPKG_BOOT_STATUS", "BOOT", 1);
    setenv("ZARNPKG_OLD_PKGVER", "1.0", 1);
    CleanAllEnv();
    for (const char* name :
         {"ZARNPKG_BOOT_STATUS", "ZARNPKG_KOS_ARCH", "ZARNPKG_KOS_LANGUAGE", "ZARNPKG_OLD_PKGVER",
          "ZARNPKG_PKGDEST", "ZARNPKG_PKGDEST_VOL", "ZARNPKG_PKGNAME", "ZARNPKG_PKGPORT",
          "ZARNPKG_PKGVER", "ZARNPKG_TEMP_QARFILE", "WIZ_A"}) {
        EXPECT_EQ(getenv(name), nullptr) << name;
    }
    EXPECT_TRUE(PMSGetWizardEnv().empty());
}

TEST_F(ScriptEnv, TypeTextAndWizardScriptPreparation) {
    std::string texts;
    for (int type : {PKG_INSTALLATION_NONE, PKG_INSTALLATION_INSTALL, PKG_INSTALLATION_UPGRADE,
                     PKG_INSTALLATION_UNINSTALL, PKG_INSTALLATION_START, PKG_INSTALLATION_STOP,
                     PKG_INSTALLATION_RESTART, static_cast<PKG_INSTALLATION_TYPE>(64)}) {
        texts += parseInstallTypeToStr(static_cast<PKG_INSTALLATION_TYPE>(type)) + ",";
    }
    EXPECT_EQ(texts,
              "(system) trigger,install,upgrade,uninstall,start,stop,restart,(system) trigger,");

    // An upgrade of a package that isn't installed is the archive test's wizard query.
    const std::string logFile = "/tmp/wizard.out";
    PackageInfo fresh = record("wiz");
    ZARNUtils::ProcessRunner start({"/usr/bin/env"});
    EXPECT_FALSE(PMSPrepareWizardScriptEnv(PKG_INSTALLATION_START, fresh, start, logFile, "enu",
                                           nullptr, nullptr, nullptr, nullptr));

    addPackage("wiz", "version=\"1.5\"\n", "");
    ZARNUtils::ProcessRunner runner({"/usr/bin/env"});
    runner.captureOutput();
    ASSERT_TRUE(PMSPrepareWizardScriptEnv(PKG_INSTALLATION_UPGRADE, fresh, runner, logFile, "enu",
                                          nullptr, "/tmp/wiz.qar", nullptr, nullptr));
    ASSERT_EQ(runner.run(), 0);
    const std::string out = runner.getStdout();
    EXPECT_NE(out.find("ZARNPKG_OLD_PKGVER=1.5\n"), std::string::npos);
    EXPECT_NE(out.find("ZARNPKG_PKGVER=1.5\n"), std::string::npos) << "the installed record";
    EXPECT_NE(out.find("ZARNPKG_TEMP_LOGFILE=" + phys(logFile) + "\n"), std::string::npos);

    ZARNUtils::ProcessRunner removal({"/usr/bin/env"});
    removal.captureOutput();
    ASSERT_TRUE(PMSPrepareWizardScriptEnv(PKG_INSTALLATION_UNINSTALL, fresh, removal, logFile,
                                          "enu", nullptr, "/tmp/wiz.qar", nullptr, nullptr));
    ASSERT_EQ(removal.run(), 0);
    EXPECT_EQ(removal.getStdout().find("ZARNPKG_TEMP_QARFILE="), std::string::npos);
}

TEST_F(ScriptEnv, ScriptMaskRepairsModes) {
    const std::string dir = "/tmp/pkginstall/scripts";
    EXPECT_EQ(PMGetScriptMask(dir), 0u);
    writeFile(dir + "/start-stop-status", "#!/bin/sh\n", 0755);
    writeFile(dir + "/postinst", "#!/bin/sh\n", 0644);
    writeFile(dir + "/postupgrade", "", 0755);
    writeFile(dir + "/prereplace", "#!/bin/sh\n", 0755);
    // The postinst without its execute bit is not runnable until the mask repairs it.
    EXPECT_FALSE(PMSCheckIsExec(dir + "/postinst"));
    EXPECT_EQ(PMGetScriptMask(dir),
              PKG_SCRIPT_START_STOP_STATUS | PKG_SCRIPT_POSTINST | PKG_SCRIPT_POSTUPGRADE);
    EXPECT_EQ(modeOf(dir + "/postinst"), 0700u);
    EXPECT_EQ(modeOf(dir + "/start-stop-status"), 0755u) << "a runnable script keeps its mode";
    EXPECT_TRUE(PMSCheckIsExec(dir + "/postinst"));
    // An empty script counts in the mask but is no script for the pipelines.
    EXPECT_FALSE(PMSCheckIsExec(dir + "/postupgrade"));

    writeFile(dir + "/preinst", "#!/bin/sh\n", 0600);
    writeFile(dir + "/preuninst", "#!/bin/sh\n", 0700);
    writeFile(dir + "/postuninst", "#!/bin/sh\n", 0700);
    writeFile(dir + "/preupgrade", "#!/bin/sh\n", 0700);
    EXPECT_EQ(PMGetScriptMask(dir), 0x7fu);
}

}  // namespace
