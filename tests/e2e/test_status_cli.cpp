#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/temproot.h"

namespace {

class StatusCli : public TempRootTest {
protected:
    CliRun zarnpkg(const std::vector<std::string>& args) { return RunZarnpkg(root(), args); }
    void addPackage(const std::string& name, const std::string& script) {
        TempRootTest::addPackage(name, "version=\"4.2\"\n");
        if (!script.empty()) {
            writeFile("/var/packages/" + name + "/scripts/start-stop-status", script, 0755);
        }
    }
};

// The listing reads each INFO once and hands its record to the status path; every entry must
// still be what a query of that one package answers, with the status and rough status of its
// state.
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

    const CliRun list = zarnpkg({"--json", "list"});
    ASSERT_EQ(list.status, 0) << list.err;
    // A package without a control script is common in a listing and no fault.
    EXPECT_FALSE(logged("unknown status")) << logText();
    const Json::Value listing = ParseJson(list.out);
    std::string statuses;
    for (const auto& entry : listing["packages"]) {
        const std::string name = entry["package"].asString();
        statuses += name + " " + Json::toCompactString(entry["status"]) + " " +
                    Json::toCompactString(entry["rough_status"]) + "\n";
        const CliRun r = zarnpkg({"--json", "status", name});
        ASSERT_EQ(r.status, 0) << r.err;
        Json::Value one = ParseJson(r.out);
        one.removeMember("success");
        Json::Value listed = entry;
        listed.removeMember("version");
        EXPECT_EQ(Json::toCompactString(listed), Json::toCompactString(one));
    }
    EXPECT_EQ(statuses,
              "failing 1 1\nnoscript 4 null\nrunning 0 3\nstopped 3 1\nunlinked 150 5\n"
              "victim 150 5\n");

    std::string out = zarnpkg({"status", "running"}).out;
    for (const char* words : {"running: running", "rough status 3", "result 0x0"}) {
        EXPECT_NE(out.find(words), std::string::npos) << out;
    }
    out = zarnpkg({"status", "stopped"}).out;
    EXPECT_NE(out.find("result 0x3"), std::string::npos) << out;
}

TEST_F(StatusCli, LogOfAPackage) {
    addPackage("runner",
               "#!/bin/sh\ncase \"$1\" in log) echo \"log of $ZARNPKG_PKGNAME at "
               "$ZARNPKG_PKGDEST\";; *) exit 1;; esac\n");
    addPackage("mute", "#!/bin/sh\nexit 1\n");
    const std::string log = "log of runner at " + phys("/volume1/@appstore/runner");
    CliRun r = zarnpkg({"log", "runner"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, log + "\n");
    r = zarnpkg({"--json", "log", "runner"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(ParseJson(r.out)["success"].asBool()) << r.out;
    EXPECT_EQ(ParseJson(r.out)["log"].asString(), log);
    r = zarnpkg({"log", "mute"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("error: 0x107"), std::string::npos) << r.err;
}

// info of an installed package, in JSON and in text.
TEST_F(StatusCli, InfoOfAnInstalledPackage) {
    TempRootTest::addPackage(
        "hello",
        "version=\"1.0-0001\"\ndisplayname=\"Hello\"\ndisplayname_fre=\"Bonjour\"\n"
        "extractsize=\"3\"\ninstall_dep_packages=\"base>=2.0:tools\"\n");
    CliRun r = zarnpkg({"--json", "--lang", "fre", "info", "hello"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json::Value record = ParseJson(r.out)["package"];
    EXPECT_EQ(record["displayname"].asString(), "Bonjour");
    EXPECT_EQ(record["extractsize"].asInt(), 3072);
    EXPECT_TRUE(record["beta"].isBool());
    EXPECT_EQ(Json::toCompactString(record["install_dep_packages"]),
              R"({"base":{">=":"2.0"},"tools":""})");
    EXPECT_NE(zarnpkg({"info", "hello"}).out.find("displayname: Hello\n"), std::string::npos);
}

}  // namespace
