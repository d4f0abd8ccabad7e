#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "core/packagemanager.h"
#include "core/paths.h"
#include "package/archive.h"
#include "package/checksum.h"
#include "package/lint.h"
#include "package/pack.h"
#include "package/payload_vet.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class ArchiveTest : public TempRootTest {
protected:
    // An example package source copied into the root, so that every path stays logical.
    std::string exampleSource(const std::string& name) {
        const std::string dst = "/tmp/src/" + name;
        EXPECT_EQ(0, ZARNFSMkdirP("/tmp/src", 0, 0, -1, -1, 0755));
        EXPECT_EQ(0, qartest::Run({"/bin/cp", "-a",
                                   std::string(ZARN_SOURCE_DIR) + "/examples/" + name, phys(dst)}));
        return dst;
    }
};

TEST_F(ArchiveTest, PackedExamplesReadBackAndPassTheFileCheck) {
    // The service that an example depends on, installed and running.
    addPackage("heartbeat");
    addControlScript("heartbeat", 0);
    markRunning("heartbeat");
    std::vector<ZARNDirEntry> examples;
    makeDir("/tmp/out");
    {
        // The examples folder lies outside the root: list it through the machine's view.
        std::string listing;
        ASSERT_EQ(0,
                  qartest::Run({"/bin/ls", std::string(ZARN_SOURCE_DIR) + "/examples"}, &listing));
        size_t start = 0;
        while (start < listing.size()) {
            size_t end = listing.find('\n', start);
            examples.push_back({listing.substr(start, end - start), ZARNFileType::Directory});
            start = end + 1;
        }
    }
    ASSERT_FALSE(examples.empty());
    for (const auto& example : examples) {
        const std::string src = exampleSource(example.name);
        const std::string out = "/tmp/out/" + example.name + ".qar";
        std::string error;
        std::vector<std::string> warnings;
        ASSERT_TRUE(PMSPackPackage(src, out, error, &warnings)) << example.name << ": " << error;
        // An example is a model package: nothing in it earns a warning, at pack or at check.
        PMSLintReport lint;
        ASSERT_TRUE(PMSLintPackageFile(out, lint));
        EXPECT_TRUE(warnings.empty() && lint.warnings.empty() && lint.errors.empty()) << out;
        std::vector<TarMember> members;
        std::string why;
        ASSERT_TRUE(PMSQarListVetted(out, members, why)) << why;
        ASSERT_GE(members.size(), 2u);
        EXPECT_EQ("INFO", members[0].name);
        EXPECT_EQ("package.tgz", members[1].name);
        for (const auto& m : members) {
            EXPECT_NE(0u, m.name.find(example.name)) << "leading folder in " << m.name;
        }
        PackageManager pm;
        PackageInfo info;
        ASSERT_TRUE(pm.queryPackageFileInfo(out, info, PKG_INSTALLATION_NONE, "enu"));
        EXPECT_EQ(example.name, info.name);
        EXPECT_EQ(32u, info.checksum.size());
        EXPECT_GT(info.extractsize, 0);
        EXPECT_TRUE(pm.verifyPackageTgzFile(out, info.checksum.c_str()));
        std::string displayName;
        Json::Value message;
        EXPECT_TRUE(CheckPackageFileInfo("enu", out.c_str(), displayName, message))
            << example.name << " " << message;
    }
}

