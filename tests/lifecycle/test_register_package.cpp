#include <gtest/gtest.h>

#include <string>

#include "core/packagemanager.h"
#include "platform/files.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class RegisterPackageTest : public TempRootTest {
protected:
    const std::string x = "/volume1/@tmp/reg/pkginstall";
    const std::string reg = "/var/packages/demo";
    const std::string target = "/volume1/@appstore/demo";

    // An unpacked package as the pipelines leave it before registration.
    void unpack(const std::string& version, bool withScripts) {
        writeFile(x + "/INFO", qartest::BasicInfo("demo", version));
        if (withScripts) {
            writeFile(x + "/scripts/postinst", "#!/bin/sh\n", 0755);
        }
        writeFile(target + "/bin/run", "x");
    }
    bool registerIt(PKG_INSTALLATION_TYPE type) {
        PackageManager pm;
        PackageInfo info;
        return pm.registerPackage(type, info, "demo", x, target);
    }
};

// Registered again, as an upgrade does: the old scripts go, and a version without scripts gets
// an empty folder. (What a first registration moves in, the CLI install road checks.)
TEST_F(RegisterPackageTest, UpgradeReplacesTheScripts) {
    unpack("1.0", true);
    ASSERT_TRUE(registerIt(PKG_INSTALLATION_INSTALL)) << logText();
    EXPECT_TRUE(ZARNIsRegularFile(reg + "/scripts/postinst"));
    ASSERT_TRUE(ZARNUnlink(reg + "/installing"));
    writeFile(reg + "/scripts/preuninst", "#!/bin/sh\n", 0755);
    unpack("2.0", false);
    ASSERT_TRUE(registerIt(PKG_INSTALLATION_UPGRADE)) << logText();
    EXPECT_NE(std::string::npos, readFile(reg + "/INFO").find("version=\"2.0\""));
    EXPECT_TRUE(ZARNIsRegularFile(reg + "/installing"));
    EXPECT_TRUE(ZARNIsDir(reg + "/scripts"));
    EXPECT_FALSE(ZARNPathExists(reg + "/scripts/preuninst"));
    EXPECT_FALSE(ZARNPathExists(reg + "/scripts/postinst"));
}

TEST_F(RegisterPackageTest, UnreadableInfoRegistersNothing) {
    writeFile(x + "/conf/resource", "{}");  // an extract folder whose INFO a script took away
    PackageManager pm;
    PackageInfo info;
    EXPECT_FALSE(pm.registerPackage(PKG_INSTALLATION_INSTALL, info, "demo", x, target));
    EXPECT_EQ(PKG_ERR_BAD_PACKAGE, pm.getResult());
    EXPECT_FALSE(ZARNPathExists(reg));
    EXPECT_TRUE(logged("Failed to validate package INFO"));
}

}  // namespace
