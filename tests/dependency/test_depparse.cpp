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

struct Entry {
    std::string name;
    std::string version;
    PKG_VERSION_COMPOP op;
};

std::vector<Entry> Entries(const DepPkgVector& list) {
    std::vector<Entry> out;
    for (const auto& e : list) {
        out.push_back({e.name, e.version, e.op});
    }
    return out;
}

bool operator==(const Entry& a, const Entry& b) {
    return a.name == b.name && a.version == b.version && a.op == b.op;
}

std::ostream& operator<<(std::ostream& os, const Entry& e) {
    return os << "(" << e.name << ", " << e.version << ", " << e.op << ")";
}

std::vector<Entry> FromString(const char* text) {
    DepPkgVector list;
    PMSExplodeDepPKGString(text, list);
    return Entries(list);
}

std::vector<Entry> FromJson(const std::string& text, int* rc = nullptr) {
    DepPkgVector list;
    int r = PMSParseDepJSONString(text, list);
    if (rc != nullptr) {
        *rc = r;
    }
    return Entries(list);
}

TEST_F(DepParse, StringForm) {
    struct Case {
        const char* text;
        std::vector<Entry> want;
    };
    const std::vector<Case> cases = {
        {"a<=1:b", {{"a", "1", PKG_VER_LE}, {"b", "0", PKG_VER_ANY}}},
        {"pkgA>=1.2:pkgB:pkgC<3",
         {{"pkgA", "1.2", PKG_VER_GE}, {"pkgB", "0", PKG_VER_ANY}, {"pkgC", "3", PKG_VER_LT}}},
        {"a>=", {}},
        {"a=1=2", {{"a=1", "2", PKG_VER_EQ}}},
        {"Python>=2", {}},
        {"Python:x>1", {{"x", "1", PKG_VER_GT}}},
        {"a=1", {{"a", "1", PKG_VER_EQ}}},
        {"a>1", {{"a", "1", PKG_VER_GT}}},
        // "<=" is tried before "<" and ">=" before ">", each searched from the end.
        {"a<1<=2", {{"a<1", "2", PKG_VER_LE}}},
        {"a>=1<2", {{"a", "1<2", PKG_VER_GE}}},
        {"a<2>1", {{"a", "2>1", PKG_VER_LT}}},
        {"", {}},
        {":::", {}},
        {"a::b", {{"a", "0", PKG_VER_ANY}, {"b", "0", PKG_VER_ANY}}},
        // An operator without a name keeps the empty name; nothing installed ever matches it.
        {"=1", {{"", "1", PKG_VER_EQ}}},
        {"<=", {}},
        {"n\x01\xff", {{"n\x01\xff", "0", PKG_VER_ANY}}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FromString(c.text), c.want) << "text: " << c.text;
    }
    EXPECT_TRUE(FromString(nullptr).empty());
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
    const std::vector<Entry> want = {
        {"plain", "0", PKG_VER_ANY}, {"minmax", "1.0", PKG_VER_GE}, {"minmax", "2.0", PKG_VER_LE},
        {"min", "1.5", PKG_VER_GE},  {"always", "0", PKG_VER_ANY},  {"upto", "3", PKG_VER_LE},
    };
    EXPECT_EQ(Entries(list), want);

    // The sub-build decides at the exact OS version.
    const std::string exact = "/var/packages/p/conf/PKG_CONX";
    writeFile(exact, "[atmin]\nkos_min_ver=\"6.2-25556\"\n[atmax]\nkos_max_ver=\"6.2-25556\"\n");
    DepPkgVector before;
    ASSERT_EQ(PMSLoadDepConfFile(exact.c_str(), before), 0);
    EXPECT_EQ(Entries(before),
              (std::vector<Entry>{{"atmin", "0", PKG_VER_ANY}, {"atmax", "0", PKG_VER_ANY}}));
    ASSERT_TRUE(VLIBCFileSetKeyValue("/etc.defaults/VERSION", "smallfixnumber", "3"));
    DepPkgVector after;
    ASSERT_EQ(PMSLoadDepConfFile(exact.c_str(), after), 0);
    EXPECT_EQ(Entries(after), (std::vector<Entry>{{"atmin", "0", PKG_VER_ANY}}));

    DepPkgVector none;
    EXPECT_EQ(PMSLoadDepConfFile(nullptr, none), -1);
    EXPECT_TRUE(logged("Bad parameters"));
    EXPECT_EQ(PMSLoadDepConfFile("/var/packages/p/conf/missing", none), -1);
    EXPECT_TRUE(logged("Failed to VLIBCFileEnumSection /var/packages/p/conf/missing"));
    EXPECT_TRUE(none.empty());
}

