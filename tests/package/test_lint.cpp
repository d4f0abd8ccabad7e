#include <gtest/gtest.h>

#include "package/lint.h"
#include "package/pack.h"
#include "platform/files.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

TEST(LintVersionTest, VersionForms) {
    struct Case {
        const char* text;
        bool package;
        bool os;
    };
    for (const Case& c :
         {Case{"1", true, true}, Case{"6.2", true, true}, Case{"1.2.3-0045", true, false},
          Case{"6.2-25556", true, true}, Case{"6.2-25556-3", false, true},
          Case{"6-25556", true, false}, Case{"banana split", false, false},
          Case{"six", false, false}, Case{"1.0a", false, false}, Case{"1..2", false, false},
          Case{"1.2-", false, false}, Case{"-1", false, false}, Case{"", false, false}}) {
        EXPECT_EQ(c.package, PMSIsPackageVersion(c.text)) << c.text;
        EXPECT_EQ(c.os, PMSIsOSVersionBound(c.text)) << c.text;
    }
}

class LintTest : public TempRootTest {
protected:
    struct File {
        std::string path;  // in the source folder
        std::string text;
        mode_t mode;
    };

    // A source folder: a small valid package with the files of `extra` added or replaced, and
    // beside its payload folder the payload packed as pack would pack it.
    std::string source(const std::vector<std::pair<std::string, std::string>>& keys,
                       const std::vector<File>& extra) {
        const std::string dir = "/tmp/src" + std::to_string(++count_);
        writeFile(dir + "/INFO", qartest::InfoText(keys));
        writeFile(dir + "/package/bin/tool", "#!/bin/sh\n", 0755);
        writeFile(dir + "/scripts/start-stop-status", "#!/bin/sh\n", 0755);
        for (const auto& f : extra) {
            writeFile(dir + "/" + f.path, f.text);
            // the mode of the file as given, set-ID bits included, whatever the umask
            EXPECT_TRUE(ZARNChmod(dir + "/" + f.path, f.mode));
        }
        EXPECT_EQ(0, qartest::Run({"/bin/tar", "czf", phys(dir + "/package.tgz"), "-C",
                                   phys(dir + "/package"), "bin"}));
        return dir;
    }

    // The QAR of a source folder without any of pack's own checks.
    std::string rawQar(const std::string& dir) {
        std::vector<std::string> argv = {"/bin/tar", "cf",   phys(dir + ".qar"), "-C",
                                         phys(dir),  "INFO", "package.tgz"};
        for (const char* optional : {"conf", "scripts", "WIZARD_UIFILES"}) {
            if (ZARNPathExists(dir + "/" + optional)) {
                argv.push_back(optional);
            }
        }
        EXPECT_EQ(0, qartest::Run(argv));
        return dir + ".qar";
    }

    static std::vector<std::pair<std::string, std::string>> Keys(const std::string& name,
                                                                 const std::string& version,
                                                                 const std::string& osMin = "") {
        std::vector<std::pair<std::string, std::string>> keys = {
            {"package", name},    {"version", version}, {"maintainer", "m"},
            {"description", "d"}, {"arch", "noarch"},
        };
        if (!osMin.empty()) {
            keys.emplace_back("os_min_ver", osMin);
        }
        return keys;
    }

    int count_ = 0;
};

// A script name the system never runs is the CLI tests' warning.
TEST_F(LintTest, PackRefusesWhatCantBeInstalledAndWarnsOfTheRest) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> keys;
        std::vector<File> extra;
        std::string finding;  // "error: ..." when pack refuses, "warning: ..." for the one warning
    };
    const std::vector<Case> cases = {
        {Keys("ok", "1.0-0001", "6.2"), {{"WIZARD_UIFILES/install_uifile.sh", "echo {", 0755}}, ""},
        {Keys("bad", "banana split"), {}, "error: INFO: key \"version\" (\"banana split\")"},
        {Keys("bad", "1.0", "six"), {}, "error: INFO: key \"os_min_ver\" (\"six\")"},
        {Keys("bad", "1.0"),
         {{"conf/privilege", "{\"defaults\":", 0644}},
         "error: conf/privilege is no valid JSON"},
        {Keys("bad", "1.0"),
         {{"conf/resource", "", 0644}},
         "error: conf/resource is no valid JSON"},
        {Keys("bad", "1.0"),
         {{"WIZARD_UIFILES/install_uifile_enu", "[{", 0644}},
         "error: WIZARD_UIFILES/install_uifile_enu is no valid JSON"},
        {Keys("noexec", "1.0"),
         {{"scripts/postinst", "#!/bin/sh\n", 0644}},
         "warning: scripts/postinst is not executable"},
        {Keys("suid", "1.0"),
         {{"package/bin/su", "x", 04755}},
         "warning: package.tgz: bin/su has the set-user-ID bit"},
        {Keys("sgid", "1.0"),
         {{"package/bin/sg", "x", 02755}},
         "warning: package.tgz: bin/sg has the set-group-ID bit"},
        {Keys("a$b", "1.0"), {}, "warning: INFO: the package name \"a$b\" holds $, which"},
        {Keys("q\"u'o`t\\e", "1.0"),
         {},
         "warning: INFO: the package name \"q\"u'o`t\\e\" holds \", ', `, \\, which"},
        {Keys("esc\x1b[2J", "1.0"),
         {},
         "warning: INFO: the package name \"esc\\x1b[2J\" holds control characters"},
    };
    for (const auto& c : cases) {
        const std::string dir = source(c.keys, c.extra);
        const bool refused = c.finding.rfind("error: ", 0) == 0;
        const std::string out = "/tmp/out" + std::to_string(count_) + ".qar";
        std::string error;
        std::vector<std::string> warnings;
        const bool packed = PMSPackPackage(dir, out, error, &warnings);
        EXPECT_EQ(packed, ZARNPathExists(out));
        // What pack found, on one line.
        std::string found = packed ? "" : "error: " + error;
        for (const auto& w : warnings) {
            found += "warning: " + w;
        }
        EXPECT_EQ(!refused, packed) << found;
        EXPECT_EQ(refused || c.finding.empty() ? 0u : 1u, warnings.size()) << found;
        EXPECT_NE(std::string::npos, found.find(c.finding)) << found;
        // The file check's companion finds the same in a file packed without these checks.
        PMSLintReport report;
        ASSERT_TRUE(PMSLintPackageFile(rawQar(dir), report)) << dir;
        EXPECT_EQ(warnings, report.warnings) << dir;
        ASSERT_EQ(refused ? 1u : 0u, report.errors.size()) << dir;
        EXPECT_TRUE(!refused || ("error: " + report.errors[0]).find(c.finding) == 0)
            << report.errors[0];
    }
}

TEST_F(LintTest, ContentsListTheScriptsAndConfFiles) {
    const std::string dir = source(Keys("c", "1.0"), {{"conf/privilege", "{}", 0644},
                                                      {"conf/PKG_DEPS", "", 0644},
                                                      {"scripts/postinst", "#!/bin/sh\n", 0755}});
    std::vector<std::string> scripts, conf;
    ASSERT_TRUE(PMSPackageFileContents(rawQar(dir), scripts, conf));
    EXPECT_EQ((std::vector<std::string>{"postinst", "start-stop-status"}), scripts);
    EXPECT_EQ((std::vector<std::string>{"PKG_DEPS", "privilege"}), conf);
    writeFile("/tmp/junk.qar", "junk");
    EXPECT_FALSE(PMSPackageFileContents("/tmp/junk.qar", scripts, conf));
}

}  // namespace
