#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/json.h"
#include "platform/process.h"
#include "platform/services.h"
#include "support/cli_runner.h"
#include "support/temproot.h"

namespace {

class StatusCli : public TempRootTest {
protected:
    int zarnpkg(const std::vector<std::string>& args, std::string& out, std::string& err) {
        CliRun r = RunZarnpkg(root(), args);
        out = r.out;
        err = r.err;
        return r.status;
    }
    void addPackage(const std::string& name, const std::string& script) {
        TempRootTest::addPackage(name, "version=\"4.2\"\n");
        if (!script.empty()) {
            writeFile("/var/packages/" + name + "/scripts/start-stop-status", script, 0755);
        }
    }
};

TEST_F(StatusCli, StatusOfLaidOutPackages) {
    addPackage("runner",
               "#!/bin/sh\ncase \"$1\" in status) exit 0;; log) echo \"log of $ZARNPKG_PKGNAME"
               " at $ZARNPKG_PKGDEST\";; esac\n");
    markRunning("runner");
    addPackage("sleeper", "#!/bin/sh\nexit 3\n");
    addPackage("noscript", "");

    std::string out, err;
    Json::Value v;
    for (const auto& [name, result] :
         {std::make_pair(
              "runner",
              "{\"package\":\"runner\",\"rough_status\":3,\"status\":0,\"success\":true}"),
          std::make_pair(
              "sleeper",
              "{\"package\":\"sleeper\",\"rough_status\":1,\"status\":3,\"success\":true}"),
          std::make_pair(
              "noscript",
              "{\"package\":\"noscript\",\"rough_status\":null,\"status\":4,\"success\":true}")}) {
        ASSERT_EQ(zarnpkg({"--json", "status", name}, out, err), 0) << err;
        ASSERT_TRUE(Json::fromString(v, out)) << out;
        EXPECT_EQ(Json::toCompactString(v), result);
    }

    ASSERT_EQ(zarnpkg({"status", "runner"}, out, err), 0) << err;
    EXPECT_NE(out.find("runner: running"), std::string::npos) << out;
    EXPECT_NE(out.find("rough status 3"), std::string::npos) << out;
    EXPECT_NE(out.find("result 0x0"), std::string::npos) << out;
    ASSERT_EQ(zarnpkg({"status", "sleeper"}, out, err), 0) << err;
    EXPECT_NE(out.find("result 0x3"), std::string::npos) << out;
}

// The listing reads each INFO once and hands its record to the status path; every entry must
// still be what a query of that one package answers.
TEST_F(StatusCli, ListingAgreesWithOneQueryPerPackage) {
    const std::string status = "#!/bin/sh\n[ \"$1\" = status ] && exit ";
    addPackage("running", status + "0\n");
    markRunning("running");
    addPackage("stopped", status + "3\n");
    enable("stopped");
    addPackage("failing", status + "1\n");
    addPackage("noscript", "");
    addPackage("unlinked", status + "0\n");
    ASSERT_TRUE(ZARNUnlink("/var/packages/unlinked/target"));
    addPackage("victim", status + "0\n");
    markRunning("victim");
    // A breaker whose INFO the listing refuses (no maintainer) still breaks its victim.
    TempRootTest::addPackage("breaker", "install_break_packages=\"victim\"\n");
    removeKey("/var/packages/breaker/INFO", "maintainer");

    std::string out, err;
    ASSERT_EQ(zarnpkg({"--json", "list"}, out, err), 0) << err;
    Json::Value listing;
    ASSERT_TRUE(Json::fromString(listing, out)) << out;
    std::vector<std::string> names;
    for (const auto& entry : listing["packages"]) {
        names.push_back(entry["package"].asString());
        Json::Value one;
        ASSERT_EQ(zarnpkg({"--json", "status", names.back()}, out, err), 0) << err;
        ASSERT_TRUE(Json::fromString(one, out)) << out;
        one.removeMember("success");
        Json::Value listed = entry;
        listed.removeMember("version");
        EXPECT_EQ(Json::toCompactString(listed), Json::toCompactString(one));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"failing", "noscript", "running", "stopped",
                                               "unlinked", "victim"}));
    EXPECT_EQ(listing["packages"][5]["status"].asInt(), 0x96);
}

TEST_F(StatusCli, LogOfAPackage) {
    addPackage("runner",
               "#!/bin/sh\ncase \"$1\" in log) echo \"log of $ZARNPKG_PKGNAME at "
               "$ZARNPKG_PKGDEST\";; *) exit 1;; esac\n");
    addPackage("mute", "#!/bin/sh\nexit 1\n");

    std::string out, err;
    ASSERT_EQ(zarnpkg({"log", "runner"}, out, err), 0) << err;
    EXPECT_EQ(out, "log of runner at " + phys("/volume1/@appstore/runner") + "\n");

    ASSERT_EQ(zarnpkg({"--json", "log", "runner"}, out, err), 0) << err;
    Json::Value v;
    ASSERT_TRUE(Json::fromString(v, out)) << out;
    EXPECT_TRUE(v["success"].asBool());
    EXPECT_EQ(v["log"].asString(), "log of runner at " + phys("/volume1/@appstore/runner"));

    EXPECT_EQ(zarnpkg({"log", "mute"}, out, err), 1);
    EXPECT_NE(err.find("error: 0x107"), std::string::npos) << err;
}

}  // namespace
