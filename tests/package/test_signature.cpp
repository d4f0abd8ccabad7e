#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/errcode.h"
#include "core/packagemanager.h"
#include "core/paths.h"
#include "package/signature.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/programs.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

class SignatureTest : public TempRootTest {
protected:
    void setLevel(const std::string& level) {
        ASSERT_TRUE(VLIBCFileSetKeyValue(PMS_INFO_CONF, PMS_TRUST_LEVEL_KEY, level));
    }
    // A stand-in for the signing tool: records its arguments and exits with the code that the
    // test puts in a file beside it.
    std::vector<std::string> fakeTool() {
        writeFile("/usr/zarn/bin/fake-codesign",
                  "#!/bin/sh\n"
                  "printf '%s\\n' \"$@\" > \"$(dirname \"$0\")/args\"\n"
                  "exit \"$(cat \"$(dirname \"$0\")/exit-code\")\"\n",
                  0755);
        return {phys("/usr/zarn/bin/fake-codesign"), "--verify", phys("/tmp/demo.qar")};
    }
    void setExit(int code) { writeFile("/usr/zarn/bin/exit-code", std::to_string(code)); }
};

TEST_F(SignatureTest, ExitCodesAtEachTrustLevel) {
    const std::vector<std::string> argv = fakeTool();
    struct Row {
        int exit;
        int level0;
        int level1;
    };
    const Row rows[] = {
        {0, PKG_ERR_SIGN_OK, PKG_ERR_SIGN_OK},
        {1, PKG_ERR_SIGN_NOT_MAKER, PKG_ERR_SIGN_OK},
        {2, PKG_ERR_SIGN_UNKNOWN_PUBLISHER, PKG_ERR_SIGN_UNKNOWN_PUBLISHER},
        {3, PKG_ERR_SIGN_NONE, PKG_ERR_SIGN_NONE},
        {4, PKG_ERR_SIGN_EXPIRED, PKG_ERR_SIGN_EXPIRED},
        {5, PKG_ERR_SIGN_BROKEN, PKG_ERR_SIGN_BROKEN},
        {6, PKG_ERR_SIGN_CHECK, PKG_ERR_SIGN_CHECK},
        {255, PKG_ERR_SIGN_CHECK, PKG_ERR_SIGN_CHECK},
    };
    for (const Row& row : rows) {
        setExit(row.exit);
        EXPECT_EQ(PMSRunSignatureTool(argv, 0), row.level0) << "exit " << row.exit;
        EXPECT_EQ(PMSRunSignatureTool(argv, 1), row.level1) << "exit " << row.exit;
        // Other levels than 0 weigh a known publisher as level 1 does.
        EXPECT_EQ(PMSRunSignatureTool(argv, 7), row.level1) << "exit " << row.exit;
    }
    EXPECT_EQ(readFile("/usr/zarn/bin/args"), "--verify\n" + phys("/tmp/demo.qar") + "\n");

    // A tool that can't run, or dies by a signal, is a failed check.
    EXPECT_EQ(PMSRunSignatureTool({phys("/usr/zarn/bin/missing-tool")}, 1), PKG_ERR_SIGN_CHECK);
    writeFile("/usr/zarn/bin/killed", "#!/bin/sh\nkill -9 $$\n", 0755);
    EXPECT_EQ(PMSRunSignatureTool({phys("/usr/zarn/bin/killed")}, 0), PKG_ERR_SIGN_CHECK);
    EXPECT_EQ(PMSRunSignatureTool({}, 0), PKG_ERR_SIGN_CHECK);
    EXPECT_TRUE(logged("Failed to verify signature by"));
}

TEST_F(SignatureTest, ToolCommandLine) {
    std::vector<std::string> argv = {"stale"};
    // Without the tool there is no command to run.
    EXPECT_FALSE(PMSSignatureToolArgv("/volume1/pkgs/demo.qar", argv));
    EXPECT_TRUE(argv.empty());
    EXPECT_TRUE(logged("Failed to find the signature tool /usr/zarn/bin/codesign.php"));

    writeFile("/usr/zarn/bin/codesign.php", "<?php exit(0);\n");
    ASSERT_TRUE(PMSSignatureToolArgv("/volume1/pkgs/demo.qar", argv));
    EXPECT_EQ(argv,
              (std::vector<std::string>{ZARNMachineProgram("/usr/bin/php"), "-dopen_basedir=/",
                                        phys("/usr/zarn/bin/codesign.php"), "--verify",
                                        phys("/volume1/pkgs/demo.qar")}));

    // A relative name is made absolute from the working folder.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_TRUE(PMSSignatureToolArgv("sub/demo.qar", argv));
    EXPECT_EQ(argv[4], std::string(cwd) + "/sub/demo.qar");
    EXPECT_FALSE(PMSSignatureToolArgv(nullptr, argv));
}

TEST_F(SignatureTest, TrustLevelIsADecimalNumber) {
    struct Row {
        const char* text;
        int level;
    };
    const Row rows[] = {
        {"0", 0}, {"00", 0},  {"1", 1},  {"2", 2},  {"002", 2}, {"", 1},
        {"3", 1}, {"20", 1},  {"-0", 1}, {"2x", 1}, {" 0 ", 0}, {"\t2", 2},
        {" ", 1}, {"0 1", 1}, {"x", 1},  {"-2", 1}, {"1e0", 1}, {"99999999999999999999", 1}};
    for (const Row& row : rows) {
        EXPECT_EQ(PMSParseTrustLevel(row.text), row.level) << "\"" << row.text << "\"";
    }
}

// Levels 2 and up accept anything, even a file that isn't there. The root has no codesign.php:
// whatever the machine's interpreter would answer for a missing script, the check fails at the
// levels that ask the tool. The setting is read again at each call.
TEST_F(SignatureTest, TrustLevelDecidesWhetherTheToolRuns) {
    PackageManager pm;
    EXPECT_EQ(pm.verifyPackageSignature(nullptr), PKG_ERR_SIGN_CHECK);
    writeFile("/tmp/demo.qar", "not signed");
    // Parsed as the setting is parsed: "2x" is no 2.
    for (const char* level : {"2", "2x", "0", "1"}) {
        setLevel(level);
        const bool any = level == std::string("2");
        EXPECT_EQ(pm.verifyPackageSignature(any ? "/tmp/none.qar" : "/tmp/demo.qar"),
                  any ? PKG_ERR_SIGN_OK : PKG_ERR_SIGN_CHECK)
            << level;
    }
    // The setting can't be read at all.
    ASSERT_TRUE(ZARNUnlink(PMS_INFO_CONF));
    EXPECT_EQ(pm.verifyPackageSignature("/tmp/demo.qar"), PKG_ERR_SIGN_CHECK);
    EXPECT_TRUE(logged("Failed to get: pkg_source_trust_level"));
}
