#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cctype>
#include <cstdio>
#include <string>

#include "package/checksum.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

std::string Md5Hex(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest, &len, EVP_md5(), nullptr), 1);
    std::string hex;
    char byte[3];
    for (unsigned int i = 0; i < len; ++i) {
        snprintf(byte, sizeof(byte), "%02x", digest[i]);
        hex += byte;
    }
    return hex;
}

}  // namespace

class ChecksumTest : public TempRootTest {};

TEST_F(ChecksumTest, ComparesWithOpenssl) {
    std::string payload;
    for (int i = 0; i < 100000; ++i) {
        payload.push_back(static_cast<char>(i * 7));
    }
    writeFile("/tmp/package.tgz", payload);
    const std::string md5 = Md5Hex(payload);
    EXPECT_TRUE(PMSCompareCheckSum("/tmp/package.tgz", md5.c_str()));

    // Case matters: the key must hold lower case.
    std::string upper = md5;
    for (char& c : upper) {
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    ASSERT_NE(upper, md5);
    EXPECT_FALSE(PMSCompareCheckSum("/tmp/package.tgz", upper.c_str()));
    EXPECT_FALSE(PMSCompareCheckSum("/tmp/package.tgz", Md5Hex(payload + "x").c_str()));
    EXPECT_FALSE(PMSCompareCheckSum("/tmp/package.tgz", ""));

    // A name that holds "= " does not confuse the reading of the digest.
    writeFile("/tmp/a= b.tgz", "");
    EXPECT_TRUE(PMSCompareCheckSum("/tmp/a= b.tgz", Md5Hex("").c_str()));

    EXPECT_FALSE(PMSCompareCheckSum(nullptr, md5.c_str()));
    EXPECT_FALSE(PMSCompareCheckSum("/tmp/package.tgz", nullptr));
    EXPECT_FALSE(PMSCompareCheckSum("/tmp/none.tgz", md5.c_str()));

    // A file that openssl can't read gives no digest line.
    writeFile("/tmp/dir.tgz/x", "");
    EXPECT_FALSE(PMSCompareCheckSum("/tmp/dir.tgz", md5.c_str()));
    EXPECT_TRUE(logged("md5 failed, path=/tmp/dir.tgz"));
}
