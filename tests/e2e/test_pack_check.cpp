#include <gtest/gtest.h>

#include "platform/files.h"
#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

class PackCheckE2ETest : public TempRootTest {
protected:
    CliRun zarnpkg(const std::vector<std::string>& args) { return RunZarnpkg(root(), args); }
};

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
