#include <gtest/gtest.h>

#include <string>

#include "pkgutils/worker.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "resource/resource.h"
#include "resource/state_files.h"
#include "support/resource_fixture.h"

using namespace ZARNPackageTool;
using ZARN::PkgUtils::WorkerResp;

namespace {

class ResourceCallTest : public ResourceTest {
protected:
    void SetUp() override {
        ResourceTest::SetUp();
        declare("prov", {decl("t-a"), decl("t-b"), decl("t-c")});
    }
    // Three plug-in workers in declaration order; `failing` behaves as told at `call`.
    void threeWorkers(const std::string& failing, const std::string& call, const std::string& how) {
        Json::Value resource(Json::objectValue);
        for (const char* tag : {"a", "b", "c"}) {
            resource[std::string("t-") + tag] =
                tag == failing ? worker(tag, call, how) : worker(tag);
        }
        request(resource);
    }
    bool acquire(Resource::TIMING timing, WorkerResp& resp, const Json::Value* vars = nullptr) {
        return Resource::Acquire(timing, info_, PKG_INSTALLATION_INSTALL, resp, vars, "");
    }
};

TEST_F(ResourceCallTest, AcquireRunsInOrderAndRollsBackOnlyBeforeRegistration) {
    struct Case {
        Resource::TIMING timing;
        const char* how;
        bool result;
        const char* record;
    };
    const Case cases[] = {
        // At "preinst" the failing worker and those before it are rolled back, last first.
        {Resource::TIMING_PREINST, "fail", false,
         "acquire a 1\nacquire b 1\nrollback b 1\nrollback a 1\n"},
        // At "postinst" nothing is rolled back and the others still run.
        {Resource::TIMING_POSTINST, "fail", false, "acquire a 1\nacquire b 1\nacquire c 1\n"},
        // Only 1 is a failure.
        {Resource::TIMING_PREINST, "two", true, "acquire a 1\nacquire b 1\nacquire c 1\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.how) + " at " + std::to_string(c.timing));
        ZARNRemoveTree(confPath("resource.own"));
        ZARNRemoveTree("/record");
        threeWorkers("b", "acquire", c.how);
        WorkerResp resp;
        EXPECT_EQ(c.result, acquire(c.timing, resp));
        EXPECT_EQ(c.record, record());
        // The own file is written after a rollback too.
        const Json::Value o = own();
        EXPECT_EQ("b", o["t-b"]["acquired"].asString());
        EXPECT_EQ(c.timing == Resource::TIMING_PREINST && !c.result,
                  o["t-a"]["rolled-back"].asBool());
        EXPECT_EQ(c.record == cases[0].record, !o.isMember("t-c"));
        const Json::Value msgs = resp.GetErrJsonArray();
        ASSERT_EQ(c.result ? 0u : 1u, msgs.size());
        if (!c.result) {
            EXPECT_EQ("test:worker_failed", msgs[0]["key"].asString());
            EXPECT_EQ("acquire b", msgs[0]["params"].asString());
        }
    }
}

TEST_F(ResourceCallTest, CrashingWorkerFailsTheCallWithoutOwnFile) {
    threeWorkers("b", "acquire", "crash");
    WorkerResp resp;
    EXPECT_FALSE(acquire(Resource::TIMING_PREINST, resp));
    EXPECT_EQ("acquire a 1\nacquire b 1\n", record());
    EXPECT_FALSE(ZARNPathExists(confPath("resource.own")));
}

TEST_F(ResourceCallTest, ActionInfoAndVariablesReachTheWorker) {
    writeFile("/var/packages/pkga/conf/privilege", "{\"username\": \"pkguser\"}");
    Json::Value resource(Json::objectValue);
    resource["t-a"] = worker("{{tag}}");
    resource["t-a"]["gone"] = "{{missing}}";
    resource["t-a"]["flag"] = "{{on}}";
    resource["t-b"] = Json::Value(Json::arrayValue);  // not an object: passed over
    request(resource);
    Json::Value vars(Json::objectValue);
    vars["tag"] = "x";
    vars["on"] = true;
    WorkerResp resp;
    ASSERT_TRUE(acquire(Resource::TIMING_PREINST, resp, &vars));
    EXPECT_EQ("acquire x 1\n", record());
    const Json::Value a = own()["t-a"];
    EXPECT_EQ("pkguser /var/packages/pkga/target",
              a["user"].asString() + " " + a["root"].asString());
    EXPECT_FALSE(a["request"].isMember("gone"));
    EXPECT_TRUE(a["request"]["flag"].isBool());
    EXPECT_FALSE(own().isMember("t-b"));
}

TEST_F(ResourceCallTest, ReleaseRunsBackwardOnlyWorkersWithOwnKeyAndIgnoresFailures) {
    threeWorkers("a", "release", "fail");
    Json::Value o(Json::objectValue);
    o["t-a"] = Json::Value(Json::objectValue);
    o["t-c"] = Json::Value(Json::objectValue);
    writeJson(confPath("resource.own"), o);
    WorkerResp resp;
    EXPECT_TRUE(Resource::Release(Resource::TIMING_PREUNINST, info_, PKG_INSTALLATION_UNINSTALL,
                                  resp, nullptr, ""));
    EXPECT_EQ("release c 4\nrelease a 4\n", record());
    EXPECT_TRUE(own()["t-c"]["released"].asBool());
    // Without an own file nothing was acquired, and nothing runs.
    ZARNRemoveTree(confPath("resource.own"));
    ZARNRemoveTree("/record");
    EXPECT_TRUE(Resource::Release(Resource::TIMING_PREUNINST, info_, PKG_INSTALLATION_UNINSTALL,
                                  resp, nullptr, ""));
    EXPECT_EQ("", record());
}

TEST_F(ResourceCallTest, UpdateHasTheOppositeSenseAndPassesHelperArgs) {
    Json::Value args(Json::objectValue);
    args["port"] = 8080;
    for (int result : {1, 0}) {
        Json::Value resource(Json::objectValue);
        resource["t-a"] = worker("a");
        resource["t-a"]["update"] = result;
        request(resource);
        ZARNRemoveTree(confPath("resource.own"));
        WorkerResp resp;
        EXPECT_EQ(result != 0, Resource::Update(info_, "t-a", args, resp)) << result;
        // A failed update keeps no state.
        EXPECT_EQ(result != 0 ? 8080 : 0, own()["t-a"]["helper-args"]["port"].asInt());
    }
    // A worker that keeps the base class's answer is refused.
    WorkerResp resp;
    EXPECT_EQ(FailedWith(Resource::Update(info_, "usr-local-linker", args, resp)), 0xd900);
}

TEST_F(ResourceCallTest, BadFilesAreFailedOrIgnoredWithoutCrash) {
    struct Case {
        const char* name;
        std::string resource;
        std::string own;
        bool result;
        const char* log;
    };
    const Case cases[] = {
        {"resource not JSON", "{oops", "", false, "Failed to read"},
        {"resource an array", "[1]", "", false, "is not an object"},
        {"deep nesting", std::string(10 << 20, '['), "", false, "Failed to read"},
        {"own not JSON", "{\"t-a\": {\"tag\": \"a\"}}", "nope", true,
         "Failed to read jown, ignore the content"},
        {"own an array", "{\"t-a\": {\"tag\": \"a\"}}", "[]", true,
         "Failed to load jown which is not an object"},
        {"braces in a value", "{\"t-a\": {\"tag\": \"a\", \"x\": \"{{ {{\"}}", "", true, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(confPath("resource"), c.resource);
        ZARNRemoveTree(confPath("resource.own"));
        if (!c.own.empty()) {
            writeFile(confPath("resource.own"), c.own);
        }
        WorkerResp resp;
        EXPECT_EQ(c.result, Resource::Acquire(Resource::TIMING_PREINST, info_,
                                              PKG_INSTALLATION_INSTALL, resp, nullptr, ""));
        EXPECT_TRUE(logged(c.log));
        EXPECT_EQ(c.result, own()["t-a"]["acquired"].asString() == "a");
    }
}

// A package without conf/resource gets one too: the install road starts such a package.
TEST_F(ResourceCallTest, InitRequiredFieldsAddsServiceCfgOnce) {
    request(worker("a"));
    ASSERT_TRUE(Resource::InitRequiredFields(kPkg, ""));
    EXPECT_NE(std::string::npos, readFile(confPath("resource")).find("service-cfg"));
    EXPECT_NE(std::string::npos, readFile(confPath("resource")).find("\"tag\""));
}

}  // namespace