TEST_F(DepParse, JsonForm) {
    int rc = 1;
    EXPECT_TRUE(FromJson("", &rc).empty());
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(FromJson("{not json", &rc).empty());
    EXPECT_EQ(rc, -1);

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
    const std::vector<Entry> want = {
        {"all", "1", PKG_VER_GE},     {"all", "2", PKG_VER_GE},     {"all", "3", PKG_VER_EQ},
        {"all", "4", PKG_VER_GT},     {"all", "5", PKG_VER_LE},     {"all", "6", PKG_VER_LE},
        {"all", "9", PKG_VER_LT},     {"always", "0", PKG_VER_ANY}, {"empty", "0", PKG_VER_ANY},
        {"number", "0", PKG_VER_ANY}, {"numeric", "2", PKG_VER_GE}, {"other", "0", PKG_VER_ANY},
        {"plain", "0", PKG_VER_ANY},
    };
    EXPECT_EQ(FromJson(text, &rc), want);
    EXPECT_EQ(rc, 0);

    // Values of the wrong type at the top give nothing rather than failing.
    for (const char* wrong : {"[1,2]", "\"text\"", "17", "null", "true"}) {
        EXPECT_TRUE(FromJson(wrong, &rc).empty()) << wrong;
        EXPECT_EQ(rc, 0) << wrong;
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

    EXPECT_STREQ(PMSDepOperatorText(PKG_VER_GE), ">=");
    EXPECT_STREQ(PMSDepOperatorText(PKG_VER_ANY), "");
}

TEST_F(DepParse, CompareAndListsOfRecord) {
    PackageBasicInfo installed("a", "1.2");
    EXPECT_TRUE(installed.compare(PackageBasicInfo("a", "1.2.0"), PKG_VER_GE));
    EXPECT_TRUE(installed.compare(PackageBasicInfo("a", "1.2.0"), PKG_VER_EQ));
    EXPECT_FALSE(installed.compare(PackageBasicInfo("b", "1.2"), PKG_VER_ANY));
    EXPECT_TRUE(installed.compare(PackageBasicInfo("a", "7"), PKG_VER_ANY));
    EXPECT_TRUE(installed.compare(PackageBasicInfo("a", "1.10"), PKG_VER_LT));

    PackageInfo info;
    PMSExplodeDepPKGString("x>1", info.extra.get()->install_break_packages);
    PMSExplodeDepPKGString("y:z", info.extra.get()->install_replace_packages);
    PMSExplodeDepPKGString("w<2", info.extra.get()->install_replace_force_packages);
    EXPECT_EQ(Entries(PMSGetBreakPkgs(info)), (std::vector<Entry>{{"x", "1", PKG_VER_GT}}));
    EXPECT_EQ(Entries(PMSGetReplacePkgs(info)),
              (std::vector<Entry>{{"y", "0", PKG_VER_ANY}, {"z", "0", PKG_VER_ANY}}));
    EXPECT_EQ(Entries(PMSGetReplaceForcePkgs(info)), (std::vector<Entry>{{"w", "2", PKG_VER_LT}}));
}

TEST_F(DepParse, InfoLoaderReadsAllForms) {
    writeFile("/var/packages/p/INFO",
              "package=\"p\"\nversion=\"1\"\nmaintainer=\"m\"\ndescription=\"d\"\n"
              "install_dep_packages=\"ignored\"\ninstall_conflict_packages=\"c1:c2>3\"\n"
              "install_break_packages=\"b<2\"\n");
    writeFile("/var/packages/p/conf/PKG_DEPS", "[d1]\npkg_min_ver=\"1\"\n");
    PackageInfo info;
    ASSERT_TRUE(PMSLoadPKGInfoFile("/var/packages/p", info, nullptr, PKG_MASK_ALL));
    EXPECT_EQ(Entries(info.install_dep_packages), (std::vector<Entry>{{"d1", "1", PKG_VER_GE}}));
    EXPECT_EQ(Entries(info.install_conflict_packages),
              (std::vector<Entry>{{"c1", "0", PKG_VER_ANY}, {"c2", "3", PKG_VER_GT}}));
    EXPECT_EQ(Entries(PMSGetBreakPkgs(info)), (std::vector<Entry>{{"b", "2", PKG_VER_LT}}));
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
