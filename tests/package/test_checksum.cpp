#include <gtest/gtest.h>

#include <string>

#include "package/checksum.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

class ChecksumTest : public TempRootTest {};

TEST_F(ChecksumTest, ComparesWithOpenssl) {
    const std::string abc = "900150983cd24fb0d6963f7d28e17f72";
    const std::string shortened = abc.substr(0, 31);
    writeFile("/tmp/package.tgz", "abc");
    // A name that holds "= " does not confuse the reading of the digest.
    writeFile("/tmp/a= b.tgz", "abc");
    const struct {
        const char* file;
        const char* md5;
        bool same;
    } cases[] = {
        {"/tmp/package.tgz", abc.c_str(), true},
        {"/tmp/a= b.tgz", abc.c_str(), true},
        // Case matters: the key must hold lower case.
        {"/tmp/package.tgz", "900150983CD24FB0D6963F7D28E17F72", false},
        {"/tmp/package.tgz", "900150983cd24fb0d6963f7d28e17f73", false},
        {"/tmp/package.tgz", shortened.c_str(), false},
        {"/tmp/package.tgz", "", false},
        {"/tmp/package.tgz", nullptr, false},
        {nullptr, abc.c_str(), false},
        {"/tmp/none.tgz", abc.c_str(), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.same, PMSCompareCheckSum(c.file, c.md5))
            << (c.file ? c.file : "null") << " " << (c.md5 ? c.md5 : "null");
    }
    // A file that openssl can't read gives no digest line.
    writeFile("/tmp/dir.tgz/x", "");
    EXPECT_FALSE(PMSCompareCheckSum("/tmp/dir.tgz", abc.c_str()));
    EXPECT_TRUE(logged("md5 failed, path=/tmp/dir.tgz"));
}
