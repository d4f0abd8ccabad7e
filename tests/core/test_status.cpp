#include <gtest/gtest.h>

#include <string>

#include "core/packagemanager.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/json.h"
#include "platform/services.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class Status : public TempRootTest {
protected:
    // A package on /volume1 whose control script ends with `exitCode`; a negative code means no
    // control script at all.
    void addPackage(const std::string& name, int exitCode, const std::string& extraInfo = "") {
        TempRootTest::addPackage(name, "version=\"1.0-0001\"\n" + extraInfo);
        if (exitCode >= 0) {
            addControlScript(name, exitCode);
        }
    }
    void jobRuns(const std::string& name) {
        ASSERT_TRUE(ZARNJobStateWrite("pkgctl-" + name, 1, 1, ZARN_JOB_PHASE_RUNNING));
    }
    int rough(const std::string& name, bool* ok = nullptr) {
        PackageManager pm;
        int value = -1;
        bool got = pm.getPkgRoughStatus(name, value);
        if (ok != nullptr) {
            *ok = got;
        }
        return got ? value : -1;
    }
    int status(const std::string& name) {
        PackageManager pm;
        return pm.getPkgStatus(name);
    }
};

TEST_F(Status, NotInstalledAndMissingInfo) {
    PackageManager pm;
    PackageInfo info;
    EXPECT_EQ(pm.getServiceScript("ghost", info), "");
    EXPECT_EQ(pm.getResult(), PKG_ERR_NOT_INSTALLED);

    writeFile("/var/packages/noinfo/scripts/start-stop-status", "#!/bin/sh\nexit 0\n", 0755);
    EXPECT_EQ(pm.getServiceScript("noinfo", info), "");
    EXPECT_EQ(pm.getResult(), PKG_ERR_NOT_INSTALLED);

    EXPECT_EQ(status("ghost"), 0xff);
    bool ok = false;
    EXPECT_EQ(rough("ghost", &ok), 0);
    EXPECT_TRUE(ok);
    EXPECT_FALSE(pm.isStarted("ghost"));
}

TEST_F(Status, RunningNeedsScriptEnabledAndJob) {
    addPackage("alpha", 0);
    PackageManager pm;
    PackageInfo info;
    EXPECT_EQ(pm.getServiceScript("alpha", info), "/var/packages/alpha/scripts/start-stop-status");
    EXPECT_EQ(info.version, "1.0-0001");

    // The script says running, but neither enabled nor the job: stopped.
    EXPECT_EQ(status("alpha"), 3);
    EXPECT_EQ(rough("alpha"), 1);
    enable("alpha");
    EXPECT_EQ(status("alpha"), 3);
    jobRuns("alpha");
    EXPECT_EQ(status("alpha"), 0);
    EXPECT_EQ(rough("alpha"), 3);
    EXPECT_TRUE(pm.isStarted("alpha"));
    bool running = false;
    EXPECT_TRUE(pm.getServiceStatus("alpha", running, true, true));
    EXPECT_TRUE(running);

    // A UI folder without its desktop entry does not run.
    addPackage("beta", 0, "kosuidir=\"betaui\"\n");
    markRunning("beta");
    EXPECT_EQ(status("beta"), 3);
    writeFile("/usr/zarn/zarnman/webman/3rdparty/betaui/config", "{}");
    EXPECT_EQ(status("beta"), 0);

    // A package that isn't startable needs no enabled file.
    addPackage("gamma", 0, "startable=\"no\"\n");
    jobRuns("gamma");
    EXPECT_EQ(status("gamma"), 0);
}

TEST_F(Status, ScriptExitCodes) {
    for (int code : {1, 2, 150, 7}) {
        const std::string name = "p" + std::to_string(code);
        addPackage(name, code);
        markRunning(name);
        PackageManager pm;
        bool running = true;
        EXPECT_TRUE(pm.getServiceStatus(name, running, true)) << code;
        EXPECT_FALSE(running) << code;
        EXPECT_EQ(pm.getResult(), static_cast<PKG_ERRCODE>(code)) << code;
        EXPECT_EQ(status(name), code == 7 ? 3 : code) << code;
        EXPECT_EQ(rough(name), code == 150 ? 5 : 1) << code;
    }
    EXPECT_TRUE(logged("Package is broken, p150, [150]"));

    // Strict: the job runs while the script says stopped.
    PackageManager pm;
    bool running = true;
    EXPECT_FALSE(pm.getServiceStatus("p1", running, true, true));
    EXPECT_EQ(pm.getResult(), PKG_ERR_STOPPED_BUT_RUNNING);
    EXPECT_TRUE(pm.isStarted("p1", true));
    EXPECT_FALSE(pm.isStarted("p1", false));
    EXPECT_TRUE(logged("Package p1 stops but service pkgctl-p1 start"));
}