TEST_F(ArchiveTest, HelloRecordScriptsLicenceAndWizard) {
    const std::string src = exampleSource("hello");
    std::string error;
    ASSERT_TRUE(PMSPackPackage(src, "/tmp/hello.qar", error)) << error;
    PackageManager pm;
    PackageInfo info;
    ASSERT_TRUE(pm.queryPackageFileInfo("/tmp/hello.qar", info, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ(0x7fu, info.script_mask);
    EXPECT_TRUE(info.license.empty());
    EXPECT_TRUE(info.wizard.empty());

    PackageInfo full;
    ASSERT_TRUE(
        pm.queryPackageFileInfoWithWizard("/tmp/hello.qar", full, PKG_INSTALLATION_NONE, "enu"));
    std::string licence;
    ASSERT_TRUE(ZARNFileRead(src + "/LICENSE", licence));
    EXPECT_EQ(licence, full.license);
    ASSERT_TRUE(full.wizard.isArray());
    Json::Value defaults(Json::objectValue);
    getUIDefaultValues(full.wizard, defaults);
    EXPECT_EQ("hello", defaults["wizard_greeting"].asString());

    // The payload checksum: a wrong one fails, none at all passes without extraction.
    EXPECT_FALSE(pm.verifyPackageTgzFile("/tmp/hello.qar", "00000000000000000000000000000000"));
    EXPECT_FALSE(pm.verifyPackageTgzFile("/tmp/hello.qar", info.checksum.substr(0, 31).c_str()));
    EXPECT_TRUE(pm.verifyPackageTgzFile("/tmp/hello.qar", nullptr));
    EXPECT_TRUE(logged("Failed to verify /tmp/hello.qar/package.tgz"));
    // The member is hashed where it lies in the archive: just its bytes, and all of them.
    std::string md5;
    writeFile("/tmp/range", "xxabcyy");
    EXPECT_TRUE(PMSMd5OfRange("/tmp/range", 2, 3, md5));
    EXPECT_EQ(md5, "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_FALSE(PMSMd5OfRange("/tmp/range", 2, 30, md5));

    // One read of the payload gives its md5 and its members, and the checksum test takes the
    // md5 from it, but only while the file stays as it was read.
    PMSPayloadRead read;
    std::string why;
    ASSERT_EQ(PMSQarPayloadRead("/tmp/hello.qar", read, why), 1) << why;
    EXPECT_EQ(read.md5, info.checksum);
    EXPECT_FALSE(read.members.empty());
    EXPECT_TRUE(pm.verifyPackageTgzFile("/tmp/hello.qar", info.checksum.c_str()));
    std::vector<TarMember> members;
    ASSERT_EQ(PMSTarScan("/tmp/hello.qar", members, why), TarScanStatus::Ok);
    const TarMember* tgz = PMSTarFindMember(members, "package.tgz");
    ASSERT_NE(tgz, nullptr);
    {
        const Fd fd = ZARNOpen("/tmp/hello.qar", O_WRONLY);
        // The first byte of a gzip stream is 0x1f: this one is another.
        ASSERT_EQ(pwrite(fd.get(), "x", 1, static_cast<off_t>(tgz->dataOffset)), 1);
    }
    EXPECT_FALSE(pm.verifyPackageTgzFile("/tmp/hello.qar", info.checksum.c_str()));
    EXPECT_FALSE(pm.verifyPackageTgzFile("", info.checksum.c_str()));
    EXPECT_FALSE(pm.queryPackageFileInfo("", info, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_TRUE(logged("Wrong parameters"));
}

TEST_F(ArchiveTest, PackRefusesBadInfoAndSaysWhichKey) {
    writeFile("/tmp/p/package/file", "x");
    const struct {
        std::string info;
        std::string key;
    } cases[] = {
        {"version=\"1.0\"\ndescription=\"d\"\nmaintainer=\"m\"\n", "\"package\""},
        {qartest::BasicInfo("a/b", "1.0"), "\"package\""},
        {qartest::BasicInfo("ok", ""), "\"version\""},
        {qartest::BasicInfo("ok", "1.0", {{"maintainer", ""}}), "\"maintainer\""},
        {qartest::BasicInfo("ok", "1.0", {{"adminport", "99999"}}), "\"adminport\""},
    };
    for (const auto& c : cases) {
        writeFile("/tmp/p/INFO", c.info);
        std::string error;
        EXPECT_FALSE(PMSPackPackage("/tmp/p", "/tmp/p.qar", error));
        EXPECT_NE(std::string::npos, error.find(c.key)) << error;
        EXPECT_FALSE(ZARNPathExists("/tmp/p.qar"));
    }
    writeFile("/tmp/p/INFO", qartest::BasicInfo("ok", "1.0", {{"checksum", "stale"}}));
    ASSERT_TRUE(ZARNRemoveTree("/tmp/p/package"));
    std::string error;
    EXPECT_FALSE(PMSPackPackage("/tmp/p", "/tmp/p.qar", error));
    EXPECT_NE(std::string::npos, error.find("package")) << error;
    // An empty payload folder is a valid payload; a stale checksum is replaced.
    makeDir("/tmp/p/package");
    ASSERT_TRUE(PMSPackPackage("/tmp/p", "/tmp/p.qar", error)) << error;
    PackageManager pm;
    PackageInfo info;
    ASSERT_TRUE(pm.queryPackageFileInfo("/tmp/p.qar", info, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_NE("stale", info.checksum);
    EXPECT_TRUE(pm.verifyPackageTgzFile("/tmp/p.qar", info.checksum.c_str()));
}

TEST_F(ArchiveTest, RecordsThatDoNotLoadStillAnswerTrue) {
    // INFO without "package": true, empty name, script mask 0; no conf or scripts needed.
    std::string err;
    ASSERT_TRUE(qartest::TarFromMap(
        "/tmp/noname.qar", {{"INFO", "version=\"1.0\"\n"}, {"scripts/preinst", "#!/bin/sh\n"}},
        false, err))
        << err;
    PackageManager pm;
    PackageInfo info;
    EXPECT_TRUE(pm.queryPackageFileInfo("/tmp/noname.qar", info, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_TRUE(info.name.empty());
    EXPECT_EQ(0u, info.script_mask);
    ASSERT_TRUE(qartest::TarFromMap("/tmp/bare.qar", {{"INFO", qartest::BasicInfo("bare", "1")}},
                                    false, err));
    EXPECT_TRUE(pm.queryPackageFileInfo("/tmp/bare.qar", info, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ("bare", info.name);
    EXPECT_EQ(0u, info.script_mask);
}

TEST_F(ArchiveTest, WizardCandidatesLanguageLinksAndScripts) {
    const std::string steps =
        R"([{"items": [{"key": "k", "defaultValue": 7, "sub": [{"key": "n", "defaultValue": "x"}]}]}])";
    const std::string french = R"([{"items": [{"key": "lang", "defaultValue": "fre"}]}])";
    std::string err;
    ASSERT_TRUE(qartest::TarFromMap("/tmp/wiz.qar",
                                    {{"INFO", qartest::BasicInfo("wiz", "1.0")},
                                     {"WIZARD_UIFILES/install_uifile", steps},
                                     {"WIZARD_UIFILES/install_uifile_fre", french}},
                                    false, err));
    PackageManager pm;
    PackageInfo info;
    ASSERT_TRUE(
        pm.queryPackageFileInfoWithWizard("/tmp/wiz.qar", info, PKG_INSTALLATION_NONE, "fre"));
    Json::Value values(Json::objectValue);
    getUIDefaultValues(info.wizard, values);
    EXPECT_EQ("fre", values["lang"].asString());
    PackageInfo plain;
    ASSERT_TRUE(
        pm.queryPackageFileInfoWithWizard("/tmp/wiz.qar", plain, PKG_INSTALLATION_NONE, "ger"));
    values = Json::Value(Json::objectValue);
    getUIDefaultValues(plain.wizard, values);
    EXPECT_EQ("7", values["k"].asString());
    EXPECT_EQ("x", values["n"].asString());

    // A script wizard goes first; it writes its JSON into the message file.
    const std::string script =
        "#!/bin/sh\nprintf '%s' '[{\"items\": [{\"key\": \"s\", \"defaultValue\": \"script\"}]}]' "
        "> \"$ZARNPKG_TEMP_LOGFILE\"\n";
    ASSERT_TRUE(qartest::TarFromMap("/tmp/wizsh.qar",
                                    {{"INFO", qartest::BasicInfo("wizsh", "1.0")},
                                     {"WIZARD_UIFILES/install_uifile.sh", script},
                                     {"WIZARD_UIFILES/install_uifile", steps}},
                                    false, err));
    PackageInfo scripted;
    ASSERT_TRUE(pm.queryPackageFileInfoWithWizard("/tmp/wizsh.qar", scripted, PKG_INSTALLATION_NONE,
                                                  "enu"));
    values = Json::Value(Json::objectValue);
    getUIDefaultValues(scripted.wizard, values);
    EXPECT_EQ("script", values["s"].asString()) << logText();

    // A language file that links to the plain one, as raw tar members.
    ASSERT_TRUE(ZARNFileWrite(
        "/tmp/wizlink.qar",
        qartest::RawTar({{"INFO", qartest::BasicInfo("wizlink", "1.0")},
                         {"WIZARD_UIFILES/install_uifile_fre", "", '2', "install_uifile"},
                         {"WIZARD_UIFILES/install_uifile", french}})));
    PackageInfo linked;
    ASSERT_TRUE(pm.queryPackageFileInfoWithWizard("/tmp/wizlink.qar", linked, PKG_INSTALLATION_NONE,
                                                  "fre"));
    EXPECT_EQ(Json::Value("fre"), linked.wizard[0]["items"][0]["defaultValue"]);

    // A language file that isn't JSON at all gives way to the plain one; one nested too deep for
    // the reader neither ends the query nor stops the search.
    for (const std::string& bad : {std::string(R"([{"items": []}, )"), std::string(5000, '[')}) {
        ASSERT_TRUE(qartest::TarFromMap("/tmp/wizbad.qar",
                                        {{"INFO", qartest::BasicInfo("wizbad", "1.0")},
                                         {"WIZARD_UIFILES/install_uifile_fre", bad},
                                         {"WIZARD_UIFILES/install_uifile", french}},
                                        false, err));
        PackageInfo fallback;
        ASSERT_NO_THROW(ASSERT_TRUE(pm.queryPackageFileInfoWithWizard(
            "/tmp/wizbad.qar", fallback, PKG_INSTALLATION_NONE, "fre")));
        EXPECT_EQ(Json::Value("fre"), fallback.wizard[0]["items"][0]["defaultValue"])
            << fallback.wizard;
    }
}

TEST_F(ArchiveTest, ReadUIFileContentRules) {
    Json::Value out;
    writeFile("/tmp/notjson", "{");
    EXPECT_FALSE(PMReadUIFileContent("/tmp/notjson", out));
    writeFile("/tmp/object", "{\"a\": 1}");
    EXPECT_FALSE(PMReadUIFileContent("/tmp/object", out));
    EXPECT_TRUE(out.isObject());
    writeFile("/tmp/noitems", "[{\"title\": \"x\"}]");
    EXPECT_FALSE(PMReadUIFileContent("/tmp/noitems", out));
    EXPECT_FALSE(out.empty());
    EXPECT_FALSE(PMReadUIFileContent("/tmp/missing", out));
    writeFile("/tmp/good", "[{\"items\": []}]");
    EXPECT_TRUE(PMReadUIFileContent("/tmp/good", out));
    // Half a document leaves nothing behind, and nesting beyond the reader's limit is a plain
    // failure, not an exception.
    writeFile("/tmp/half", "[{\"items\": []}, ");
    EXPECT_FALSE(PMReadUIFileContent("/tmp/half", out));
    EXPECT_TRUE(out.isNull());
    writeFile("/tmp/deep", std::string(5000, '['));
    out = Json::Value(Json::arrayValue);
    EXPECT_NO_THROW(EXPECT_FALSE(PMReadUIFileContent("/tmp/deep", out)));
    EXPECT_TRUE(out.isNull());
    EXPECT_TRUE(logged("Exceeded stackLimit"));

    // From the registry of an installed package.
    writeFile("/var/packages/reg/INFO", qartest::BasicInfo("reg", "1.0"));
    writeFile("/var/packages/reg/WIZARD_UIFILES/uninstall_uifile",
              R"([{"items": [{"key": "u", "defaultValue": true}]}])");
    PackageManager pm;
    PackageInfo info;
    info.name = "reg";
    EXPECT_TRUE(pm.readUIFile(PKG_INSTALLATION_UNINSTALL, "reg", info, "enu"));
    EXPECT_FALSE(info.wizard.empty());
    PackageInfo none;
    EXPECT_FALSE(pm.readUIFile(PKG_INSTALLATION_UPGRADE, "reg", none, "enu"));
    EXPECT_TRUE(pm.readUIFile(PKG_INSTALLATION_NONE, "reg", none, "enu"));
    EXPECT_FALSE(pm.readUIFile(std::string("a"), std::string("b"), none, "enu"));

    std::string path;
    EXPECT_FALSE(PMSGetImageTmpPath("", "b", nullptr, path));
    ASSERT_TRUE(PMSGetImageTmpPath("vendor", "pkg", "256", path));
    EXPECT_EQ("/var/cache/pkglist.tmp/icon/vendor/pkg/256", path);
    EXPECT_TRUE(ZARNIsDir(path));
}

TEST_F(ArchiveTest, WizardScriptsOfTheRegistryAndOfFilesThatGiveNothing) {
    const std::string writes =
        "#!/bin/sh\nprintf '%s' '[{\"items\": [{\"key\": \"r\", \"defaultValue\": \"reg\"}]}]' "
        "> \"$ZARNPKG_TEMP_LOGFILE\"\n";
    writeFile("/var/packages/regsh/INFO", qartest::BasicInfo("regsh", "1.0"));
    writeFile("/var/packages/regsh/WIZARD_UIFILES/uninstall_uifile.sh", writes);
    ASSERT_TRUE(ZARNChmod("/var/packages/regsh/WIZARD_UIFILES/uninstall_uifile.sh", 0755));
    PackageManager pm;
    PackageInfo info;
    info.name = "regsh";
    EXPECT_TRUE(pm.readUIFile(PKG_INSTALLATION_UNINSTALL, "regsh", info, "enu")) << logText();
    EXPECT_EQ(Json::Value("reg"), info.wizard[0]["items"][0]["defaultValue"]);

    // A reader leaves the registry as it is: a script installed without its execute bit stays
    // so, and is then no wizard.
    writeFile("/var/packages/regsh/WIZARD_UIFILES/upgrade_uifile.sh", writes);
    ASSERT_TRUE(ZARNChmod("/var/packages/regsh/WIZARD_UIFILES/upgrade_uifile.sh", 0644));
    PackageInfo upgrade;
    upgrade.name = "regsh";
    EXPECT_FALSE(pm.readUIFile(PKG_INSTALLATION_UPGRADE, "regsh", upgrade, "enu"));
    EXPECT_EQ(0644u, modeOf("/var/packages/regsh/WIZARD_UIFILES/upgrade_uifile.sh"));
    EXPECT_TRUE(logged("Failed to run")) << logText();

    // A script of a file that writes nothing gives way to the static file beside it.
    const std::string steps = R"([{"items": [{"key": "s", "defaultValue": "static"}]}])";
    std::string err;
    ASSERT_TRUE(qartest::TarFromMap("/tmp/empty_sh.qar",
                                    {{"INFO", qartest::BasicInfo("emptysh", "1.0")},
                                     {"WIZARD_UIFILES/install_uifile.sh", "#!/bin/sh\nexit 0\n"},
                                     {"WIZARD_UIFILES/install_uifile", steps}},
                                    false, err))
        << err;
    PackageInfo fallback;
    ASSERT_TRUE(pm.queryPackageFileInfoWithWizard("/tmp/empty_sh.qar", fallback,
                                                  PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ(Json::Value("static"), fallback.wizard[0]["items"][0]["defaultValue"]);

    // An upgrade wizard script of a package that isn't installed gives no wizard.
    ASSERT_TRUE(qartest::TarFromMap(
        "/tmp/up_sh.qar",
        {{"INFO", qartest::BasicInfo("upsh", "1.0")}, {"WIZARD_UIFILES/upgrade_uifile.sh", writes}},
        false, err))
        << err;
    PackageInfo notInstalled;
    ASSERT_TRUE(pm.queryPackageFileInfoWithWizard("/tmp/up_sh.qar", notInstalled,
                                                  PKG_INSTALLATION_UPGRADE, "enu"));
    EXPECT_TRUE(notInstalled.wizard.empty()) << notInstalled.wizard;
    EXPECT_TRUE(logged("Previous upsh not installed, upgrade not possible"));

    // Without a language argument the system's language is taken; without that either, only the
    // forms without a language are tried.
    const std::string french = R"([{"items": [{"key": "l", "defaultValue": "fre"}]}])";
    ASSERT_TRUE(qartest::TarFromMap("/tmp/syslang.qar",
                                    {{"INFO", qartest::BasicInfo("syslang", "1.0")},
                                     {"WIZARD_UIFILES/install_uifile_fre", french},
                                     {"WIZARD_UIFILES/install_uifile", steps}},
                                    false, err))
        << err;
    ASSERT_TRUE(VLIBCFileSetKeyValue("/etc/zarninfo.conf", "language", "fre"));
    PackageInfo system;
    ASSERT_TRUE(pm.queryPackageFileInfoWithWizard("/tmp/syslang.qar", system, PKG_INSTALLATION_NONE,
                                                  nullptr));
    EXPECT_EQ(Json::Value("fre"), system.wizard[0]["items"][0]["defaultValue"]);
    removeKey("/etc/zarninfo.conf", "language");
    PackageInfo none;
    ASSERT_TRUE(pm.queryPackageFileInfoWithWizard("/tmp/syslang.qar", none, PKG_INSTALLATION_NONE,
                                                  nullptr));
    EXPECT_EQ(Json::Value("static"), none.wizard[0]["items"][0]["defaultValue"]);
    EXPECT_TRUE(logged("Failed to get value 'language' from '/etc/zarninfo.conf'"));
}

}  // namespace
