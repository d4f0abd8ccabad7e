#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "core/packagemanager.h"
#include "core/registry.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/locks.h"
#include "support/lock_holder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class Registry : public TempRootTest {
protected:
    void addPackage(const std::string& name, const std::string& target,
                    const std::string& extra = "") {
        TempRootTest::addPackage(name, extra, target);
    }
    static std::vector<std::string> sorted(std::vector<std::string> v) {
        std::sort(v.begin(), v.end());
        return v;
    }
};

}  // namespace

TEST_F(Registry, EnumerationRules) {
    addPackage("a", "/volume1/@appstore/a");
    addPackage("b", "/volume10/@appstore/b");
    addPackage("sys", "/usr/local/packages/sys");
    addPackage("bare", "");
    writeFile("/var/packages/noinfo/scripts/x", "");
    writeFile("/var/packages/plainfile", "package=\"plainfile\"\n");
    addPackage("real", "/volume1/@appstore/real");
    ASSERT_TRUE(ZARNSymlink("/var/packages/real", "/var/packages/linked"));
    writeFile("/var/packages/bad/INFO", "package=\"bad\"\n");

    PackageManager pm;
    EXPECT_EQ(sorted(pm.enumPackages(static_cast<const char*>(nullptr), PKG_MASK_ALL)),
              (std::vector<std::string>{"a", "b", "bare", "real", "sys"}));
    EXPECT_EQ(sorted(pm.enumPackages("/volume1", PKG_MASK_ALL)),
              (std::vector<std::string>{"a", "bare", "real"}));
    EXPECT_EQ(
        sorted(pm.enumPackages(std::set<std::string>{"/volume10/", "/usr/local"}, PKG_MASK_ALL)),
        (std::vector<std::string>{"b", "bare", "sys"}));

    std::vector<PackageInfo> records;
    std::vector<std::string> bad;
    EXPECT_FALSE(pm.enumPackageInfoByPath("/var/packages", records, bad, nullptr, PKG_MASK_ALL));
    EXPECT_EQ(bad, std::vector<std::string>{"bad"});
    EXPECT_EQ(records.size(), 5u);
    Json::Value data;
    EXPECT_EQ(pm.getResult(data), PKG_ERR_ENUM);
    EXPECT_EQ(Json::toCompactString(data), R"(["bad"])");

    PackageManager missing;
    EXPECT_FALSE(missing.enumPackageInfoByPath("/nowhere", records, bad, nullptr, 0));
    EXPECT_EQ(missing.getResult(), PKG_ERR_ENUM);
    EXPECT_FALSE(missing.enumPackageInfoByPath(nullptr, records, bad, nullptr, 0));

    std::map<std::string, PackageInfo> byName;
    pm.enumPackageInfoMap(byName, nullptr, PKG_MASK_ALL);
    EXPECT_EQ(byName.size(), 5u);
    EXPECT_EQ(PMSGetTargetVolume(byName["a"]), "/volume1");
    EXPECT_EQ(PMSGetTargetVolume(byName["sys"]), "not_volume_path");
    EXPECT_EQ(PMSGetTargetVolume(byName["bare"]), "");
    PackageBasicInfoMap basic = pm.enumPackageMap(PKG_MASK_ALL);
    EXPECT_EQ(basic.size(), 5u);
    EXPECT_EQ(basic["a"].version, "1.0");
}

TEST_F(Registry, Lookup) {
    addPackage("a", "/volume1/@appstore/a", "install_dep_packages=\"b\"\n");
    writeFile("/var/packages/a/WIZARD_UIFILES/uninstall_uifile", "[]");

    EXPECT_TRUE(PMSCheckPackage("a"));
    EXPECT_FALSE(PMSCheckPackage("zz"));
    EXPECT_EQ(PMSGetPackageTarget("a"), "/volume1/@appstore/a");
    EXPECT_EQ(PMSGetPackageTarget("zz"), "");

    PackageManager pm;
    PackageInfo info;
    EXPECT_TRUE(pm.getPackageInfo("a", info, nullptr, PKG_MASK_ALL));
    EXPECT_EQ(pm.getResult(), PKG_ERR_SUCCESS);

    std::vector<std::string> names{"a", "zz", "a"};
    std::vector<PackageInfo> out;
    EXPECT_FALSE(pm.getPackageInfo(names, out, nullptr, PKG_MASK_ALL));
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].name + "," + out[1].name + "," + out[2].name, "a,,a");

    PackageInfo full;
    ASSERT_TRUE(pm.getPackageInfoByPathAndInfoType("/var/packages/a", full, nullptr, 0));
    EXPECT_TRUE(full.has_uninstall_wizard);
    EXPECT_EQ(full.install_dep_packages.size(), 1u);  // the mask is ignored: everything loads
    EXPECT_FALSE(pm.getPackageInfoByPathAndInfoType("", full, nullptr, 0));
    // Without a language argument the wizard's language is the system's.
    addPackage("w", "");
    writeFile("/var/packages/w/WIZARD_UIFILES/uninstall_uifile_fre", "[]");
    PackageInfo wizard;
    ASSERT_TRUE(pm.getPackageInfoByPathAndInfoType("/var/packages/w", wizard, nullptr, 0));
    EXPECT_FALSE(wizard.has_uninstall_wizard);
    writeFile("/etc/zarninfo.conf", "language=\"fre\"\n");
    ASSERT_TRUE(pm.getPackageInfoByPathAndInfoType("/var/packages/w", wizard, nullptr, 0));
    EXPECT_TRUE(wizard.has_uninstall_wizard);
    ASSERT_TRUE(pm.getPackageInfoByPathAndInfoType("/var/packages/w", wizard, "ger", 0));
    EXPECT_FALSE(wizard.has_uninstall_wizard);

    // Whether a package is enabled, and the result that leaves.
    auto enabled = [&pm](const char* name) {
        const bool on = pm.isServiceEnabled(name);
        return std::to_string(on) + " " + std::to_string(pm.getResult());
    };
    EXPECT_EQ(enabled(nullptr), "0 " + std::to_string(PKG_ERR_SYSTEM));
    EXPECT_EQ(enabled("zz"), "0 " + std::to_string(PKG_ERR_NOT_INSTALLED));
    EXPECT_EQ(enabled("a"), "0 " + std::to_string(PKG_ERR_NOT_ENABLED));
    enable("a");
    EXPECT_EQ(enabled("a"), "1 0");
    EXPECT_TRUE(PMSCheckEnabledFile("/var/packages/a"));
}

