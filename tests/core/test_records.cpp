#include <gtest/gtest.h>
#include <unistd.h>

#include "core/depparse.h"
#include "core/packagemanager.h"
#include "core/version.h"
#include "platform/json.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;
using namespace std::string_literals;

namespace {

class Records : public TempRootTest {
protected:
    bool load(const std::string& info, PackageInfo& out, const char* lang = "enu",
              unsigned long long mask = PKG_MASK_ALL) {
        writeFile("/tmp/pkg/INFO", info);
        return PMSLoadPKGInfoFile("/tmp/pkg", out, lang, mask);
    }
    const std::string base =
        "package=\"demo\"\nversion=\"1.0\"\nmaintainer=\"m\"\n"
        "description=\"d\"\n";
};

}  // namespace

TEST_F(Records, RequiredKeysAndNameCheck) {
    PackageInfo info;
    EXPECT_TRUE(load(base, info));
    EXPECT_EQ(info.name, "demo");
    EXPECT_EQ(info.displayname, "demo");  // falls back to the name
    EXPECT_FALSE(load("package=\"a/b\"\nversion=\"1\"\n", info, "enu", 0));
    EXPECT_TRUE(logged("key [package] a/b is illegal"));
    EXPECT_FALSE(
        load("package=\"" + std::string(492, 'n') + "\"\nversion=\"1\"\n", info, "enu", 0));
    EXPECT_TRUE(load("package=\"" + std::string(491, 'n') + "\"\nversion=\"1\"\n", info, "enu", 0));
    for (const char* bad : {"..", ".", "@eaDir", "a:b", "a<b", "a|b", "a=b"}) {
        EXPECT_FALSE(PMSCheckName(bad, ":/<>=|")) << bad;
    }
    EXPECT_FALSE(PMSCheckName(nullptr, ":/"));
    EXPECT_FALSE(PMSCheckName("", ":/"));
    EXPECT_FALSE(load("package=\"x\"\nversion=\"\"\n", info, "enu", 0));
    EXPECT_FALSE(load("version=\"1\"\n", info, "enu", 0));
    // maintainer and description are required only when the mask asks for them.
    EXPECT_TRUE(load("package=\"x\"\nversion=\"1\"\n", info, "enu", 0));
    EXPECT_FALSE(load("package=\"x\"\nversion=\"1\"\n", info, "enu", PKG_MASK_MAINTAINER));
    EXPECT_FALSE(load("package=\"x\"\nversion=\"1\"\nmaintainer=\"m\"\n", info));
    EXPECT_FALSE(load(base + "kosuidir=\"ui/x\"\n", info));
    EXPECT_TRUE(load(base + "kosuidir=\"ui\"\n", info));
    EXPECT_EQ(info.kosuidir, "ui");
    // A folder without INFO fails quietly.
    PackageInfo none;
    EXPECT_FALSE(PMSLoadPKGInfoFile("/tmp/nowhere", none, nullptr, PKG_MASK_ALL));
}

