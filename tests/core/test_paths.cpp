#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "core/packageinfo.h"
#include "core/packagemanager.h"
#include "core/paths.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/process.h"
#include "platform/volumes.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

class PathsTest : public TempRootTest {
protected:
    void writeConf(const std::string& json) { writeFile(ZARN_VOLUMES_CONF, json); }
    std::string defVolKey() {
        std::string value;
        VLIBCFileGetKeyValue(PMS_INFO_CONF, PMS_DEF_VOL_KEY, value);
        return value;
    }
    void makeOld(const std::string& logical) {
        ZARNUtils::ProcessRunner touch({"/usr/bin/touch", "-d", "2 days ago", phys(logical)});
        ASSERT_EQ(touch.run(), 0);
    }
};

TEST_F(PathsTest, TmpDirOnAGivenOrChosenVolume) {
    makeDir("/volume2");
    writeConf(R"({"volumes": [{"path": "/volume2", "space_cap": 50000000}]})");
    std::string out = "stale";

    // A given volume with strictly more room than asked for is taken as it is.
    EXPECT_EQ(OutIf(PMSGetTmpDir(1000, "/volume2", out, false), out), "/volume2/@tmp");
    EXPECT_TRUE(ZARNIsDir("/volume2/@tmp"));
    // Exactly the size free passes the volume over; the picker then takes volume1.
    EXPECT_EQ(OutIf(PMSGetTmpDir(50000000, "/volume2", out), out), "/volume1/@tmp");
    EXPECT_TRUE(PMSCheckVolStatus("/volume2", 50000000));
    EXPECT_EQ(FailedWith(PMSCheckVolStatus("/volume2", 50000001)), ZARN_ERR_NO_SPACE);
    // Without a volume the first with room for the size and the margin is chosen.
    writeConf(R"({"volumes": [{"path": "/volume1", "space_cap": 20000000}]})");
    EXPECT_EQ(OutIf(PMSGetTmpDir(20000000 - PMS_TMP_MARGIN, out), out), "/volume1/@tmp");
    EXPECT_EQ(OutIf(PMSGetTmpDir(20000000 - PMS_TMP_MARGIN + 1, out), out), "/volume2/@tmp");
}

TEST_F(PathsTest, TmpDirFailuresLeaveTheReason) {
    std::string out = "stale";
    const struct {
        const char* volume;
        int error;
    } cases[] = {{R"("space_cap": 1000)", ZARN_ERR_NO_SPACE},
                 {R"("created": false)", ZARN_ERR_VOL_CREATING},
                 {R"("generic": false)", ZARN_ERR_NO_VOLUME}};
    for (const auto& c : cases) {
        writeConf(std::string(R"({"volumes": [{"path": "/volume1", )") + c.volume + "}]}");
        EXPECT_EQ(FailedWith(PMSGetTmpDir(0, nullptr, out, false)), c.error) << c.volume;
        EXPECT_TRUE(out.empty());
    }
    // The fallback looks at volumes that aren't generic too.
    EXPECT_EQ(OutIf(PMSGetTmpDir(0, nullptr, out, true), out), "/volume1/@tmp");

    writeConf(R"({"volumes": [{"path": "/volume1", "writable": false}]})");
    EXPECT_FALSE(PMSGetTmpDir(0, out));
    EXPECT_TRUE(logged("VolumeAvailGet() failed!! zarnerr=[0x8400]"));
    ASSERT_TRUE(ZARNRemoveTree("/volume1"));
    EXPECT_EQ(FailedWith(PMSGetTmpDir(0, out)), ZARN_ERR_NO_VOLUME);

    // A temp folder that can't be made.
    writeConf("{}");
    writeFile("/volume1/@tmp", "a file in the way");
    EXPECT_FALSE(PMSGetTmpDir(0, out));
    EXPECT_TRUE(logged("Failed to mkdir : /volume1/@tmp , errno="));
}