TEST_F(Status, BrokenStates) {
    // A target link that leads nowhere.
    TempRootTest::addPackage("dangling", "", "");
    ASSERT_TRUE(ZARNSymlink("/volume1/@appstore/missing", "/var/packages/dangling/target"));
    PackageManager pm;
    PackageInfo info;
    EXPECT_EQ(pm.getServiceScript("dangling", info), "");
    EXPECT_EQ(pm.getResult(), PKG_ERR_BROKEN);
    EXPECT_EQ(status("dangling"), 0x96);
    EXPECT_EQ(rough("dangling"), 5);

    // A package in the system partition needs no volume; one on a crashed volume is broken.
    TempRootTest::addPackage("syspart", "", "/usr/local/packages/@appstore/syspart");
    addPackage("oncrashed", -1);
    EXPECT_EQ(status("syspart"), 4);
    EXPECT_EQ(status("oncrashed"), 4);
    writeFile("/etc/zarnhost/volumes.json",
              R"({"volumes":[{"path":"/volume1","writable":true,"generic":true,)"
              R"("created":true,"crashed":true}]})");
    EXPECT_EQ(status("oncrashed"), 0x96);
    EXPECT_EQ(status("syspart"), 4);
    ASSERT_TRUE(ZARNUnlink("/etc/zarnhost/volumes.json"));

    // The installing marker.
    addPackage("inst", 0);
    markRunning("inst");
    writeFile("/var/packages/inst/installing", "");
    EXPECT_EQ(status("inst"), 0x96);
    EXPECT_EQ(rough("inst"), 5);

    // A script that can't run.
    addPackage("noexec", 0);
    ASSERT_TRUE(ZARNChmod("/var/packages/noexec/scripts/start-stop-status", 0644));
    EXPECT_EQ(pm.getServiceScript("noexec", info), "");
    EXPECT_EQ(pm.getResult(), PKG_ERR_BROKEN);
    EXPECT_TRUE(logged("start-stop-status can't run"));

    // Wrong architecture.
    addPackage("foreign", 0, "arch=\"powerpc\"\n");
    EXPECT_EQ(status("foreign"), 0x96);

    // Stopped by a dependency limit; job in error state.
    addPackage("deplimit", 0);
    writeFile("/var/packages/deplimit/stoppedByDepLimit", "");
    bool running = true;
    EXPECT_FALSE(pm.getServiceStatus("deplimit", running, true));
    EXPECT_EQ(pm.getResult(), PKG_ERR_STOPPED_BY_DEP_LIMIT);
    EXPECT_FALSE(running);
    EXPECT_EQ(status("deplimit"), 3);

    addPackage("failedjob", 0);
    ASSERT_TRUE(ZARNJobStateWrite("pkgctl-failedjob", 0, 0, ZARN_JOB_PHASE_FAILED));
    EXPECT_FALSE(pm.getServiceStatus("failedjob", running, true));
    EXPECT_EQ(pm.getResult(), PKG_ERR_JOB_ERROR);

    // Broken by another package that declares a break of it.
    addPackage("victim", 0);
    addPackage("breaker", 0, "install_break_packages=\"victim\"\n");
    EXPECT_FALSE(pm.getServiceStatus("victim", running, true));
    EXPECT_EQ(pm.getResult(), PKG_ERR_BROKEN_BY_OTHER);
    EXPECT_EQ(status("victim"), 0x96);

    // A conf/privilege that can't be read: the status script never runs.
    addPackage("badpriv", 0);
    markRunning("badpriv");
    writeFile("/var/packages/badpriv/conf/privilege", "{ not json");
    EXPECT_FALSE(pm.getServiceStatus("badpriv", running, true));
    EXPECT_FALSE(running);
    EXPECT_EQ(pm.getResult(), PKG_ERR_BAD_PACKAGE);
    EXPECT_TRUE(logged("Failed to set identity for badpriv [0x0A00"));
    EXPECT_EQ(status("badpriv"), 3);

    // A shared scan of the breakers gives the same answers as a scan per query.
    markRunning("breaker");
    std::vector<PackageInfo> records;
    pm.enumPackageInfo(records, nullptr, PKG_MASK_ALL);
    const PackageManager::BreakerSnapshot breakers = PackageManager::makeBreakerSnapshot();
    EXPECT_EQ(breakers->size(), 1u);
    for (const auto& info : records) {
        PackageManager shared;
        shared.useBreakerSnapshot(breakers);
        EXPECT_EQ(shared.getPkgStatus(info.name), status(info.name)) << info.name;
    }
    // So does a listing, whose scripts run in parallel, and a batch: answers in the records'
    // order, and each query's result as a query of its own leaves it. Among them a package that
    // its user can't stop, which runs without an enabled flag, and folders without an INFO,
    // which take no place among the records.
    addPackage("unstoppable", 0, "ctl_stop=\"no\"\n");
    jobRuns("unstoppable");
    EXPECT_EQ(status("unstoppable"), 0);
    for (const char* empty : {"a-empty", "m-empty", "z-empty"}) {
        makeDir(std::string("/var/packages/") + empty);
    }
    std::vector<PackageInfo> listed;
    std::vector<std::string> unreadable, names;
    PackageManager many;
    const std::vector<int> statuses = many.getAllPkgStatuses(listed, unreadable, nullptr, 0);
    for (const auto& info : listed) {
        names.push_back(info.name);
    }
    EXPECT_EQ(names.size(), records.size() + 1);
    std::vector<PKG_ERRCODE> results;
    const std::vector<char> started = many.areStarted(names, true, results);
    ASSERT_EQ(statuses.size(), names.size());
    ASSERT_EQ(started.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(statuses[i], status(names[i])) << names[i];
        PackageManager one;
        EXPECT_EQ(started[i] != 0, one.isStarted(names[i], true)) << names[i];
        EXPECT_EQ(results[i], one.getResult()) << names[i];
    }

    // A breaker whose INFO lacks keys that a full load insists on still breaks: the shared
    // snapshot must see it as the scan of a single query does.
    addPackage("victim2", 0);
    markRunning("victim2");
    writeFile("/var/packages/lazybreaker/INFO",
              "package=\"lazybreaker\"\nversion=\"1.0\"\ninstall_break_packages=\"victim2\"\n");
    EXPECT_EQ(status("victim2"), 0x96);
    const PackageManager::BreakerSnapshot partial = PackageManager::makeBreakerSnapshot();
    PackageManager shared;
    shared.useBreakerSnapshot(partial);
    EXPECT_EQ(shared.getPkgStatus("victim2"), 0x96);
}

