#include <gtest/gtest.h>

#include "platform/files.h"
#include "platform/json.h"
#include "platform/process.h"
#include "support/cli_runner.h"
#include "support/temproot.h"

namespace {

class PackCheckE2ETest : public TempRootTest {
protected:
    CliRun zarnpkg(const std::vector<std::string>& args) { return RunZarnpkg(root(), args); }

    static Json::Value Parse(const std::string& text) {
        Json::Value v;
        EXPECT_TRUE(Json::fromString(v, text)) << text;
        return v;
    }
};

TEST_F(PackCheckE2ETest, PackCheckAndInfoOfTheExample) {
    const std::string qar = phys("/tmp/hello.qar");
    CliRun r = zarnpkg({"pack", ZARN_SOURCE_DIR "/examples/hello", "-o", qar});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(ZARNIsRegularFile("/tmp/hello.qar"));

    r = zarnpkg({"check", qar});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Hello")) << r.out;

    r = zarnpkg({"--json", "check", qar});
    EXPECT_EQ(0, r.status);
    Json::Value v = Parse(r.out);
    EXPECT_TRUE(v["success"].asBool());
    EXPECT_EQ(0, v["code"].asInt());
    EXPECT_EQ(Json::Value(Json::arrayValue), v["message"]);

    r = zarnpkg({"--json", "info", qar});
    ASSERT_EQ(0, r.status) << r.err;
    v = Parse(r.out);
    EXPECT_TRUE(v["success"].asBool());
    EXPECT_EQ("hello", v["package"]["package"].asString());
    EXPECT_EQ("1.0.0-0001", v["package"]["version"].asString());
    EXPECT_TRUE(v["package"]["extractsize"].isIntegral());
    EXPECT_GT(v["package"]["extractsize"].asInt64(), 0);
    EXPECT_EQ(32u, v["package"]["checksum"].asString().size());

    r = zarnpkg({"info", qar});
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("package: hello")) << r.out;
    // The temp folders are gone again.
    std::vector<ZARNDirEntry> left;
    ASSERT_TRUE(ZARNListDir("/volume1/@tmp", left));
    EXPECT_TRUE(left.empty());
}

TEST_F(PackCheckE2ETest, FailuresAndUsage) {
    writeFile("/tmp/junk.qar", "not an archive");
    CliRun r = zarnpkg({"--json", "check", phys("/tmp/junk.qar")});
    EXPECT_EQ(1, r.status);
    Json::Value v = Parse(r.out);
    EXPECT_FALSE(v["success"].asBool());
    EXPECT_EQ(0x96, v["code"].asInt());
    ASSERT_TRUE(v["message"].isArray());
    EXPECT_FALSE(v["message"].empty());

    r = zarnpkg({"check", phys("/tmp/junk.qar")});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.err.find("error: 0x96")) << r.err;

    r = zarnpkg({"--json", "info", phys("/tmp/junk.qar")});
    EXPECT_EQ(1, r.status);
    v = Parse(r.out);
    EXPECT_FALSE(v["success"].asBool());
    EXPECT_EQ(0x96, v["code"].asInt());
    EXPECT_EQ("pkgmgr:pkgmgr_file_not_package", v["message"][0].asString());

    writeFile("/tmp/src/INFO", "version=\"1\"\n");
    writeFile("/tmp/src/package/f", "x");
    r = zarnpkg({"pack", phys("/tmp/src"), "-o", phys("/tmp/out.qar")});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("\"package\"")) << r.err;
    EXPECT_FALSE(ZARNPathExists("/tmp/out.qar"));

    EXPECT_EQ(2, zarnpkg({"pack", phys("/tmp/src")}).status);
    EXPECT_EQ(2, zarnpkg({"check"}).status);
    EXPECT_EQ(2, zarnpkg({"check", "a", "b"}).status);
}

}  // namespace