// Sizes come from package files: one near the top of the range must not wrap around with the
// margin into a request for almost nothing.
TEST_F(PathsTest, HugeSizesNeverWrapAroundTheMargin) {
    const unsigned long long huge = ~0ULL - 1024;  // what -1 KiB of "extractsize" becomes
    std::string out = "stale";
    EXPECT_EQ(FailedWith(PMSGetTmpDir(huge, out)), ZARN_ERR_NO_SPACE);
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(PMSGetTmpDir(~0ULL, nullptr, out, true));
    EXPECT_EQ(FailedWith(CanUploadtoRoot(huge, out)), ZARN_ERR_NO_SPACE);
    EXPECT_EQ(FailedWith(PMSGetSystemTmpDir(huge, out)), ZARN_ERR_NO_SPACE);
    EXPECT_FALSE(ZARNIsDir("/tmp/@tmp"));

    // A package on a volume, a system package, and a package on a docking host.
    PackageManager pm;
    PackageInfo info, sys;
    sys.install_type = "system";
    for (const PackageInfo* p : {&info, &sys, &info}) {
        EXPECT_EQ(FailedWith(pm.GetAppStoreVolume(*p, "/volume1", huge, out)), ZARN_ERR_NO_SPACE);
        writeConf(p == &sys ? R"({"dock_host": true})" : "{}");
    }
}

TEST_F(PathsTest, SystemTmpAndRootFallback) {
    std::string out;
    EXPECT_EQ(OutIf(PMSGetSystemTmpDir(0, out), out), "/tmp/@tmp");
    EXPECT_TRUE(ZARNIsDir("/tmp/@tmp"));

    // /tmp too small: /var/tmp on the root file system, made private.
    ASSERT_TRUE(ZARNRemoveTree("/var/tmp"));
    writeConf(R"({"space_caps": {"/tmp": 5000, "/": 300000000}})");
    out.clear();
    EXPECT_EQ(OutIf(PMSGetSystemTmpDir(1000, out), out), "/var/tmp");
    EXPECT_EQ(modeOf("/var/tmp"), 0700u);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_NO_SPACE);
    EXPECT_TRUE(logged("/tmp space is not enough"));

    // The root needs the size plus 200 MiB.
    const unsigned long long rootRoom = 300000000ULL - PMS_ROOT_MARGIN;
    EXPECT_TRUE(CanUploadtoRoot(rootRoom, out));
    out.clear();
    EXPECT_EQ(FailedWith(CanUploadtoRoot(rootRoom + 1, out)), ZARN_ERR_NO_SPACE);
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(PMSGetSystemTmpDir(rootRoom + 1, out));

    // /var/tmp that can't be made.
    ASSERT_TRUE(ZARNRemoveTree("/var/tmp"));
    writeFile("/var/tmp", "in the way");
    EXPECT_EQ(FailedWith(CanUploadtoRoot(0, out)), ZARN_ERR_MKDIR);

    // Installing needs 10 MiB on the root.
    PackageManager pm;
    EXPECT_TRUE(pm.IsRootPartitionHasEnoughSpace());
    writeConf(R"({"space_caps": {"/": 10485759}})");
    EXPECT_EQ(FailedWith(pm.IsRootPartitionHasEnoughSpace()), ZARN_ERR_NO_SPACE);
    EXPECT_TRUE(logged("root partition space is not enough"));
}

TEST_F(PathsTest, UniqueTempNames) {
    const std::string file = PMSMakeTmpFile("pkg.");
    EXPECT_EQ(file.rfind("/volume1/@tmp/pkg.", 0), 0u) << file;
    EXPECT_TRUE(ZARNIsRegularFile(file));
    const std::string dir = PMSMakeTmpDir(nullptr);
    EXPECT_EQ(dir.rfind("/volume1/@tmp/", 0), 0u) << dir;
    EXPECT_TRUE(ZARNIsDir(dir));
    EXPECT_NE(PMSMakeTmpDir(nullptr), dir);

    // Without volumes the system temp takes them.
    ASSERT_TRUE(ZARNRemoveTree("/volume1"));
    const std::string sysFile = PMSMakeTmpFile(nullptr);
    EXPECT_EQ(sysFile.rfind("/tmp/@tmp/", 0), 0u) << sysFile;
}

