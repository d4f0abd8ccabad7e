#include <gtest/gtest.h>

#include <cstdlib>

#include "core/packagemanager.h"
#include "core/version.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

bool Cmp(const char* a, const char* b, PKG_VERSION_COMPOP op) {
    return PackageBasicInfo("p", a).compare(PackageBasicInfo("p", b), op);
}

}  // namespace

TEST(Version, NormalizePadsToTheOthersDots) {
    auto normalized = [](const char* version, const char* other) {
        std::string out;
        return NormalizeVersion(version, other, out) ? out : "failed";
    };
    EXPECT_EQ(normalized("1.2", "1.2.3-4"), "1.2.0");
    EXPECT_EQ(normalized("1.2-9", "1.2.3"), "1.2.0-9");
    EXPECT_EQ(normalized("1.2.3-4-5", "1"), "1.2.3-4");
    EXPECT_EQ(normalized("", "1"), "failed");
    EXPECT_EQ(normalized("1", "-"), "failed");

    char* buf = nullptr;
    int capacity = 0;
    ASSERT_TRUE(NormalizeVersion("1", "1.2.3", &buf, &capacity));
    EXPECT_STREQ(buf, "1.0.0");
    EXPECT_GE(capacity, 100);
    std::free(buf);
}

TEST(Version, CompareTable) {
    struct Case {
        const char* a;
        const char* b;
        int sign;
    } cases[] = {
        {"1.0", "1.0.0", 0},
        {"1.0.1", "1.0", 1},
        {"1.0-5", "1.0", 1},
        {"1.0a", "1.0", 0},
        {"1.10", "1.9", 1},
        {"1.2-10", "1.2-9", 1},
        {"1.2", "1.2-0", 0},
        {"1.2", "1.2-1", -1},
        {"2", "10", -1},
        {"x.y", "0.0", 0},
        {"1.2.3-0045", "1.2.3-45", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a) + " vs " + c.b);
        EXPECT_EQ(Cmp(c.a, c.b, PKG_VER_EQ), c.sign == 0);
        EXPECT_EQ(Cmp(c.a, c.b, PKG_VER_GT), c.sign > 0);
        EXPECT_EQ(Cmp(c.a, c.b, PKG_VER_LT), c.sign < 0);
        EXPECT_EQ(Cmp(c.a, c.b, PKG_VER_GE), c.sign >= 0);
        EXPECT_EQ(Cmp(c.a, c.b, PKG_VER_LE), c.sign <= 0);
        EXPECT_TRUE(Cmp(c.a, c.b, PKG_VER_ANY));
        EXPECT_TRUE(Cmp(c.a, c.b, static_cast<PKG_VERSION_COMPOP>(9)));
    }
    // Different names never match, whatever the operator.
    for (int op = 0; op <= 5; ++op) {
        EXPECT_FALSE(
            PackageBasicInfo("a", "1.0")
                .compare(PackageBasicInfo("b", "1.0"), static_cast<PKG_VERSION_COMPOP>(op)));
    }
    EXPECT_FALSE(PackageBasicInfo("a", "1.0").compare(PackageBasicInfo("ab", "1.0"), PKG_VER_ANY));
    // A version that can't be normalised makes every comparison false.
    EXPECT_FALSE(Cmp("", "1.0", PKG_VER_ANY));
}

class VersionRoot : public TempRootTest {
protected:
    void setSubBuild(int n) {
        writeFile("/etc.defaults/VERSION",
                  "majorversion=\"6\"\nminorversion=\"2\"\n"
                  "buildnumber=\"25556\"\nsmallfixnumber=\"" +
                      std::to_string(n) + "\"\n");
    }
    PackageInfo load(const std::string& extra) {
        writeFile("/tmp/pkg/INFO", "package=\"p\"\nversion=\"1.0\"\n" + extra);
        PackageInfo info;
        EXPECT_TRUE(PMSLoadPKGInfoFile("/tmp/pkg", info, "enu", 0));
        return info;
    }
    int osCompare(const std::string& extra) {
        PackageInfo info = load(extra);
        return PMSComparePackageAndOSVersion(info);
    }
};

