#include "core/depparse.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/packageinfo.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class DepParse : public TempRootTest {};

// Each entry as "name op version" ("*" for any version), joined by ", ".
std::string Entries(const DepPkgVector& list) {
    std::string out;
    for (const auto& e : list) {
        const std::string op = e.op == PKG_VER_ANY ? "*" : PMSDepOperatorText(e.op);
        out += (out.empty() ? "" : ", ") + e.name + " " + op + " " + e.version;
    }
    return out;
}

std::string FromString(const char* text) {
    DepPkgVector list;
    PMSExplodeDepPKGString(text, list);
    return Entries(list);
}

// The result code, then the entries.
std::string FromJson(const std::string& text) {
    DepPkgVector list;
    const int rc = PMSParseDepJSONString(text, list);
    return std::to_string(rc) + ": " + Entries(list);
}

TEST_F(DepParse, StringForm) {
    struct Case {
        const char* text;
        std::string want;
    };
    const std::vector<Case> cases = {
        {"a<=1:b", "a <= 1, b * 0"},
        {"pkgA>=1.2:pkgB:pkgC<3", "pkgA >= 1.2, pkgB * 0, pkgC < 3"},
        {"a>=", ""},
        {"a=1=2", "a=1 = 2"},
        {"Python>=2", ""},
        {"Python:x>1", "x > 1"},
        {"a=1", "a = 1"},
        {"a>1", "a > 1"},
        // "<=" is tried before "<" and ">=" before ">", each searched from the end.
        {"a<1<=2", "a<1 <= 2"},
        {"a>=1<2", "a >= 1<2"},
        {"a<2>1", "a < 2>1"},
        {"", ""},
        {":::", ""},
        {"a::b", "a * 0, b * 0"},
        // An operator without a name keeps the empty name; nothing installed ever matches it.
        {"=1", " = 1"},
        {"<=", ""},
        {"n\x01\xff", "n\x01\xff * 0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FromString(c.text), c.want) << "text: " << c.text;
    }
    EXPECT_EQ(FromString(nullptr), "");
}

TEST_F(DepParse, SectionForm) {
    const std::string path = "/var/packages/p/conf/PKG_DEPS";
    writeFile(path,
              "[plain]\n"
              "[minmax]\npkg_min_ver=\"1.0\"\npkg_max_ver=\"2.0\"\n"
              "[min]\npkg_min_ver=1.5\n"
              "[always]\nkos_min_ver=\"0.0-0\"\n"
              "[future]\nkos_min_ver=\"99.0-0\"\npkg_min_ver=\"1\"\n"
              "[old]\nkos_max_ver=\"1.0-0\"\n"
              "[upto]\nkos_max_ver=\"99.1-1\"\npkg_max_ver=\"3\"\n"
              "[zeromax]\nkos_max_ver=\"0.0-0\"\n"
              "[Python]\npkg_min_ver=\"2\"\n");
    DepPkgVector list;
    ASSERT_EQ(PMSLoadDepConfFile(path.c_str(), list), 0);
    EXPECT_EQ(Entries(list),
              "plain * 0, minmax >= 1.0, minmax <= 2.0, min >= 1.5, always * 0, upto <= 3");

    // The sub-build decides at the exact OS version.
    const std::string exact = "/var/packages/p/conf/PKG_CONX";
    writeFile(exact, "[atmin]\nkos_min_ver=\"6.2-25556\"\n[atmax]\nkos_max_ver=\"6.2-25556\"\n");
    DepPkgVector before;
    ASSERT_EQ(PMSLoadDepConfFile(exact.c_str(), before), 0);
    EXPECT_EQ(Entries(before), "atmin * 0, atmax * 0");
    ASSERT_TRUE(VLIBCFileSetKeyValue("/etc.defaults/VERSION", "smallfixnumber", "3"));
    DepPkgVector after;
    ASSERT_EQ(PMSLoadDepConfFile(exact.c_str(), after), 0);
    EXPECT_EQ(Entries(after), "atmin * 0");

    DepPkgVector none;
    EXPECT_EQ(PMSLoadDepConfFile(nullptr, none), -1);
    EXPECT_TRUE(logged("Bad parameters"));
    EXPECT_EQ(PMSLoadDepConfFile("/var/packages/p/conf/missing", none), -1);
    EXPECT_TRUE(logged("Failed to VLIBCFileEnumSection /var/packages/p/conf/missing"));
    EXPECT_TRUE(none.empty());
}

TEST_F(DepParse, JsonForm) {
    EXPECT_EQ(FromJson(""), "0: ");
    EXPECT_EQ(FromJson("{not json"), "-1: ");

    // Members come in name order; key order within a member is fixed.
    const std::string text = R"({
        "plain": "",
        "empty": {},
        "number": 7,
        "all": {"<": "9", ">=": "1", "pkg_min_ver": "2", "=": "3", ">": "4",
                "pkg_max_ver": "5", "<=": "6"},
        "blank": {">=": ""},
        "other": {"note": "x"},
        "later": {"kos_min_ver": "99.0-0", ">=": "1"},
        "sooner": {"kos_max_ver": "1.0-0"},
        "always": {"kos_min_ver": "0.0-0"},
        "Python": {">=": "2"},
        "numeric": {">=": 2, "<": {"x": 1}}
    })";
    EXPECT_EQ(FromJson(text),
              "0: all >= 1, all >= 2, all = 3, all > 4, all <= 5, all <= 6, all < 9, always * 0, "
              "empty * 0, number * 0, numeric >= 2, other * 0, plain * 0");

    // Values of the wrong type at the top give nothing rather than failing.
    for (const char* wrong : {"[1,2]", "\"text\"", "17", "null", "true"}) {
        EXPECT_EQ(FromJson(wrong), "0: ") << wrong;
    }
}