TEST_F(PathsTest, DownloadFolderAndSweep) {
    makeDir("/volume2");
    std::string out;
    EXPECT_EQ(OutIf(PMSCreateDownloadTmpDir("/volume2", "demo", 1000, out), out),
              "/volume2/@tmp/@zarnpkg/@download/demo");
    EXPECT_TRUE(ZARNIsDir(out));

    // A volume that fails the test gives way to any volume with room.
    writeConf(R"({"volumes": [{"path": "/volume2", "writable": false}]})");
    EXPECT_EQ(OutIf(PMSCreateDownloadTmpDir("/volume2", "demo", 1000, out), out),
              "/volume1/@tmp/@zarnpkg/@download/demo");
    EXPECT_EQ(OutIf(PMSCreateDownloadTmpDir("", "other", 0, out), out),
              "/volume1/@tmp/@zarnpkg/@download/other");
    EXPECT_FALSE(PMSCreateDownloadTmpDir(nullptr, nullptr, 0, out));
    // A name from a server never leads out of the download folder.
    for (const char* bad : {"..", ".", "../../../../etc/evil", "a/b"}) {
        out = "kept";
        EXPECT_FALSE(PMSCreateDownloadTmpDir(nullptr, bad, 0, out)) << bad;
        EXPECT_EQ(out, "kept");
        EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_BAD_PARAMETERS);
    }
    EXPECT_FALSE(ZARNPathExists("/etc/evil"));
    EXPECT_FALSE(ZARNPathExists("/volume1/@tmp/@zarnpkg/@download/a"));

    // Old downloads on a volume are the volume's business: no sweep there.
    writeFile("/volume1/@tmp/@zarnpkg/@download/old.qar", "old");
    makeOld("/volume1/@tmp/@zarnpkg/@download/old.qar");
    ASSERT_TRUE(PMSCreateDownloadTmpDir(nullptr, "demo", 0, out));
    EXPECT_TRUE(IsFileExists("/volume1/@tmp/@zarnpkg/@download/old.qar"));

    // On the system temp, files over a day old directly in the download folder go.
    ASSERT_TRUE(ZARNRemoveTree("/volume1"));
    ASSERT_TRUE(ZARNRemoveTree("/volume2"));
    const std::string dl = "/tmp/@tmp/@zarnpkg/@download";
    writeFile(dl + "/old.qar", "old");
    writeFile(dl + "/fresh.qar", "fresh");
    writeFile(dl + "/keep/old-inside.qar", "nested");
    makeOld(dl + "/old.qar");
    makeOld(dl + "/keep/old-inside.qar");
    makeOld(dl + "/keep");
    EXPECT_EQ(OutIf(PMSCreateDownloadTmpDir(nullptr, "demo", 0, out), out), dl + "/demo");
    EXPECT_TRUE(ZARNIsDir(out));
    EXPECT_FALSE(IsFileExists(dl + "/old.qar"));
    EXPECT_TRUE(IsFileExists(dl + "/fresh.qar"));
    EXPECT_TRUE(IsFileExists(dl + "/keep/old-inside.qar"));
}

TEST_F(PathsTest, ListAndSystemInstallFolders) {
    std::string out;
    EXPECT_EQ(OutIf(PMSGetListTmpDir(out), out), "/var/cache/pkglist.tmp/");
    EXPECT_TRUE(ZARNIsDir(out));
    // An existing folder is left as it is.
    ASSERT_TRUE(ZARNChmod("/var/cache/pkglist.tmp", 0750));
    ASSERT_TRUE(PMSGetListTmpDir(out));
    EXPECT_EQ(modeOf("/var/cache/pkglist.tmp"), 0750u);
    // A file in its place makes the attempt fail.
    ASSERT_TRUE(ZARNRemoveTree("/var/cache/pkglist.tmp"));
    writeFile("/var/cache/pkglist.tmp", "x");
    EXPECT_FALSE(PMSGetListTmpDir(out));
    EXPECT_TRUE(logged("Failed to mkdir : /var/cache/pkglist.tmp/"));

    ASSERT_TRUE(ZARNRemoveTree("/usr/local/packages"));
    EXPECT_EQ(OutIf(PMSGetSystemInstallPath(out), out), "/usr/local/packages");
    EXPECT_EQ(modeOf(out), 0755u);
}

TEST_F(PathsTest, PackageVolumeFromTarget) {
    std::string out = "kept";
    EXPECT_FALSE(PMSGetPackageVol("", out));
    EXPECT_FALSE(PMSGetPackageVol("ghost", out));
    EXPECT_TRUE(logged("Failed to resovle package target ghost"));

    const struct {
        const char* name;
        const char* target;
        const char* volume;
    } cases[] = {{"demo", "/volume2/@appstore/demo", "/volume2"},
                 {"sys", "/usr/local/packages/sys", "/usr/local/packages"},
                 {"odd", "/opt/odd", nullptr}};
    for (const auto& c : cases) {
        addPackage(c.name, "", c.target);
        out = "kept";
        EXPECT_EQ(PMSGetPackageVol(c.name, out), c.volume != nullptr) << c.name;
        EXPECT_EQ(out, c.volume ? c.volume : "kept") << c.name;
    }
    EXPECT_TRUE(logged("Failed to parse volume path: /opt/odd"));
}

