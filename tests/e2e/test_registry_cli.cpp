#include <gtest/gtest.h>

#include <string>

#include "platform/json.h"
#include "support/cli_runner.h"
#include "support/temproot.h"

namespace {

class RegistryCli : public TempRootTest {};

}  // namespace

// list and info of an installed package, in JSON and in text. (host-init of a fresh root and
// its empty list are the CLI error tests' --root case.)
TEST_F(RegistryCli, ListAndInfo) {
    addPackage("hello",
               "version=\"1.0-0001\"\ndisplayname=\"Hello\"\ndisplayname_fre=\"Bonjour\"\n"
               "extractsize=\"3\"\ninstall_dep_packages=\"base>=2.0:tools\"\n");

    CliRun r = RunZarnpkg(root(), {"--json", "list"});
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