TEST_F(DepParse, ToJsonAndMap) {
    DepPkgVector list;
    Json::Value out(Json::objectValue);
    list.toJSON(out);
    EXPECT_TRUE(out.isNull());

    EXPECT_FALSE(list.pushDepPkg("Python", "2", PKG_VER_GE));
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(list.pushDepPkg("a", "0", PKG_VER_ANY));
    EXPECT_TRUE(list.pushDepPkg("b", "1", PKG_VER_GE));
    EXPECT_TRUE(list.pushDepPkg("b", "2", PKG_VER_LE));
    EXPECT_TRUE(list.pushDepPkg("c", "3", static_cast<PKG_VERSION_COMPOP>(9)));
    list.toJSON(out);
    Json::Value want;
    ASSERT_TRUE(Json::fromString(want, R"({"a":"","b":{">=":"1","<=":"2"},"c":""})"));
    EXPECT_EQ(out, want);

    PackageBasicInfoMap map;
    map.insertPackagae("x", "1", false, PKG_VER_ANY);
    map.insertPackagae("x", "2", true, PKG_VER_GE);
    ASSERT_EQ(map.size(), 1u);
    EXPECT_EQ(map["x"].version, "1");
    EXPECT_FALSE(map["x"].beta);
}

TEST_F(DepParse, InfoLoaderReadsAllForms) {
    writeFile("/var/packages/p/INFO",
              "package=\"p\"\nversion=\"1\"\nmaintainer=\"m\"\ndescription=\"d\"\n"
              "install_dep_packages=\"ignored\"\ninstall_conflict_packages=\"c1:c2>3\"\n"
              "install_break_packages=\"b<2\"\n");
    writeFile("/var/packages/p/conf/PKG_DEPS", "[d1]\npkg_min_ver=\"1\"\n");
    PackageInfo info;
    ASSERT_TRUE(PMSLoadPKGInfoFile("/var/packages/p", info, nullptr, PKG_MASK_ALL));
    EXPECT_EQ(Entries(info.install_dep_packages), "d1 >= 1");
    EXPECT_EQ(Entries(info.install_conflict_packages), "c1 * 0, c2 > 3");
    EXPECT_EQ(Entries(PMSGetBreakPkgs(info)), "b < 2");
}

TEST_F(DepParse, HostileSizes) {
    std::string text;
    for (int i = 0; i < 10000; ++i) {
        text += (i % 3 == 0 ? "" : "p" + std::to_string(i) + (i % 2 ? ">=1." : "")) + ":";
    }
    text += std::string(100000, ':') + std::string(50000, '<');
    DepPkgVector list;
    PMSExplodeDepPKGString(text.c_str(), list);
    size_t expected = 0;
    for (int i = 0; i < 10000; ++i) {
        expected += i % 3 != 0;
    }
    // The run of "<" ends in "<" with nothing after it: dropped.
    EXPECT_EQ(list.size(), expected);

    std::string sections;
    for (int i = 0; i < 50000; ++i) {
        sections += "[s" + std::to_string(i) + "]\nkos_min_ver=\"0.0-0\"\npkg_min_ver=\"" +
                    std::to_string(i) + "\"\n";
    }
    sections += "[s0]\npkg_max_ver=\"1\"\n";
    writeFile("/tmp/PKG_DEPS", sections);
    DepPkgVector fromSections;
    ASSERT_EQ(PMSLoadDepConfFile("/tmp/PKG_DEPS", fromSections), 0);
    ASSERT_EQ(fromSections.size(), 50000u);
    EXPECT_EQ(fromSections[49999].version, "49999");

    Json::Value many(Json::objectValue);
    for (int i = 0; i < 10000; ++i) {
        many["p" + std::to_string(i)][">="] = std::to_string(i);
    }
    DepPkgVector fromJson;
    EXPECT_EQ(PMSParseDepJSON(many, fromJson), 0);
    EXPECT_EQ(fromJson.size(), 10000u);

    DepPkgVector deep;
    EXPECT_EQ(PMSParseDepJSONString(std::string(100000, '[') + std::string(100000, ']'), deep), -1);
    EXPECT_TRUE(deep.empty());
}

}  // namespace