TEST_F(Status, NoControlScript) {
    addPackage("plain", -1);
    PackageManager pm;
    PackageInfo info;
    EXPECT_EQ(pm.getServiceScript("plain", info), "");
    EXPECT_EQ(pm.getResult(), PKG_ERR_NO_SCRIPT);
    EXPECT_EQ(status("plain"), 4);
    bool ok = true;
    rough("plain", &ok);
    EXPECT_FALSE(ok);
    EXPECT_TRUE(logged("unknown status: [plain]"));
    EXPECT_TRUE(pm.isStarted("plain"));
}

TEST_F(Status, FirmwareLimits) {
    addPackage("sys", 0);
    addPackage("non", 0);
    addPackage("old", 0);
    addPackage("fine", 0);
    markRunning("fine");
    writeFile("/etc.defaults/zarnpackageslimit.conf", "sys=\"system\"\nnon=\"non\"\nold=\"2.0\"\n");
    EXPECT_EQ(status("sys"), 0x101);
    EXPECT_EQ(status("non"), 0x102);
    EXPECT_EQ(status("old"), 0x100);
    EXPECT_EQ(status("fine"), 0);
    for (const char* name : {"sys", "non", "old"}) {
        EXPECT_EQ(rough(name), 5) << name;
    }
    PackageManager pm;
    EXPECT_FALSE(pm.isStarted("old"));
    EXPECT_EQ(pm.getResult(), PKG_ERR_VERSION_LIMIT);
    EXPECT_FALSE(pm.isStarted("sys"));
    EXPECT_EQ(pm.getResult(), PKG_ERR_LIMIT_SYSTEM);
}

TEST_F(Status, HostServices) {
    writeFile("/etc/zarnhost/services.json",
              R"({"services":[{"name":"ssh-shell","display_name":"SSH","enabled":false,)"
              R"("running":false},{"name":"pgsql","display_name":"PostgreSQL","enabled":true,)"
              R"("running":true},{"name":"nameless","enabled":false,"running":false}]})");
    PackageManager pm;
    EXPECT_EQ(pm.checkServiceStarted(0x8 | 0x10 | 0x40), 0x8u | 0x40u);
    std::set<std::string> missing = pm.checkServiceStarted({"ssh-shell", "pgsql", "nameless"});
    EXPECT_EQ(missing, (std::set<std::string>{"SSH", "nameless"}));

    writeFile("/etc/zarnhost/services.json",
              R"({"services":[{"name":"ssh-shell","enabled":true,"running":true},)"
              R"({"name":"pgsql","enabled":true,"running":false}]})");
    EXPECT_EQ(pm.checkServiceStarted(0x8 | 0x10), 0x10u);

    // A services file of the wrong shape counts as unreadable.
    for (const char* text : {"[1, 2]", R"("services")", "7"}) {
        writeFile("/etc/zarnhost/services.json", text);
        std::vector<std::string> names;
        EXPECT_FALSE(VLIBServiceEnum(names)) << text;
        EXPECT_EQ(VLIBServiceIsEnabled("ssh-shell"), -1) << text;
        EXPECT_EQ(VLIBServiceIsRunning("pgsql"), -1) << text;
        EXPECT_EQ(pm.checkServiceStarted(0x10), 0x10u) << text;
        EXPECT_EQ(pm.checkServiceStarted(std::set<std::string>{"pgsql"}),
                  std::set<std::string>{"pgsql"})
            << text;
    }
}

}  // namespace