TEST_F(Records, FieldRules) {
    PackageInfo info;
    ASSERT_TRUE(load(base + "adminport=\"65536\"\nreport_url=\"http://r\"\n"
                            "beta=\"no\"\nctl_stop=\"yes\"\nstartable=\"no\"\ncheckport=\"NO\"\n"
                            "install_reboot=\"Yes\"\nexclude_model=\"m1 m2\"\n"
                            "use_deprecated_replace_mechanism=\"no\"\nctl_uninstall=\"no\"\n"
                            "instuninst_restart_services=\"samba nginx bogus\"\n"
                            "install_dep_packages=\"a>=1.2:b\"\n"
                            "install_break_packages=\"c<2\"\n",
                     info));
    EXPECT_EQ(info.adminport, 65536u);
    EXPECT_TRUE(info.beta);       // report_url marks a beta whatever "beta" says
    EXPECT_TRUE(info.startable);  // "ctl_stop" wins over "startable"
    EXPECT_FALSE(info.checkport);
    EXPECT_TRUE(info.install_reboot);
    EXPECT_EQ(info.adminprotocol, std::vector<std::string>{"http"});
    EXPECT_EQ(info.instuninst_restart_services, 0x4u | 0x40000000u);
    ASSERT_EQ(info.install_dep_packages.size(), 2u);
    EXPECT_EQ(info.install_dep_packages[0].op, PKG_VER_GE);
    EXPECT_EQ(PMSGetBreakPkgs(info).size(), 1u);
    EXPECT_FALSE(PMSGetCtlUninstall(info));
    EXPECT_EQ(PMSGetExcludeModels(info).size(), 2u);
    EXPECT_FALSE(PMSGetUseDeprecatedReplaceMechanism(info));

    // A copy loses the excluded models and the deprecated-replace flag, and keeps the rest.
    PackageInfo copy = info;
    EXPECT_TRUE(PMSGetExcludeModels(copy).empty());
    EXPECT_TRUE(PMSGetUseDeprecatedReplaceMechanism(copy));
    EXPECT_FALSE(PMSGetCtlUninstall(copy));
    EXPECT_EQ(PMSGetBreakPkgs(copy).size(), 1u);
    copy = copy;
    EXPECT_EQ(copy.name, "demo");

    // Only a missing or empty "arch" stands for every machine; a list of blanks names none.
    const auto& noarch = PMSGetArchGroup(PKG_ARCH_GROUP_NOARCH);
    ASSERT_FALSE(noarch.empty());
    EXPECT_EQ(info.extra.get()->arch_ids, noarch);
    ASSERT_TRUE(load(base + "arch=\"\"\n", info));
    EXPECT_EQ(info.extra.get()->arch_ids, noarch);
    ASSERT_TRUE(load(base + "arch=\"  \"\n", info));
    EXPECT_TRUE(info.arch.empty());
    EXPECT_TRUE(info.extra.get()->arch_ids.empty());

    EXPECT_FALSE(load(base + "adminport=\"65537\"\n", info));
    EXPECT_FALSE(load(base + "adminport=\"-1\"\n", info));
    ASSERT_TRUE(load(base + "startable=\"no\"\n", info));
    EXPECT_FALSE(info.startable);
    // Without the admin bit, the admin keys are not read.
    ASSERT_TRUE(load(base + "adminport=\"99999\"\n", info, "enu", 0));
    EXPECT_EQ(info.adminport, 0u);
    EXPECT_TRUE(info.adminprotocol.empty());
}

TEST_F(Records, ConflictsUnderAnyHighBit) {
    // Scans ask for the conflicts with whichever bit above 0x7fffffff they hold.
    PackageInfo info;
    for (int bit = 0; bit < 64; ++bit) {
        const unsigned long long mask = 1ULL << bit;
        ASSERT_TRUE(load(base + "install_conflict_packages=\"c\"\n", info, "enu", mask)) << bit;
        EXPECT_EQ(info.install_conflict_packages.size(), bit >= 31 ? 1u : 0u) << "bit " << bit;
    }
}

TEST_F(Records, LanguageKeys) {
    const std::string texts = base +
                              "description_enu=\"english\"\ndescription_fre=\"french\"\n"
                              "displayname=\"Demo\"\ndisplayname_fre=\"Démo\"\n";
    PackageInfo info;
    // Description, English description and display name.
    auto shown = [&] {
        return info.description + "|" + info.description_enu + "|" + info.displayname;
    };
    ASSERT_TRUE(load(texts, info, "enu", PKG_MASK_DESCRIPTION | PKG_MASK_DISPLAYNAME));
    EXPECT_EQ(shown(), "english||Demo");

    writeFile("/etc/zarninfo.conf", "language=\"fre\"\n");
    ASSERT_TRUE(load(texts, info, nullptr, PKG_MASK_DESCRIPTION | PKG_MASK_DISPLAYNAME));
    EXPECT_EQ(shown(), "french|english|Démo");
    // No "description_ENU" key; the display name was not asked for.
    ASSERT_TRUE(load(texts, info, "ENU", PKG_MASK_DESCRIPTION));
    EXPECT_EQ(shown(), "d||");
}