TEST_F(PathsTest, DefaultVolume) {
    std::string out;
    EXPECT_FALSE(PMSSavePackageDefVolPath(nullptr));
    // With a single generic volume there is no choice to remember.
    EXPECT_FALSE(PMSSavePackageDefVolPath("/volume1"));
    ASSERT_TRUE(VLIBCFileSetKeyValue(PMS_INFO_CONF, PMS_DEF_VOL_KEY, "/volume1"));
    EXPECT_FALSE(PMSGetPackageDefVol(out));

    makeDir("/volume2");
    makeDir("/volume3");
    writeConf(R"({"volumes": [{"path": "/volume3", "generic": false},
                              {"path": "/volume1", "space_cap": 209715199}]})");
    ASSERT_TRUE(VLIBCFileSetKeyValue(PMS_INFO_CONF, PMS_DEF_VOL_KEY, "/volume1"));
    EXPECT_FALSE(PMSGetPackageDefVol(out));  // volume1 lacks the 200 MiB
    ASSERT_TRUE(PMSSavePackageDefVolPath("/volume2"));
    EXPECT_EQ(defVolKey(), "/volume2");
    EXPECT_EQ(OutIf(PMSGetPackageDefVol(out), out), "/volume2");
    EXPECT_FALSE(PMSSavePackageDefVolPath("/volume3"));  // not generic
    EXPECT_FALSE(PMSSavePackageDefVolPath("/volume9"));
    EXPECT_TRUE(logged("Failed to read volume attribute, path=[/volume9]"));
    EXPECT_EQ(defVolKey(), "/volume2");
    // Exactly the 200 MiB is enough.
    writeConf(R"({"volumes": [{"path": "/volume3", "generic": false},
                              {"path": "/volume1", "space_cap": 209715200}]})");
    ASSERT_TRUE(PMSSavePackageDefVolPath("/volume1"));
    EXPECT_EQ(defVolKey(), "/volume1");

    // A path off the volumes clears the setting.
    EXPECT_TRUE(PMSSavePackageDefVolPath("/tmp/x"));
    EXPECT_EQ(defVolKey(), "");
    EXPECT_FALSE(PMSGetPackageDefVol(out));
}

TEST_F(PathsTest, VolumeStatusAndCounts) {
    VLIBCErrSet(ZARN_ERR_NO_SPACE);
    EXPECT_EQ(FailedWith(PMSCheckVolStatus(nullptr, 0)), ZARN_ERR_BAD_PARAMETERS);
    EXPECT_FALSE(PMSCheckVolStatus("/tmp", 0) || PMSCheckVolStatus("/volume9", 0));
    EXPECT_EQ(logText().find("Failed to get volume info"), std::string::npos);
    EXPECT_TRUE(PMSCheckVolStatus("/volume1/@appstore", 0));

    makeDir("/volume2");
    makeDir("/volume3");
    writeConf(R"({"volumes": [{"path": "/volume2", "writable": false},
                              {"path": "/volume3", "generic": false}]})");
    EXPECT_EQ(FailedWith(PMSCheckVolStatus("/volume2", 0)), ZARN_ERR_VOL_READONLY);

    EXPECT_EQ(VolumeCountGet(3, true), 3);
    EXPECT_EQ(VolumeCountGet(3, false), 2);
    EXPECT_TRUE(IsAnyVolumeExists());
    EXPECT_TRUE(IsAnyGenericVolumeExists());
    ASSERT_TRUE(ZARNRemoveTree("/volume1"));
    ASSERT_TRUE(ZARNRemoveTree("/volume2"));
    EXPECT_TRUE(IsAnyVolumeExists());
    EXPECT_FALSE(IsAnyGenericVolumeExists());
    ASSERT_TRUE(ZARNRemoveTree("/volume3"));
    EXPECT_FALSE(IsAnyVolumeExists());
    EXPECT_EQ(VolumeCountGet(3, true), 0);
}

