#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "platform/csp_rule.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/servicecfg.h"
#include "resource/resource.h"
#include "resource/workers/service_cfg.h"
#include "support/resource_fixture.h"

using namespace ZARNPackageTool;
using namespace ZARNPackageTool::Resource;
using ZARN::PkgUtils::WorkerResp;

namespace {

constexpr const char* kJob = "start on runlevel\npost-stop script\n\ttrue\nend script\n";

// Jobs are validated by the built zarn-initctl, so the root's tools lead to the build.
class ServiceCspWorkersTest : public ResourceTest {
protected:
    void SetUp() override {
        setenv("ZARNPKG_TOOLS_DIR", ZARN_BINARY_DIR, 1);
        ResourceTest::SetUp();
    }
    void TearDown() override {
        ResourceTest::TearDown();
        unsetenv("ZARNPKG_TOOLS_DIR");
    }
    // Acquire at the low moments, Release at the high ones, in a forked child as always.
    bool call(TIMING timing) {
        WorkerResp resp;
        return timing < TIMING_PREUNINST
                   ? Acquire(timing, info_, PKG_INSTALLATION_INSTALL, resp, nullptr, "")
                   : Release(timing, info_, PKG_INSTALLATION_UNINSTALL, resp, nullptr, "");
    }
    static bool exist(const std::vector<std::string>& paths, bool expected) {
        for (const std::string& path : paths) {
            EXPECT_EQ(expected, ZARNPathExists(path)) << path;
        }
        return !::testing::Test::HasFailure();
    }
    const std::vector<std::string> files_ = {"/etc/init/pkg-a.conf", "/etc/init/pkgctl-pkga.conf",
                                             ZARNServicecfgPath("pkgctl-pkga")};
};

TEST_F(ServiceCspWorkersTest, ServiceCfgInstallsJobsRestoresAndReleases) {
    writeFile(confPath("upstart/pkg-a.conf"), kJob);
    request(Json::Value(Json::objectValue));
    ASSERT_TRUE(InitRequiredFields(kPkg, ""));
    ASSERT_TRUE(call(TIMING_POSTINST)) << logText();
    ASSERT_TRUE(exist(files_, true));
    EXPECT_EQ("[\"pkg-a\"]", Json::toCompactString(own()["service-cfg"]["jobs"]));

    ASSERT_TRUE(call(TIMING_PREUNINST));
    EXPECT_TRUE(exist(files_, false));
    EXPECT_FALSE(own()["service-cfg"].isMember("jobs"));

    // Restore works without a service-cfg request, even without conf/resource, and leaves files
    // that stand; a resource file it can't read fails it.
    writeFile(confPath("resource"), "{broken");
    EXPECT_FALSE(RestoreServiceCfg(kPkg));
    request(Json::Value(Json::objectValue));
    ASSERT_TRUE(RestoreServiceCfg(kPkg)) << logText();
    ASSERT_TRUE(ZARNUnlink(confPath("resource")));
    writeFile(ZARNServicecfgPath("pkgctl-pkga"), "{}");
    ASSERT_TRUE(RestoreServiceCfg(kPkg)) << logText();
    EXPECT_TRUE(exist(files_, true));
    EXPECT_EQ("{}", readFile(ZARNServicecfgPath("pkgctl-pkga")));
    EXPECT_EQ("[\"pkg-a\"]", Json::toCompactString(own()["service-cfg"]["jobs"]));
    EXPECT_EQ(FailedWith(RestoreServiceCfg("")), 0x0d00);
}

// After registration a failing service-cfg fails the call, but the workers after it still run.
TEST_F(ServiceCspWorkersTest, ServiceCfgFailureAtPostinstLeavesNoJobAndOthersRun) {
    writeFile(confPath("upstart/pkg-a.conf"), kJob);
    writeFile(confPath("upstart/pkg-b.conf"), "pre-start script\n\ttrue\n");
    declare("p1", {decl("x", "0x0012")});
    Json::Value resource(Json::objectValue);
    resource["service-cfg"] = Json::Value(Json::objectValue);
    resource["x"] = worker("x");
    request(resource);
    EXPECT_FALSE(call(TIMING_POSTINST));
    EXPECT_TRUE(exist(files_, false));
    EXPECT_EQ("acquire x 1\n", record());
}

TEST_F(ServiceCspWorkersTest, CspRuleSavesDeletesAndIsRolledBack) {
    const std::string rules = ZARN::KOS::CspRule::PathOf(kPkg);
    writeFile("/volume1/@appstore/pkga/ui/csp.json", "{\"script-src\": [\"'self'\"]}");
    writeFile("/volume1/@appstore/pkga/ui/bad.json", "{\"script-src\": ");
    writeFile("/volume1/@appstore/pkga/ui/num.json", "3");
    Json::Value resource(Json::objectValue);
    resource["csp-rule"]["conf"] = "ui/csp.json";
    request(resource);
    ASSERT_TRUE(call(TIMING_STARTUP)) << logText();
    Json::Value saved;
    ASSERT_TRUE(Json::fromFile(saved, rules));
    EXPECT_EQ("{\"script-src\":[\"'self'\"]}", Json::toCompactString(saved));
    ASSERT_TRUE(call(TIMING_HALT));
    EXPECT_FALSE(ZARNPathExists(rules));

    // A plug-in failing after it takes the rules away again.
    declare("p1", {decl("x", "0x0088")});
    resource["x"] = worker("x", "acquire", "fail");
    request(resource);
    EXPECT_FALSE(call(TIMING_STARTUP));
    EXPECT_FALSE(ZARNPathExists(rules));
    EXPECT_TRUE(logged("Rollback csp-rule for pkga"));

    const struct {
        const char* conf;
        const char* line;
    } bad[] = {
        {"", "no config real path defined"},
        {"ui/none.json", "config file /var/packages/pkga/target/ui/none.json not exist"},
        {"ui/bad.json", "config file /var/packages/pkga/target/ui/bad.json json format error"},
        {"ui/num.json", "Failed to save the rules of pkga [0x0D00"},
    };
    for (const auto& c : bad) {
        resource = Json::Value(Json::objectValue);
        resource["csp-rule"]["conf"] = c.conf;
        request(resource);
        EXPECT_FALSE(call(TIMING_STARTUP)) << c.conf;
        EXPECT_TRUE(logged(c.line)) << c.conf;
        EXPECT_FALSE(ZARNPathExists(rules));
    }
}

}  // namespace
