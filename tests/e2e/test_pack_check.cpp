#include <gtest/gtest.h>

#include "platform/files.h"
#include "platform/json.h"
#include "platform/process.h"
#include "support/cli_runner.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

class PackCheckE2ETest : public TempRootTest {
protected:
    CliRun zarnpkg(const std::vector<std::string>& args) { return RunZarnpkg(root(), args); }
};

TEST_F(PackCheckE2ETest, PackCheckAndInfoOfTheExample) {
    const std::string qar = phys("/tmp/hello.qar");
    CliRun r = zarnpkg({"pack", ZARN_SOURCE_DIR "/examples/hello", "-o", qar});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(ZARNIsRegularFile("/tmp/hello.qar"));

    r = zarnpkg({"check", qar});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("Hello")) << r.out;

    r = zarnpkg({"--json", "info", qar});
    ASSERT_EQ(0, r.status) << r.err;
    Json::Value v = ParseJson(r.out);
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

// The example packages pack and check without a warning; the one that needs heartbeat checks
// once heartbeat runs.
TEST_F(PackCheckE2ETest, ExamplesPackAndCheckWithoutWarnings) {
    addPackage("heartbeat");
    addControlScript("heartbeat", 0);
    markRunning("heartbeat");
    for (const std::string name : {"greeter", "wizard-demo"}) {
        const std::string qar = phys("/tmp/" + name + ".qar");
        CliRun r = zarnpkg({"pack", ZARN_SOURCE_DIR "/examples/" + name, "-o", qar});
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_EQ(std::string::npos, r.err.find("warning")) << r.err;
        r = zarnpkg({"--json", "check", qar});
        EXPECT_EQ(0, r.status) << name << r.out << r.err;
        const Json::Value v = ParseJson(r.out);
        EXPECT_TRUE(v["warnings"].isArray() && v["warnings"].empty()) << name << r.out;
    }
}

// A payload that would unpack to a FIFO is damage to the check, whatever else it finds.
TEST_F(PackCheckE2ETest, HostilePayloadIsDamage) {
    const std::string tgz =
        qartest::Gzip(qartest::RawTar({{"bin/run", "x"}, {"bin/pipe", "", '6'}}));
    writeFile("/tmp/payload.tgz", tgz);
    writeFile("/tmp/evil.qar",
              qartest::RawTar(
                  {{"INFO", qartest::BasicInfo("evil", "1.0",
                                               {{"checksum", qartest::Md5("/tmp/payload.tgz")}})},
                   {"package.tgz", tgz}}));
    const CliRun r = zarnpkg({"--json", "check", phys("/tmp/evil.qar")});
    EXPECT_EQ(1, r.status);
    const Json::Value v = ParseJson(r.out);
    EXPECT_EQ(0x105, v["code"].asInt()) << r.out;
    EXPECT_NE(std::string::npos, v["params"]["refused"].asString().find("FIFO bin/pipe")) << r.out;
}

}  // namespace
