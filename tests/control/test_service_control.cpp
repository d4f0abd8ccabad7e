#include <gtest/gtest.h>

#include "control/service_control.h"
#include "platform/files.h"
#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/service_packages.h"

using namespace ZARNPackageTool;

namespace {

using Names = std::vector<std::string>;

class ServiceControlTest : public ServicePackagesTest {
protected:
    bool control(const std::string& name, bool start, PKG_ERRCODE expected = PKG_ERR_SUCCESS) {
        PackageManager pm;
        const bool ok = pm.serviceControl(name, start, nullptr);
        EXPECT_EQ(pm.getResult(), expected) << name << "\n" << logText();
        return ok;
    }
    void expectRunning(const Names& up, const Names& down) {
        for (const auto& p : up) {
            EXPECT_TRUE(processAlive(p)) << p;
            EXPECT_TRUE(ZARNPathExists("/var/packages/" + p + "/enabled")) << p;
        }
        for (const auto& p : down) {
            EXPECT_FALSE(processAlive(p)) << p;
        }
    }
    std::string events() const { return readFile("/var/log/zarnhost/events.log"); }
};

// The CLI tests start, stop and restart a chain and see starts refused. Here: a version this
// system no longer runs, whose boot start tells the administrators, and a refused stop, which
// keeps the package running.
TEST_F(ServiceControlTest, RefusedBootStartAndRefusedStop) {
    writeFile("/etc.defaults/zarnpackageslimit.conf", "old=\"2.0\"\n");
    addServicePackage("old");
    PackageManager boot;
    EXPECT_FALSE(boot.serviceControlAction(PKG_INSTALLATION_NONE, "old", true, nullptr, nullptr,
                                           MSG_TYPE_NOTIFY));
    EXPECT_EQ(boot.getResult(), PKG_ERR_VERSION_LIMIT);
    EXPECT_FALSE(processAlive("old"));
    EXPECT_EQ(CountOf(events(), "pkgmgr:fail_start_kos_version Pkg old"), 1u) << events();
    addServicePackage("keeper");
    ASSERT_TRUE(control("keeper", true));
    failAction("keeper", "prestop");
    EXPECT_FALSE(control("keeper", false, PKG_ERR_PRESTOP));
    expectRunning({"keeper"}, {});
}

// The system's own stop pauses a package and keeps its flag; when the package then can't come
// back, what runs on top of it stops and the administrators hear of it.
TEST_F(ServiceControlTest, FailedStartOfAnEnabledPackageStopsItsDependants) {
    addServicePackage("base");
    addServicePackage("app", "base");
    ASSERT_TRUE(control("base", true));
    ASSERT_TRUE(control("app", true));
    PackageManager system;
    ASSERT_TRUE(system.serviceControlAction(PKG_INSTALLATION_NONE, "base", false, nullptr, nullptr,
                                            MSG_TYPE_NONE))
        << logText();
    EXPECT_FALSE(processAlive("base"));
    EXPECT_TRUE(ZARNPathExists("/var/packages/base/enabled"));
    EXPECT_EQ(trace({"prestop"}), Names{}) << "a system stop runs no hook";

    failAction("base", "start");
    EXPECT_FALSE(control("base", true, PKG_ERR_START));
    expectRunning({}, {"base", "app"});
    for (const char* p : {"base", "app"}) {
        EXPECT_FALSE(ZARNPathExists(std::string("/var/packages/") + p + "/enabled")) << p;
    }
    EXPECT_EQ(CountOf(events(), "pkgmgr:dep_start_failed Pkg base Pkg app"), 1u) << events();
}

// One reload for a whole chain, and for a restart one after its start only.
TEST_F(ServiceControlTest, RestartMaskReloadsNamedServicesOnce) {
    addServicePackage("a", "", "startstop_restart_services=\"cron\"\n");
    addServicePackage("b", "a", "startstop_restart_services=\"cron nfs\"\n");
    ASSERT_TRUE(control("a", true));
    ASSERT_TRUE(control("b", true));
    EXPECT_EQ(CountOf(events(), "service reload: crond"), 2u);
    EXPECT_EQ(CountOf(events(), "service reload: nfsd"), 1u);
    PackageManager pm;
    ASSERT_TRUE(pm.serviceControlRestart("a"));
    EXPECT_EQ(CountOf(events(), "service reload: crond"), 3u) << events();
    EXPECT_EQ(CountOf(events(), "service reload: nfsd"), 2u) << events();
}

// A package whose service runs while its script says it is down is stopped before it starts;
// packages that need a host service follow that service, as the system's own action.
TEST_F(ServiceControlTest, OutOfLineServiceStopsFirstAndHostServicesCarryTheirPackages) {
    addServicePackage("lost");
    ASSERT_TRUE(control("lost", true));
    ASSERT_NO_FATAL_FAILURE(killProcess("lost"));
    ASSERT_TRUE(ZARNUnlink("/trace"));
    ASSERT_TRUE(control("lost", true));
    EXPECT_EQ(trace({"stop", "start"}), (Names{"stop lost", "start lost"})) << logText();
    expectRunning({"lost"}, {});

    addServicePackage("ftp-user", "", "start_dep_services=\"ftpd\"\n");
    ASSERT_TRUE(control("ftp-user", true));
    PackageManager pm;
    ASSERT_TRUE(pm.serviceControlByService({"ftpd"}, false, false)) << logText();
    EXPECT_FALSE(processAlive("ftp-user"));
    EXPECT_TRUE(ZARNPathExists("/var/packages/ftp-user/enabled"));
    ASSERT_TRUE(pm.serviceControlByService({"ftpd"}, true, false)) << logText();
    expectRunning({"ftp-user", "lost"}, {});
    // The system's own action runs no hook.
    EXPECT_EQ(trace({"prestart", "prestop"}),
              (Names{"prestop lost", "prestart lost", "prestart ftp-user"}));
}

// The UI sees the action as a task while it runs, and no more after it.
TEST_F(ServiceControlTest, TaskIsVisibleWhileTheActionRuns) {
    const std::string task = "/tmp/KOSTaskMgr/@administrators/@ZARNPKG_STARTSTOP_watched.json";
    addServicePackage("watched", "", "",
                      "prestart|prestop) cp '" + phys(task) + "' \"" + root() + "/seen-$1\" ;;");
    ASSERT_TRUE(control("watched", true));
    ASSERT_TRUE(control("watched", false));
    for (const char* status : {"starting", "stopping"}) {
        const std::string seen =
            readFile(status == std::string("starting") ? "/seen-prestart" : "/seen-prestop");
        ASSERT_FALSE(seen.empty()) << status;
        const Json::Value data = ParseJson(seen)["properties"]["data"];
        EXPECT_EQ(data["id"], "watched") << seen;
        EXPECT_EQ(data["status"], status) << seen;
    }
    EXPECT_FALSE(ZARNPathExists(task));
}

}  // namespace