TEST_F(PathsTest, CheckVolumeForAPackageFile) {
    PackageManager pm;
    PackageInfo info;
    info.name = "demo";
    writeFile("/tmp/demo.qar", std::string(4096, 'q'));

    VLIBCErrSet(ZARN_ERR_NO_SPACE);
    EXPECT_EQ(FailedWith(pm.CheckVolume(nullptr, info)), ZARN_ERR_BAD_PARAMETERS);
    EXPECT_FALSE(pm.CheckVolume("/tmp/missing.qar", info));
    EXPECT_TRUE(logged("Failed to get status of /tmp/missing.qar"));
    EXPECT_TRUE(pm.CheckVolume("/tmp/demo.qar", info));

    // Only a volume that isn't generic: cold-storage packages may go there.
    writeConf(R"({"volumes": [{"path": "/volume1", "generic": false}]})");
    PackageInfo cold = info;
    cold.extra.get()->install_on_cold_storage = true;
    EXPECT_TRUE(pm.CheckVolume("/tmp/demo.qar", cold));

    // Without any volume a system package needs only room in the system partition.
    ASSERT_TRUE(ZARNRemoveTree("/volume1"));
    PackageInfo sys = info;
    sys.install_type = "system";
    EXPECT_TRUE(pm.CheckVolume("/tmp/demo.qar", sys));
    writeConf(R"({"space_caps": {"/usr/local/packages": 10489855}})");  // 10 MiB + 4095
    EXPECT_EQ(FailedWith(pm.CheckVolume("/tmp/demo.qar", sys)), ZARN_ERR_NO_SPACE);
    writeConf(R"({"space_caps": {"/usr/local/packages": 10489856}})");
    EXPECT_TRUE(pm.CheckVolume("/tmp/demo.qar", sys));
    ASSERT_TRUE(ZARNRemoveTree("/usr/local/packages"));
    VLIBCErrSet(ZARN_ERR_NO_VOLUME);
    EXPECT_FALSE(pm.CheckVolume("/tmp/demo.qar", sys));
    EXPECT_TRUE(logged("Failed to get system volumne"));
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_NO_FILE);
}

TEST_F(PathsTest, AppStoreVolume) {
    PackageManager pm;
    PackageInfo info;
    std::string out;
    makeDir("/volume2");
    EXPECT_FALSE(pm.GetAppStoreVolume(info, nullptr, 0, out) ||
                 pm.GetAppStoreVolume(info, "", 0, out));
    EXPECT_EQ(OutIf(pm.GetAppStoreVolume(info, "/volume2/@appstore", 0, out), out), "/volume2");
    out.clear();
    EXPECT_FALSE(pm.GetAppStoreVolume(info, "/srv/data", 0, out));
    EXPECT_TRUE(logged("Failed to parse volume path: /srv/data"));
    writeConf(R"({"volumes": [{"path": "/volume2", "space_cap": 10485764}]})");
    EXPECT_TRUE(pm.GetAppStoreVolume(info, "/volume2", 4, out));
    EXPECT_EQ(FailedWith(pm.GetAppStoreVolume(info, "/volume2", 5, out)), ZARN_ERR_NO_SPACE);

    PackageInfo sys;
    sys.install_type = "system";
    EXPECT_EQ(OutIf(pm.GetAppStoreVolume(sys, "/volume2", 0, out), out), "/usr/local/packages");

    writeConf(R"({"dock_host": true})");
    EXPECT_EQ(OutIf(pm.GetAppStoreVolume(info, "/volume2", 0, out), out), "/volume1");
}

TEST_F(PathsTest, FileHelpers) {
    writeFile("/var/packages/demo/INFO", "package=\"demo\"\n");
    writeFile("/var/packages/demo/conf/privilege", "{}");
    // Every path is tried: two missing ones give two lines.
    EXPECT_FALSE(ZARNPackageCore::FsyncFiles(
        {"/var/packages/demo/nope1", "/var/packages/demo/INFO", "/var/packages/demo/nope2"}));
    EXPECT_EQ(CountOf(logText(), "Failed to open file, path=[/var/packages/demo/nope"), 2u);
    // Folders are opened read-only, which a file allows too; a pipe neither blocks the open nor
    // passes, since it can't be synced.
    EXPECT_TRUE(ZARNPackageCore::FsyncDirectories({"/var/packages/demo/INFO"}));
    ASSERT_EQ(mkfifo(phys("/var/packages/demo/pipe").c_str(), 0600), 0);
    EXPECT_FALSE(
        ZARNPackageCore::FsyncDirectories({"/var/packages/demo/pipe", "/var/packages/demo"}));
    EXPECT_TRUE(logged("Failed to fsync file, path=[/var/packages/demo/pipe]"));
    // Regular files are added to what the list holds.
    std::vector<std::string> files = {"/already/there"};
    EXPECT_TRUE(ZARNPackageCore::GetRegularFilePathsInDirectory("/var/packages/demo", files));
    EXPECT_EQ(files, (std::vector<std::string>{"/already/there", "/var/packages/demo/INFO"}));
    EXPECT_TRUE(ZARNPackageCore::GetRegularFilePathsInDirectory("/no/such/dir", files));
    EXPECT_EQ(files.size(), 2u);
}
