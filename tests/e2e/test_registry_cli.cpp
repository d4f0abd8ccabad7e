#include <gtest/gtest.h>

#include <string>

#include "platform/files.h"
#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/temproot.h"

namespace {

class RegistryCli : public TempRootTest {};

}  // namespace

// host-init makes a root from an empty folder that list and info then work on.
TEST_F(RegistryCli, HostInitListAndInfo) {
    // A second, empty root inside this test's root, so that it goes away with it.
    ASSERT_EQ(
        ZARNFSMkdirP("/tmp/clean", 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755), 0);
    const std::string clean = phys("/tmp/clean");
    CliRun r = RunZarnpkg(clean, {"host-init"});
    ASSERT_EQ(r.status, 0) << r.err;
    r = RunZarnpkg(clean, {"list"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "no packages installed\n");
    r = RunZarnpkg(clean, {"--json", "list"});
    EXPECT_EQ(ParseJson(r.out)["packages"].size(), 0u);

    addPackage("hello",
               "version=\"1.0-0001\"\ndisplayname=\"Hello\"\ndisplayname_fre=\"Bonjour\"\n"
               "extractsize=\"3\"\ninstall_dep_packages=\"base>=2.0:tools\"\n");

    r = RunZarnpkg(root(), {"--json", "list"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json::Value list = ParseJson(r.out);
    EXPECT_TRUE(list["success"].asBool());
    ASSERT_EQ(list["packages"].size(), 1u);
    EXPECT_EQ(list["packages"][0]["package"].asString(), "hello");
    EXPECT_EQ(list["packages"][0]["status"].asInt(), 4);  // no control script
    EXPECT_TRUE(list["packages"][0]["rough_status"].isNull());

    r = RunZarnpkg(root(), {"--json", "--lang", "fre", "info", "hello"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json::Value record = ParseJson(r.out)["package"];
    EXPECT_EQ(record["displayname"].asString(), "Bonjour");
    EXPECT_EQ(record["extractsize"].asInt(), 3072);
    EXPECT_TRUE(record["beta"].isBool());
    EXPECT_EQ(record["install_dep_packages"]["base"][">="].asString(), "2.0");
    EXPECT_EQ(record["install_dep_packages"]["tools"].asString(), "");
    r = RunZarnpkg(root(), {"info", "hello"});
    EXPECT_NE(r.out.find("displayname: Hello\n"), std::string::npos) << r.out;
}
