#include "control/restart_services.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "core/packagemanager.h"
#include "platform/locks.h"
#include "support/lock_holder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

class RestartServicesTest : public TempRootTest {
protected:
    // Host services whose reload appends the service's name to /tmp/reloaded, after `extra`.
    void hostServices(const std::string& failing, const std::string& extra = "") {
        std::string list = "{\"services\": [" + extra;
        for (const char* name : {"samba", "winbindd", "nmbd", "nginx", "nfsd"}) {
            const bool fails = failing == name;
            list += std::string(list.back() == '[' ? "" : ",") + "{\"name\": \"" + name +
                    "\", \"reload\": [\"/usr/zarn/bin/reload\", \"" + name + "\", \"" +
                    (fails ? "1" : "0") + "\"]}";
        }
        writeFile("/etc/zarnhost/services.json", list + "]}");
        writeFile("/usr/zarn/bin/reload",
                  "#!/bin/sh\necho \"$1\" >> \"$ZARNPKG_ROOT/tmp/reloaded\"\nexit $2\n", 0755);
    }
    std::string events() const { return readFile("/var/log/zarnhost/events.log"); }
};

TEST_F(RestartServicesTest, MaskOfNamesAndPackages) {
    EXPECT_EQ(PMSConvMapRestartService("nginx firewall"), 0x40000000u);
    EXPECT_EQ(PMSConvMapRestartService("samba bogus cron"), 0x4u | 0x8u);
    EXPECT_EQ(PMSConvMapRestartService(nullptr), 0u);

    addPackage("a", "startstop_restart_services=\"nfs\"");
    addPackage("b", "startstop_restart_services=\"mdns samba\"");
    addPackage("c", "startstop_restart_services=\"cron\"");
    PackageManager pm;
    pm.getPackageInfoData()->startstop_restart_services = 0x1;
    EXPECT_EQ(pm.findRestartServices({"c"}), 0x1u) << "one package: the manager's own";
    EXPECT_EQ(pm.findRestartServices({"a", "gone", "b", "c"}), 0x1u | 0x8000u | 0x20000u | 0x4u)
        << "the last of the list is the manager's, a missing INFO counts for nothing";
}

TEST_F(RestartServicesTest, NamedServicesReloadOnceAfterTheLockIsGiven) {
    hostServices("");
    PackageManager pm;
    pm.getPackageInfoData()->startstop_restart_services =
        PMSConvMapRestartService("nginx firewall samba");
    pm.getPackageInfoData()->instuninst_restart_services = PMSConvMapRestartService("nfs");
    EXPECT_FALSE(pm.RestartServices(PKG_INSTALLATION_NONE, 0));
    EXPECT_EQ(events(), "");

    ASSERT_TRUE(PackageManager::ExLock(1));
    ASSERT_TRUE(pm.RestartServices(PKG_INSTALLATION_START, 0));
    const std::string log = events();
    EXPECT_EQ(CountOf(log, "web engine configuration regenerated"), 1u);
    EXPECT_EQ(CountOf(log, "firewall rules reloaded"), 1u);
    for (const char* name : {"nginx", "samba", "winbindd", "nmbd"}) {
        EXPECT_EQ(CountOf(log, std::string("service reload: ") + name + "\n"), 1u) << name;
    }
    EXPECT_EQ(CountOf(log, "nfsd"), 0u);
    EXPECT_EQ(readFile("/tmp/reloaded"), "nginx\nsamba\nwinbindd\nnmbd\n");
    // The lock is free for another process.
    ChildLockHolder other([] {
        Fd lock = ZARNLockFileOpen(ZARNLockPath(PackageLockId));
        return lock.valid() && ZARNFlock(lock.get(), true, 0);
    });
    EXPECT_TRUE(other.took());

    // Other types take the install mask.
    ASSERT_TRUE(pm.RestartServices(PKG_INSTALLATION_INSTALL, 0));
    EXPECT_EQ(CountOf(events(), "service reload: nfsd"), 1u);
}

TEST_F(RestartServicesTest, FailuresAreNamed) {
    hostServices("samba", "{\"name\": \"crond\", \"error\": true}");
    PackageManager pm;
    EXPECT_FALSE(pm.RestartServicesAction(0x4 | 0x8 | 0x40000000));
    EXPECT_EQ(pm.getResult(), PKG_ERR_RESTART_SERVICE);
    EXPECT_EQ(Json::FastWriter().write(pm.getJsonParam("services")), "[\"samba\",\"crond\"]\n");
    EXPECT_EQ(readFile("/tmp/reloaded"), "nginx\nsamba\n") << "samba's kin wait for samba";
    EXPECT_EQ(CountOf(events(), "firewall rules reloaded"), 0u);
    EXPECT_TRUE(logged("Failed to restart related service"));
}

TEST_F(RestartServicesTest, HooksSeeTheAction) {
    writeFile("/usr/zarn/zarnpkg/note",
              "#!/bin/sh\necho \"$ZARNPKG_PKG_STATUS $ZARNPKG_PKGNAME $ZARNPKG_PKGVER "
              "${ZARNPKG_OLD_PKGVER-none} ${ZARNPKG_BOOT_STATUS-noboot}\" >> "
              "\"$ZARNPKG_ROOT/tmp/hooks\"\n",
              0755);
    PackageInfo info, old;
    info.name = "demo";
    info.version = "2.0";
    old.version = "1.0";
    setenv("ZARNPKG_BOOT_STATUS", "yes", 1);
    PMSCheckServiesStatus(info, &old, PKG_INSTALLATION_UPGRADE, 1);
    PMSCheckServiesStatus(info, nullptr, PKG_INSTALLATION_NONE, 0);
    EXPECT_EQ(getenv("ZARNPKG_BOOT_STATUS"), nullptr);
    EXPECT_EQ(readFile("/tmp/hooks"), "UPGRADE demo 2.0 1.0 noboot\nSTOP demo 2.0 none noboot\n");
}