TEST_F(VersionRoot, OSBoundsWithSubBuild) {
    setSubBuild(2);
    EXPECT_EQ(osCompare(("")), 0);

    PackageInfo min = load("os_min_ver=\"6.2-25556-3\"\n");
    EXPECT_EQ(PMSComparePackageAndOSVersion(min), -1);
    EXPECT_FALSE(PMSCheckPackageVersionVaild(min));
    setSubBuild(3);
    EXPECT_EQ(PMSComparePackageAndOSVersion(min), 0);
    EXPECT_TRUE(PMSCheckPackageVersionVaild(min));

    PackageInfo max = load("os_max_ver=\"6.2-25556\"\n");
    EXPECT_EQ(PMSGetOSMaxVerNano(max), 99999);
    EXPECT_EQ(PMSComparePackageAndOSVersion(max), 0);
    PackageInfo firmware = load("firmware=\"6.3-1\"\n");
    EXPECT_EQ(PMSComparePackageAndOSVersion(firmware), -1);
    EXPECT_EQ(firmware.firmware.minor, 3);
    // "firmware" counts only when "os_min_ver" is absent.
    PackageInfo both = load("firmware=\"6.3-1\"\nos_min_ver=\"6.1-1\"\n");
    EXPECT_EQ(PMSComparePackageAndOSVersion(both), 0);
    EXPECT_EQ(both.firmware.minor, 1);

    // A bound with a zero major but other numbers lies below every OS.
    EXPECT_EQ(PMSCompareOSWithBound({0, 1, 0}, 0), 1);
    EXPECT_EQ(PMSCompareOSWithBound({0, 0, 0}, 0), 0);
    EXPECT_EQ(PMSCompareOSWithBound({5, 9, 99999}, 0), 1);
    EXPECT_EQ(PMSCompareOSWithBound({6, 1, 99999}, 0), 1);
    EXPECT_EQ(PMSCompareOSWithBound({6, 2, 25557}, 0), -1);
}

TEST_F(VersionRoot, ArchitectureMatching) {
    // The ids are the published table's.
    EXPECT_EQ(PMSMapSystemArch("88f6282"), 7u);
    EXPECT_EQ(PMSMapSystemArch("x86_64"), 1001u);
    EXPECT_EQ(PMSMapSystemArch("nosuch"), 0u);

    writeFile("/etc.defaults/zarninfo.conf", "unique=\"zarn_apollolake_ds\"\nproduct=\"Z\"\n");
    EXPECT_EQ(PMSGetSystemArchString(), "apollolake");
    EXPECT_EQ(PMSGetSystemArch(), 26u);
    EXPECT_TRUE(PMSCheckPackageArchMatched(load("arch=\"x86_64\"\n")));
    EXPECT_FALSE(PMSCheckPackageArchMatched(load("arch=\"braswell\"\n")));
    EXPECT_TRUE(PMSCheckPackageArchMatched(load("arch=\"noarch\"\n")));
    EXPECT_TRUE(PMSCheckPackageArchMatched(load("")));
    EXPECT_FALSE(PMSCheckPackageArchMatched(load("arch=\"noarch\"\nexclude_arch=\"noarch\"\n")));
    EXPECT_FALSE(
        PMSCheckPackageArchMatched(load("arch=\"x86_64\"\nexclude_arch=\"apollolake\"\n")));
    EXPECT_TRUE(PMSCheckPackageArchMatched(std::vector<std::string>{"armv8", "x86_64"}));

    // Models are matched against the whole "unique" value.
    EXPECT_TRUE(PMSCheckPackageModelMatched(load("")));
    EXPECT_TRUE(PMSCheckPackageModelMatched(load("model=\"other zarn_apollolake_ds\"\n")));
    EXPECT_FALSE(PMSCheckPackageModelMatched(load("model=\"other\"\n")));
    EXPECT_FALSE(PMSCheckPackageModelMatched(load("exclude_model=\"zarn_apollolake_ds\"\n")));
    EXPECT_FALSE(PMSCheckPackageArchModelMatched(load("arch=\"armv7\"\n")));

    // An unknown machine is matched by name; "noarch" still fits it.
    writeFile("/etc.defaults/zarninfo.conf", "unique=\"zarn_newchip_x\"\n");
    EXPECT_EQ(PMSGetSystemArch(), 1u);
    EXPECT_TRUE(PMSCheckPackageArchMatched(load("arch=\"newchip\"\n")));
    EXPECT_TRUE(PMSCheckPackageArchMatched(load("arch=\"noarch\"\n")));
    EXPECT_FALSE(PMSCheckPackageArchMatched(load("arch=\"x86_64\"\n")));

    writeFile("/etc.defaults/zarninfo.conf", "unique=\"nounderscores\"\n");
    EXPECT_EQ(PMSGetSystemArch(), 0u);
    EXPECT_FALSE(PMSCheckPackageArchMatched(load("")));
    writeFile("/etc.defaults/zarninfo.conf", "product=\"Z\"\n");
    EXPECT_EQ(PMSGetSystemArchString(), "");
    EXPECT_TRUE(logged("system unique not found"));
    PackageManager pm;
    EXPECT_FALSE(pm.init());
    EXPECT_EQ(pm.getResult(), PKG_ERR_SYSTEM);
}

