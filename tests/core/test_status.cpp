#include <gtest/gtest.h>

#include <cstdio>
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
    int status(const std::string& name) { return PackageManager().getPkgStatus(name); }
    // What each query answers for a package, on one line: the status, the rough status ("-"
    // when it fails), the status query's success, running flag and result, whether the
    // package counts as started and the result that leaves, and whether the control script is
    // found and the result that leaves.
    std::string answers(const std::string& name) {
        PackageManager pm;
        int rough = -1;
        const bool roughOk = pm.getPkgRoughStatus(name, rough);
        bool running = false;
        const bool ok = pm.getServiceStatus(name, running, true);
        const unsigned int result = pm.getResult();
        const bool started = pm.isStarted(name);
        const unsigned int startedResult = pm.getResult();
        PackageInfo info;
        const bool script = !pm.getServiceScript(name, info).empty();
        char line[128];
        std::snprintf(line, sizeof(line), "%#x %s %d%d %#x %d %#x %s%#x", status(name),
                      roughOk ? std::to_string(rough).c_str() : "-", ok, running, result, started,
                      startedResult, script ? "script" : "none ",
                      script ? 0u : static_cast<unsigned int>(pm.getResult()));
        return line;
    }
};

TEST_F(Status, EveryQueryOfEachState) {
    writeFile("/var/packages/noinfo/scripts/start-stop-status", "#!/bin/sh\nexit 0\n", 0755);
    // The script says running, but neither enabled nor the job: stopped.
    addPackage("idle", 0);
    addPackage("enabled", 0);
    enable("enabled");
    addPackage("alpha", 0);
    enable("alpha");
    jobRuns("alpha");
    // A UI folder without its desktop entry does not run; a package that isn't startable needs
    // no enabled file.
    addPackage("beta", 0, "kosuidir=\"betaui\"\n");
    markRunning("beta");
    addPackage("gamma", 0, "startable=\"no\"\n");
    jobRuns("gamma");
    for (int code : {1, 2, 150, 7}) {
        addPackage("p" + std::to_string(code), code);
        markRunning("p" + std::to_string(code));
    }
    // A target link that leads nowhere; a package in the system partition, which needs no
    // volume; an install under way; a script that can't run; another machine's package.
    TempRootTest::addPackage("dangling", "", "");
    ASSERT_TRUE(ZARNSymlink("/volume1/@appstore/missing", "/var/packages/dangling/target"));
    TempRootTest::addPackage("syspart", "", "/usr/local/packages/@appstore/syspart");
    addPackage("inst", 0);
    markRunning("inst");
    writeFile("/var/packages/inst/installing", "");
    addPackage("noexec", 0);
    ASSERT_TRUE(ZARNChmod("/var/packages/noexec/scripts/start-stop-status", 0644));
    addPackage("foreign", 0, "arch=\"powerpc\"\n");
    // Stopped by a dependency limit; a job in error state; broken by a package that declares a
    // break of it; a conf/privilege that can't be read, so that the script never runs.
    addPackage("deplimit", 0);
    writeFile("/var/packages/deplimit/stoppedByDepLimit", "");
    addPackage("failedjob", 0);
    ASSERT_TRUE(ZARNJobStateWrite("pkgctl-failedjob", 0, 0, ZARN_JOB_PHASE_FAILED));
    addPackage("victim", 0);
    addPackage("breaker", 0, "install_break_packages=\"victim\"\n");
    markRunning("breaker");
    addPackage("badpriv", 0);
    markRunning("badpriv");
    writeFile("/var/packages/badpriv/conf/privilege", "{ not json");
    addPackage("plain", -1);
    // Firmware limits.
    for (const char* name : {"sys", "non", "old", "fine"}) {
        addPackage(name, 0);
    }
    markRunning("fine");
    writeFile("/etc.defaults/zarnpackageslimit.conf", "sys=\"system\"\nnon=\"non\"\nold=\"2.0\"\n");

    const struct {
        const char* name;
        const char* answers;
    } cases[] = {
        {"ghost", "0xff 0 00 0xff 0 0xff none 0xff"},
        {"noinfo", "0xff 0 00 0xff 0 0xff none 0xff"},
        {"idle", "0x3 1 10 0 0 0 script0"},
        {"enabled", "0x3 1 10 0 0 0 script0"},
        {"alpha", "0 3 11 0 1 0 script0"},
        {"beta", "0x3 1 10 0 0 0 script0"},
        {"gamma", "0 3 11 0 1 0 script0"},
        {"p1", "0x1 1 10 0x1 0 0x1 script0"},
        {"p2", "0x2 1 10 0x2 0 0x2 script0"},
        {"p150", "0x96 5 10 0x96 0 0x96 script0"},
        {"p7", "0x3 1 10 0x7 0 0x7 script0"},
        {"dangling", "0x96 5 00 0x96 0 0x96 none 0x96"},
        {"syspart", "0x4 - 00 0x100 1 0x100 none 0x100"},
        {"inst", "0x96 5 00 0x96 0 0x96 script0"},
        {"noexec", "0x96 5 00 0x96 0 0x96 none 0x96"},
        {"foreign", "0x96 5 00 0x102 0 0x102 script0"},
        {"deplimit", "0x3 1 00 0x133 0 0x133 script0"},
        {"failedjob", "0x3 1 00 0x137 0 0x137 script0"},
        {"victim", "0x96 5 00 0x132 0 0x132 script0"},
        {"badpriv", "0x3 1 00 0x105 0 0x105 script0"},
        {"plain", "0x4 - 00 0x100 1 0x100 none 0x100"},
        {"sys", "0x101 5 00 0x109 0 0x109 script0"},
        {"non", "0x102 5 00 0x108 0 0x108 script0"},
        {"old", "0x100 5 00 0x103 0 0x103 script0"},
        {"fine", "0 3 11 0 1 0 script0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(answers(c.name), c.answers) << c.name;
    }
    EXPECT_TRUE(logged("Package is broken, p150, [150]"));
    EXPECT_TRUE(logged("start-stop-status can't run"));
    EXPECT_TRUE(logged("Failed to set identity for badpriv [0x0A00"));
    EXPECT_TRUE(logged("unknown status: [plain]"));

    PackageManager pm;
    PackageInfo info;
    EXPECT_EQ(pm.getServiceScript("alpha", info), "/var/packages/alpha/scripts/start-stop-status");
    EXPECT_EQ(info.version, "1.0-0001");
    // Strict: the job runs while the script says stopped.
    bool running = false;
    EXPECT_TRUE(pm.getServiceStatus("alpha", running, true, true) && running);
    EXPECT_FALSE(pm.getServiceStatus("p1", running, true, true));
    EXPECT_EQ(pm.getResult(), PKG_ERR_STOPPED_BUT_RUNNING);
    EXPECT_TRUE(pm.isStarted("p1", true));
    EXPECT_FALSE(pm.isStarted("p1", false));
    EXPECT_TRUE(logged("Package p1 stops but service pkgctl-p1 start"));

    // A shared scan of the breakers gives the same answers as a scan per query.
    std::vector<PackageInfo> records;
    pm.enumPackageInfo(records, nullptr, PKG_MASK_ALL);
    const PackageManager::BreakerSnapshot breakers = PackageManager::makeBreakerSnapshot();
    EXPECT_EQ(breakers->size(), 1u);
    for (const auto& record : records) {
        PackageManager shared;
        shared.useBreakerSnapshot(breakers);
        EXPECT_EQ(shared.getPkgStatus(record.name), status(record.name)) << record.name;
    }
    // So does a listing, and a batch, whose scripts run in parallel: answers in the records'
    // order, and each query's result as a query of its own leaves it. Folders without an INFO
    // take no place among the listed records.
    for (const char* empty : {"a-empty", "m-empty", "z-empty"}) {
        makeDir(std::string("/var/packages/") + empty);
    }
    std::vector<PackageInfo> listed;
    std::vector<std::string> unreadable, names;
    PackageManager many;
    const std::vector<int> statuses = many.getAllPkgStatuses(listed, unreadable, nullptr, 0);
    for (const auto& record : listed) {
        names.push_back(record.name);
    }
    EXPECT_EQ(names.size(), records.size());
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
    PackageManager shared;
    shared.useBreakerSnapshot(PackageManager::makeBreakerSnapshot());
    EXPECT_EQ(shared.getPkgStatus("victim2"), 0x96);

    // The desktop entry of the UI folder lets beta run; a crashed volume breaks what lies on
    // it, not what lies in the system partition.
    writeFile("/usr/zarn/zarnman/webman/3rdparty/betaui/config", "{}");
    EXPECT_EQ(status("beta"), 0);
    writeFile("/etc/zarnhost/volumes.json",
              R"({"volumes":[{"path":"/volume1","writable":true,"generic":true,)"
              R"("created":true,"crashed":true}]})");
    EXPECT_EQ(status("plain"), 0x96);
    EXPECT_EQ(status("syspart"), 4);
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

    // A settings file changed between two calls of one process is seen by the second.
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