TEST_F(Records, HostileInfoText) {
    PackageInfo info;
    // CRLF line ends, an unterminated quote, a NUL byte, duplicate keys.
    std::string text = "package=\"crlf\"\r\nversion=\"2.0\r\nversion=\"3.0\"\r\n";
    text += std::string("maintainer=\"a\0b\"\n", 17);
    text += "description=\"x\"\n";
    ASSERT_TRUE(load(text, info));
    EXPECT_EQ(info.name + " " + info.version, "crlf 2.0");
    // A 1 MiB line and bytes that aren't UTF-8.
    ASSERT_TRUE(load(base + "displayname=\"" + std::string(1 << 20, '\xff') + "\"\n", info));
    EXPECT_EQ(info.displayname.size(), size_t(1) << 20);

    // A NUL byte must not hide the rest of a name from the name check.
    EXPECT_FALSE(load("package=\"ok\0/../../etc\"\nversion=\"1\"\n"s, info, "enu", 0));
    EXPECT_TRUE(logged("key [package] "));
    EXPECT_FALSE(load(base + "kosuidir=\"ui\0/x\"\n"s, info));
    // An extract size beyond the range of bytes saturates instead of wrapping negative.
    ASSERT_TRUE(load(base + "extractsize=\"99999999999999999999\"\n", info));
    EXPECT_GT(info.extractsize, 0);
    ASSERT_TRUE(load(base + "extractsize=\"9007199254740993\"\n", info));
    EXPECT_GT(info.extractsize, 0);
    ASSERT_TRUE(load(base + "extractsize=\"-2\"\n", info));
    EXPECT_EQ(info.extractsize, -2048);

    // A file of many megabytes is no INFO: refused as unreadable, not read whole.
    EXPECT_FALSE(load(base + "displayname=\"" + std::string(17 << 20, 'x') + "\"\n", info));
    EXPECT_TRUE(logged("VLIBCFileGetKeys() failed!! szFile=[/tmp/pkg/INFO]"));
    // Nor does a sparse one larger than any memory bring the process down.
    writeFile("/tmp/pkg/INFO", base);
    if (truncate(phys("/tmp/pkg/INFO").c_str(), 1LL << 40) == 0) {
        EXPECT_FALSE(PMSLoadPKGInfoFile("/tmp/pkg", info, "enu", PKG_MASK_ALL));
    }
}

TEST_F(Records, JsonMapping) {
    PackageInfo info;
    EXPECT_FALSE(PMSMapJsonToPackageInfo(Json::Value("x"), info));
    Json::Value js;
    ASSERT_TRUE(Json::fromString(
        js, R"({"package": "srv", "version": "1.2", "dname": "Server", "size": "1234",
                "beta": true, "ctl_install": "no", "deppkgs": "a>1:b",
                "conf_conxpkgs": {"c": {">=": "2"}}, "breakpkgs": "d"})"));
    info.license = "kept";
    ASSERT_TRUE(PMSMapJsonToPackageInfo(js, info));
    EXPECT_EQ(info.displayname, "Server");
    EXPECT_EQ(info.size, 1234u);
    EXPECT_TRUE(info.beta);
    EXPECT_FALSE(info.extra.get()->ctl_install);
    EXPECT_EQ(info.install_dep_packages.size(), 2u);
    ASSERT_EQ(info.install_conflict_packages.size(), 1u);
    EXPECT_EQ(info.install_conflict_packages[0].op, PKG_VER_GE);
    EXPECT_EQ(PMSGetBreakPkgs(info).size(), 1u);
    EXPECT_EQ(info.license, "kept");
}
