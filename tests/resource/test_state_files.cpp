#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/errors.h"
#include "platform/files.h"
#include "resource/state_files.h"
#include "support/resource_fixture.h"

using namespace ZARNPackageTool::Resource;

namespace {

class StateFilesTest : public ResourceTest {};

TEST_F(StateFilesTest, MissingFileAndMissingMemberHaveTheirOwnCodes) {
    Json::Value out;
    EXPECT_EQ(FailedWith(ReadJsonFile(confPath("resource"), out)), 0x700);
    EXPECT_EQ(FailedWith(GetOwnObject(kPkg, "t-a", out)), 0x700);
    writeFile(confPath("resource.own"), "{\"t-a\": {\"k\": 1}}", 0644);
    EXPECT_EQ(FailedWith(GetOwnObject(kPkg, "t-b", out)), 0x2000);
    ASSERT_TRUE(GetOwnObject(kPkg, "t-a", out));
    EXPECT_EQ(1, out["k"].asInt());
    EXPECT_EQ(FailedWith(GetRequestObject("", "t-a", out)), 0xd00);
    // Rewritten files are private to root.
    Json::Value value(Json::objectValue);
    ASSERT_TRUE(WriteJsonFile(confPath("resource.own"), value));
    EXPECT_EQ(0600u, modeOf(confPath("resource.own")));
}

TEST_F(StateFilesTest, ReplaceOwnObjectStartsFromNothingAndRefusesANonObject) {
    ASSERT_TRUE(ReplaceOwnObject(kPkg, "t-a", Json::Value(7)));
    EXPECT_EQ(7, own()["t-a"].asInt());
    EXPECT_EQ(0755u, modeOf("/var/packages/pkga/conf"));
    writeFile(confPath("resource.own"), "[1]");
    EXPECT_FALSE(ReplaceOwnObject(kPkg, "t-a", Json::Value(8)));
    EXPECT_TRUE(logged("invalid jOwn, not an object"));
    EXPECT_EQ("[1]", readFile(confPath("resource.own")));
}

TEST_F(StateFilesTest, BackupCarriesTheOwnFileToTheNewVersionWithinOneProcess) {
    const std::string backup = "/var/tmp/resource.pkga." + std::to_string(getpid());
    // Nothing owned: nothing to carry, and nothing appears.
    ASSERT_TRUE(BackupResourceFile(kPkg));
    EXPECT_FALSE(ZARNPathExists(backup));
    ASSERT_TRUE(RestoreResourceFile(kPkg, "/tmp/unpack"));
    EXPECT_FALSE(ZARNPathExists("/tmp/unpack/conf/resource.own"));

    writeFile(confPath("resource.own"), "{\"t-a\": {\"k\": 1}}");
    ASSERT_TRUE(BackupResourceFile(kPkg));
    EXPECT_FALSE(ZARNPathExists(confPath("resource.own")));
    EXPECT_EQ(0777u, modeOf("/var/tmp"));
    ASSERT_TRUE(RestoreResourceFile(kPkg, "/tmp/unpack"));
    EXPECT_NE(std::string::npos, readFile("/tmp/unpack/conf/resource.own").find("\"k\""));
    EXPECT_TRUE(ZARNPathExists(backup));
}

}  // namespace
