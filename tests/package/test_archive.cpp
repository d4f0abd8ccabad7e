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
    // A QAR of `members` made by tar, under a new name each time.
    std::string qar(const std::map<std::string, std::string>& members) {
        const std::string file = "/tmp/w" + std::to_string(++count_) + ".qar";
        std::string err;
        EXPECT_TRUE(qartest::TarFromMap(file, members, false, err)) << err;
        return file;
    }
    // The default of `key` in the wizard that a query of `file` finds; "failed" when the query
    // fails.
    std::string wizardValue(const std::string& file, const char* key, const char* lang = "enu",
                            PKG_INSTALLATION_TYPE type = PKG_INSTALLATION_NONE) {
        PackageManager pm;
        PackageInfo info;
        if (!pm.queryPackageFileInfoWithWizard(file, info, type, lang)) {
            return "failed";
        }
        Json::Value values(Json::objectValue);
        getUIDefaultValues(info.wizard, values);
        return values[key].asString();
    }
    int count_ = 0;
};

TEST_F(ArchiveTest, HelloRecordScriptsLicenceAndWizard) {
    // The example with every kind of member; the CLI tests install the others.
    const std::string src = exampleSource("hello");
    std::string error;
    std::vector<std::string> warnings;
    ASSERT_TRUE(PMSPackPackage(src, "/tmp/hello.qar", error, &warnings)) << error;
    // A model package: nothing in it earns a warning, at pack or at check.
    PMSLintReport lint;
    ASSERT_TRUE(PMSLintPackageFile("/tmp/hello.qar", lint));
    EXPECT_TRUE(warnings.empty() && lint.warnings.empty() && lint.errors.empty());
    std::vector<TarMember> members;
    ASSERT_TRUE(PMSQarListVetted("/tmp/hello.qar", members, error)) << error;
    ASSERT_GE(members.size(), 2u);
    EXPECT_EQ("INFO package.tgz", members[0].name + " " + members[1].name);
    PackageManager pm;
    PackageInfo info;
    ASSERT_TRUE(pm.queryPackageFileInfo("/tmp/hello.qar", info, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ(0x7fu, info.script_mask);
    EXPECT_GT(info.extractsize, 0);
    EXPECT_TRUE(info.license.empty() && info.wizard.empty());
    PackageInfo full;
    ASSERT_TRUE(
        pm.queryPackageFileInfoWithWizard("/tmp/hello.qar", full, PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ(readFile(src + "/LICENSE"), full.license);
    EXPECT_EQ("hello", wizardValue("/tmp/hello.qar", "wizard_greeting"));

    // The payload checksum: a wrong one fails, none at all passes without extraction.
    EXPECT_FALSE(pm.verifyPackageTgzFile("/tmp/hello.qar", "00000000000000000000000000000000"));
    EXPECT_FALSE(pm.verifyPackageTgzFile("/tmp/hello.qar", info.checksum.substr(0, 31).c_str()));
    EXPECT_TRUE(pm.verifyPackageTgzFile("/tmp/hello.qar", nullptr));
    EXPECT_TRUE(logged("Failed to verify /tmp/hello.qar/package.tgz"));
    // The member is hashed where it lies in the archive: just its bytes, and all of them.
    std::string md5;
    writeFile("/tmp/range", "xxabcyy");
    EXPECT_EQ(OutIf(PMSMd5OfRange("/tmp/range", 2, 3, md5), md5),
              "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_FALSE(PMSMd5OfRange("/tmp/range", 2, 30, md5));

    // One read of the payload gives its md5 and its members, and the checksum test takes the
    // md5 from it, but only while the file stays as it was read.
    PMSPayloadRead read;
    ASSERT_EQ(PMSQarPayloadRead("/tmp/hello.qar", read, error), 1) << error;
    EXPECT_EQ(read.md5, info.checksum);
    EXPECT_FALSE(read.members.empty());
    EXPECT_TRUE(pm.verifyPackageTgzFile("/tmp/hello.qar", info.checksum.c_str()));
    ASSERT_EQ(PMSTarScan("/tmp/hello.qar", members, error), TarScanStatus::Ok);
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
    std::string error;
    for (const auto& c : cases) {
        writeFile("/tmp/p/INFO", c.info);
        EXPECT_FALSE(PMSPackPackage("/tmp/p", "/tmp/p.qar", error));
        EXPECT_NE(std::string::npos, error.find(c.key)) << error;
        EXPECT_FALSE(ZARNPathExists("/tmp/p.qar"));
    }
    writeFile("/tmp/p/INFO", qartest::BasicInfo("ok", "1.0", {{"checksum", "stale"}}));
    ASSERT_TRUE(ZARNRemoveTree("/tmp/p/package"));
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

    // INFO without "package" still answers true, with an empty name and script mask 0; no conf
    // or scripts are needed.
    PackageInfo noname;
    EXPECT_TRUE(pm.queryPackageFileInfo(
        qar({{"INFO", "version=\"1.0\"\n"}, {"scripts/preinst", "#!/bin/sh\n"}}), noname,
        PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ("/0", noname.name + "/" + std::to_string(noname.script_mask));
    EXPECT_TRUE(pm.queryPackageFileInfo(qar({{"INFO", qartest::BasicInfo("bare", "1")}}), info,
                                        PKG_INSTALLATION_NONE, "enu"));
    EXPECT_EQ("bare/0", info.name + "/" + std::to_string(info.script_mask));
}

TEST_F(ArchiveTest, WizardCandidatesLanguageLinksAndScripts) {
    const std::string steps =
        R"([{"items": [{"key": "k", "defaultValue": 7, "sub": [{"key": "n", "defaultValue": "x"}]}]}])";
    const std::string french = R"([{"items": [{"key": "k", "defaultValue": "fre"}]}])";
    const std::string info = qartest::BasicInfo("wiz", "1.0");
    const std::string wiz = qar({{"INFO", info},
                                 {"WIZARD_UIFILES/install_uifile", steps},
                                 {"WIZARD_UIFILES/install_uifile_fre", french}});
    EXPECT_EQ("fre", wizardValue(wiz, "k", "fre"));
    EXPECT_EQ("7", wizardValue(wiz, "k", "ger"));
    EXPECT_EQ("x", wizardValue(wiz, "n", "ger"));

    // A script wizard goes first; it writes its JSON into the message file.
    const std::string script =
        "#!/bin/sh\nprintf '%s' '[{\"items\": [{\"key\": \"k\", \"defaultValue\": \"script\"}]}]' "
        "> \"$ZARNPKG_TEMP_LOGFILE\"\n";
    EXPECT_EQ("script", wizardValue(qar({{"INFO", info},
                                         {"WIZARD_UIFILES/install_uifile.sh", script},
                                         {"WIZARD_UIFILES/install_uifile", steps}}),
                                    "k"))
        << logText();
    // A script of a file that writes nothing gives way to the static file beside it.
    EXPECT_EQ("7", wizardValue(qar({{"INFO", info},
                                    {"WIZARD_UIFILES/install_uifile.sh", "#!/bin/sh\nexit 0\n"},
                                    {"WIZARD_UIFILES/install_uifile", steps}}),
                               "k"));
    // An upgrade wizard script of a package that isn't installed gives no wizard.
    EXPECT_EQ("", wizardValue(qar({{"INFO", info}, {"WIZARD_UIFILES/upgrade_uifile.sh", script}}),
                              "k", "enu", PKG_INSTALLATION_UPGRADE));
    EXPECT_TRUE(logged("Previous wiz not installed, upgrade not possible"));

    // A language file that links to the plain one, as raw tar members.
    ASSERT_TRUE(ZARNFileWrite(
        "/tmp/wizlink.qar",
        qartest::RawTar({{"INFO", info},
                         {"WIZARD_UIFILES/install_uifile_fre", "", '2', "install_uifile"},
                         {"WIZARD_UIFILES/install_uifile", french}})));
    EXPECT_EQ("fre", wizardValue("/tmp/wizlink.qar", "k", "fre"));

    // A language file that isn't JSON at all gives way to the plain one; one nested too deep for
    // the reader neither ends the query nor stops the search.
    for (const std::string& bad : {std::string(R"([{"items": []}, )"), std::string(5000, '[')}) {
        const std::string file = qar({{"INFO", info},
                                      {"WIZARD_UIFILES/install_uifile_fre", bad},
                                      {"WIZARD_UIFILES/install_uifile", french}});
        EXPECT_NO_THROW(EXPECT_EQ("fre", wizardValue(file, "k", "fre")));
    }

    // Without a language argument the system's language is taken; without that either, only the
    // forms without a language are tried.
    ASSERT_TRUE(VLIBCFileSetKeyValue("/etc/zarninfo.conf", "language", "fre"));
    EXPECT_EQ("fre", wizardValue(wiz, "k", nullptr));
    removeKey("/etc/zarninfo.conf", "language");
    EXPECT_EQ("7", wizardValue(wiz, "k", nullptr));
    EXPECT_TRUE(logged("Failed to get value 'language' from '/etc/zarninfo.conf'"));
}

TEST_F(ArchiveTest, ReadUIFileContentRules) {
    const struct {
        std::string text;
        bool ok;
        const char* left;  // what the output holds afterwards; nullptr: not compared
    } cases[] = {
        {"{", false, nullptr},
        {"{\"a\": 1}", false, "object"},
        {"[{\"title\": \"x\"}]", false, "array"},
        {"[{\"items\": []}]", true, "array"},
        // Half a document leaves nothing behind, and nesting beyond the reader's limit is a
        // plain failure, not an exception.
        {"[{\"items\": []}, ", false, "null"},
        {std::string(5000, '['), false, "null"},
    };
    for (const auto& c : cases) {
        writeFile("/tmp/ui", c.text);
        Json::Value out("stale");
        EXPECT_NO_THROW(EXPECT_EQ(c.ok, PMReadUIFileContent("/tmp/ui", out)));
        const char* left = out.isNull()                    ? "null"
                           : out.isObject()                ? "object"
                           : out.isArray() && !out.empty() ? "array"
                                                           : "other";
        EXPECT_TRUE(c.left == nullptr || left == std::string(c.left)) << c.text.substr(0, 20);
    }
    EXPECT_TRUE(logged("Exceeded stackLimit"));
    Json::Value out;
    EXPECT_FALSE(PMReadUIFileContent("/tmp/missing", out));

    // From the registry of an installed package; a reader leaves the registry as it is: a script
    // installed without its execute bit stays so, and is then no wizard.
    const std::string writes =
        "#!/bin/sh\nprintf '%s' '[{\"items\": [{\"key\": \"r\", \"defaultValue\": \"reg\"}]}]' "
        "> \"$ZARNPKG_TEMP_LOGFILE\"\n";
    writeFile("/var/packages/reg/INFO", qartest::BasicInfo("reg", "1.0"));
    writeFile("/var/packages/reg/WIZARD_UIFILES/uninstall_uifile.sh", writes, 0755);
    writeFile("/var/packages/reg/WIZARD_UIFILES/upgrade_uifile.sh", writes, 0644);
    writeFile("/var/packages/plain/INFO", qartest::BasicInfo("plain", "1.0"));
    writeFile("/var/packages/plain/WIZARD_UIFILES/uninstall_uifile",
              R"([{"items": [{"key": "u", "defaultValue": "static"}]}])");
    PackageManager pm;
    PackageInfo info;
    info.name = "reg";
    EXPECT_TRUE(pm.readUIFile(PKG_INSTALLATION_UNINSTALL, "reg", info, "enu")) << logText();
    EXPECT_EQ(Json::Value("reg"), info.wizard[0]["items"][0]["defaultValue"]);
    PackageInfo plain;
    plain.name = "plain";
    EXPECT_TRUE(pm.readUIFile(PKG_INSTALLATION_UNINSTALL, "plain", plain, "enu"));
    EXPECT_EQ(Json::Value("static"), plain.wizard[0]["items"][0]["defaultValue"]);
    PackageInfo none;
    none.name = "reg";
    EXPECT_FALSE(pm.readUIFile(PKG_INSTALLATION_UPGRADE, "reg", none, "enu"));
    EXPECT_EQ(0644u, modeOf("/var/packages/reg/WIZARD_UIFILES/upgrade_uifile.sh"));
    EXPECT_TRUE(logged("Failed to run")) << logText();
    EXPECT_TRUE(pm.readUIFile(PKG_INSTALLATION_NONE, "reg", none, "enu"));
    EXPECT_FALSE(pm.readUIFile(std::string("a"), std::string("b"), none, "enu"));

    std::string path;
    EXPECT_FALSE(PMSGetImageTmpPath("", "b", nullptr, path));
    ASSERT_TRUE(PMSGetImageTmpPath("vendor", "pkg", "256", path));
    EXPECT_EQ("/var/cache/pkglist.tmp/icon/vendor/pkg/256", path);
    EXPECT_TRUE(ZARNIsDir(path));
}

}  // namespace