TEST_F(VersionRoot, LimitFileForms) {
    writeFile(PKG_LIMIT_FILE, R"(plain="1.5"
range="["1.0","2.0"]"
sys="system"
none="non"
multi="[["1.0"],["2.0","3.0"]]"
broken="[["1.0"],7]"
garbage="[["1.0""
)");
    std::string limit = "untouched";
    EXPECT_EQ(PMSThirdPartyCheckLimit("absent", "1.0", limit), 0);
    EXPECT_EQ(limit, "untouched");
    EXPECT_EQ(PMSThirdPartyCheckLimit("plain", "1.5", limit), 0);
    EXPECT_EQ(PMSThirdPartyCheckLimit("plain", "1.4", limit), -2);
    EXPECT_EQ(limit, "1.5");
    EXPECT_EQ(PMSThirdPartyCheckLimit("range", "1.0"), 0);
    EXPECT_EQ(PMSThirdPartyCheckLimit("range", "2.0"), 0);
    EXPECT_EQ(PMSThirdPartyCheckLimit("range", "1.5", limit), -2);
    EXPECT_EQ(limit, "2.0");
    EXPECT_EQ(PMSThirdPartyCheckLimit("sys", "1.0"), -3);
    EXPECT_EQ(PMSThirdPartyCheckLimit("none", "1.0"), -4);
    EXPECT_EQ(PMSThirdPartyCheckLimit("multi", "0.9", limit), -2);
    EXPECT_EQ(limit, "3.0");
    EXPECT_EQ(PMSThirdPartyCheckLimit("multi", "2.5", limit), -2);
    EXPECT_EQ(PMSThirdPartyCheckLimit("multi", "3.0", limit), 0);
    EXPECT_EQ(limit, "3.0");
    EXPECT_EQ(PMSThirdPartyCheckLimit("multi", "1.5", limit), 0);
    EXPECT_EQ(limit, "1.5");
    // A non-array entry ends the walk: failure, unless an earlier entry already refused.
    EXPECT_EQ(PMSThirdPartyCheckLimit("broken", "1.5"), -1);
    EXPECT_EQ(PMSThirdPartyCheckLimit("broken", "0.5"), -2);
    // Text that isn't the JSON forms is taken as a plain version.
    EXPECT_EQ(PMSThirdPartyCheckLimit("garbage", "1.0"), 0);
    EXPECT_EQ(PMSThirdPartyCheckLimit(nullptr, "1.0"), -1);
    EXPECT_EQ(PMSThirdPartyCheckLimit("plain", nullptr), -1);

    PackageManager pm;
    PackageInfo info;
    // The refusal's code, or "started".
    auto start = [&](const char* name, const char* version) {
        info.name = name;
        info.version = version;
        return pm.CanPackageStartInThisFirmware(info) ? "started" : std::to_string(pm.getResult());
    };
    EXPECT_EQ(start("plain", "1.4"), std::to_string(PKG_ERR_VERSION_LIMIT));
    EXPECT_EQ(pm.getMapParam("oldver"), "1.5");
    EXPECT_EQ(pm.getMapParam("curver"), "1.4");
    EXPECT_EQ(start("broken", "1.5"), std::to_string(PKG_ERR_LIMIT_UNKNOWN));

    // Unavailable packages: no name, not installable, limited.
    PackageInfo offered;
    EXPECT_TRUE(pm.IsPkgUnavailable(offered, {}));
    offered.name = "plain";
    offered.version = "1.4";
    EXPECT_TRUE(pm.IsPkgUnavailable(offered, {}));
    offered.version = "1.6";
    EXPECT_FALSE(pm.IsPkgUnavailable(offered, {}));
    offered.extra.get()->ctl_install = false;
    EXPECT_TRUE(pm.IsPkgUnavailable(offered, {}));
    // The factory allow list lets a package that is not installable be offered all the same.
    writeFile("/etc.defaults/zarninfo.conf",
              readFile("/etc.defaults/zarninfo.conf") + "pkg_install_allow_list=\"other plain\"\n");
    EXPECT_FALSE(pm.IsPkgUnavailable(offered, {}));
    offered.name = "free";
    offered.version = "1.0";
    EXPECT_TRUE(pm.IsPkgUnavailable(offered, {}));
    Json::Value js;
    js["version"] = "1.0";
    EXPECT_TRUE(pm.IsPkgUnavailable(js, {}));
    js["package"] = "free";
    EXPECT_FALSE(pm.IsPkgUnavailable(js, {}));
    js["ctl_install"] = "no";
    EXPECT_TRUE(pm.IsPkgUnavailable(js, {}));
}