TEST_F(Registry, ExLockAcrossProcesses) {
    ChildLockHolder holder([] { return PackageManager::ExLock(1); });
    ASSERT_TRUE(holder.took());

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(PackageManager::ExLock(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_EQ(logText().find("Failed to lock, zarnerr"), std::string::npos)
        << "a plain timeout is no error line";

    // In the first boot after an upgrade the lock is not waited for, and the holder is logged.
    writeFile("/var/.UpgradeBootup", "");
    EXPECT_TRUE(PackageManager::ExLock(0));
    EXPECT_TRUE(logged("self: " + std::to_string(getpid()) + ", Lock process: ")) << logText();
    EXPECT_TRUE(holder.release());
    ASSERT_EQ(unlink(phys("/var/.UpgradeBootup").c_str()), 0);

    // Markers of a going-down system refuse the lock, unless the upgrade check is skipped.
    PackageManager::UnLock();
    writeFile("/tmp/upgrade_stop_service", "");
    EXPECT_FALSE(PackageManager::ExLock(1));
    PackageManager::UnLock();
    PackageManager::setSkipUpgradeCheck(true);
    EXPECT_TRUE(PackageManager::ExLock(1));
    PackageManager::UnLock();
    PackageManager::setSkipUpgradeCheck(false);
    writeFile("/var/.NormalShutdown", "");
    PackageManager::setSkipUpgradeCheck(true);
    EXPECT_FALSE(PackageManager::ExLock(1));
    PackageManager::setSkipUpgradeCheck(false);
    PackageManager::UnLock();
    EXPECT_TRUE(logged("Failed to lock, /var/.NormalShutdown exists"));

    writeFile("/tmp/l", "");
    const int fd = PMSLockFile("/tmp/l", true);
    EXPECT_GE(fd, 0);
    PMSUnlockFile(fd);
    PMSUnlockFile(-1);
    EXPECT_LT(PMSLockFile(nullptr, true), 0);
    EXPECT_LT(PMSLockFile("/no/such/dir/l", true), 0);
}

// Large registries are loaded in parallel; the listing must still follow the directory order,
// report every bad folder, skip folders without INFO, and hold copies of the records.
TEST_F(Registry, LargeScanMatchesFolderByFolderLoads) {
    for (int i = 0; i < 700; ++i) {
        const std::string name = "p" + std::to_string(i);
        if (i % 97 == 5) {
            writeFile("/var/packages/" + name + "/scripts/x", "");  // no INFO
        } else if (i % 89 == 7) {
            writeFile("/var/packages/" + name + "/INFO", "package=\"" + name + "\"\n");  // bad
        } else {
            addPackage(name, "", "exclude_model=\"m" + std::to_string(i) + "\"\n");
        }
    }
    std::vector<ZARNDirEntry> entries;
    ASSERT_TRUE(ZARNListDir("/var/packages", entries));
    std::vector<std::string> expected;
    std::vector<std::string> expectedBad;
    for (const auto& e : entries) {
        PackageInfo info;
        if (PMSLoadPKGInfoFile("/var/packages/" + e.name, info, nullptr, PKG_MASK_ALL)) {
            expected.push_back(info.name);
            EXPECT_FALSE(PMSGetExcludeModels(info).empty());
        } else if (IsFileExists("/var/packages/" + e.name + "/INFO")) {
            expectedBad.push_back(e.name);
        }
    }
    PackageManager pm;
    std::vector<PackageInfo> records;
    std::vector<std::string> bad;
    EXPECT_FALSE(pm.enumPackageInfoByPath("/var/packages", records, bad, nullptr, PKG_MASK_ALL));
    EXPECT_EQ(bad, expectedBad);
    ASSERT_EQ(records.size(), expected.size());
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].name, expected[i]);
        EXPECT_TRUE(PMSGetExcludeModels(records[i]).empty()) << records[i].name;
    }
    EXPECT_EQ(pm.enumPackages(static_cast<const char*>(nullptr), PKG_MASK_ALL), expected);
}
