#include <gtest/gtest.h>

#include <string>

#include "pkgutils/install_file.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "resource/resource.h"
#include "support/resource_fixture.h"

using namespace ZARNPackageTool;
using ZARN::PkgUtils::WorkerResp;

namespace {

class UsrLocalLinkerTest : public ResourceTest {
protected:
    bool call(bool acquire, const std::string& name) {
        PackageInfo info;
        info.name = name;
        WorkerResp resp;
        return acquire ? Resource::Acquire(Resource::TIMING_STARTUP, info, PKG_INSTALLATION_START,
                                           resp, nullptr, "")
                       : Resource::Release(Resource::TIMING_HALT, info, PKG_INSTALLATION_STOP, resp,
                                           nullptr, "");
    }
};

TEST_F(UsrLocalLinkerTest, LinksPatternsAndRemovesOnlyItsOwnLinks) {
    writeFile("/volume1/@appstore/pkga/bin/tool1", "", 0755);
    writeFile("/volume1/@appstore/pkga/bin/tool2", "", 0755);
    writeFile(confPath("resource"),
              "{\"usr-local-linker\": {\"bin\": [\"bin/*\"], \"etc\": [\"nomatch.conf\"]}}");
    ASSERT_TRUE(call(true, kPkg));
    std::string target;
    ASSERT_TRUE(ZARNReadLink("/usr/local/bin/tool1", target));
    EXPECT_EQ("/var/packages/pkga/target/bin/tool1", target);
    EXPECT_TRUE(ZARNIsRegularFile("/usr/local/bin/tool2"));
    // A pattern without a match is linked as it stands.
    EXPECT_TRUE(ZARNIsSymlink("/usr/local/etc/nomatch.conf"));
    EXPECT_EQ(3u, own()["usr-local-linker"]["links"].size());

    // A second package linking the same name fails.
    addPackage("pkgb");
    writeFile("/volume1/@appstore/pkgb/bin/tool1", "", 0755);
    writeFile("/var/packages/pkgb/conf/resource",
              "{\"usr-local-linker\": {\"bin\": [\"bin/tool1\"]}}");
    EXPECT_FALSE(call(true, "pkgb"));
    EXPECT_TRUE(logged("Failed to create link /usr/local/bin/tool1"));

    // A damaged own file can't make it remove what is not its own.
    Json::Value o = own();
    o["usr-local-linker"]["links"].append("/usr/local/lib/../../../etc/passwd");
    writeJson(confPath("resource.own"), o);
    ASSERT_TRUE(call(false, kPkg));
    EXPECT_FALSE(ZARNPathExists("/usr/local/bin/tool1"));
    EXPECT_FALSE(ZARNPathExists("/usr/local/etc/nomatch.conf"));
    EXPECT_TRUE(ZARNPathExists("/etc/passwd"));
    EXPECT_FALSE(own()["usr-local-linker"].isMember("links"));
}

TEST_F(UsrLocalLinkerTest, MalformedListsFail) {
    for (const char* text :
         {"{\"usr-local-linker\": {\"lib\": \"x\"}}", "{\"usr-local-linker\": {\"bin\": [1]}}"}) {
        writeFile(confPath("resource"), text);
        EXPECT_FALSE(call(true, kPkg)) << text;
    }
}

TEST_F(UsrLocalLinkerTest, InstallConfigFileKeepsAnExistingFileWhenAsked) {
    writeFile("/src.conf", "new");
    writeFile("/dst.conf", "old");
    EXPECT_EQ(FailedWith(ZARN::PkgUtils::InstallConfigFile("/src.conf", "/dst.conf", 0640, false)),
              0x800);
    EXPECT_EQ("old", readFile("/dst.conf"));
    ASSERT_TRUE(ZARN::PkgUtils::InstallExecutable("/src.conf", "/dst.conf", true));
    EXPECT_EQ("new", readFile("/dst.conf"));
    EXPECT_EQ(0755u, modeOf("/dst.conf"));
}

}  // namespace
