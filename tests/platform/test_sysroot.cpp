#include <gtest/gtest.h>

#include "platform/sysroot.h"
#include "support/temproot.h"

class SysrootTest : public TempRootTest {};

TEST_F(SysrootTest, LogicalToPhysical) {
    EXPECT_EQ(ZARNPackageCore::GetSystemRoot(), root());
    EXPECT_EQ(ZARNPhysicalPath("/var/packages/demo/INFO"), root() + "/var/packages/demo/INFO");
    EXPECT_EQ(ZARNPhysicalPath("/"), root() + "/");
    // Relative paths are not in the system's name space and pass through.
    EXPECT_EQ(ZARNPhysicalPath("conf/resource"), "conf/resource");
    EXPECT_EQ(ZARNPhysicalPath(""), "");
}

TEST_F(SysrootTest, PhysicalToLogical) {
    EXPECT_EQ(ZARNLogicalPath(root() + "/etc/zarninfo.conf"), "/etc/zarninfo.conf");
    EXPECT_EQ(ZARNLogicalPath(root()), "/");
    EXPECT_EQ(ZARNLogicalPath(root() + "/"), "/");
    // A sibling that merely shares the prefix is outside the root.
    EXPECT_EQ(ZARNLogicalPath(root() + "x/etc"), root() + "x/etc");
    EXPECT_EQ(ZARNLogicalPath("/usr/bin/tar"), "/usr/bin/tar");
    EXPECT_EQ(ZARNLogicalPath("relative/path"), "relative/path");
    const std::string logical = "/volume1/@appstore/demo";
    EXPECT_EQ(ZARNLogicalPath(ZARNPhysicalPath(logical)), logical);
}

TEST_F(SysrootTest, RootNormalisedAndIdentityAtSlash) {
    ZARNPackageCore::SetSystemRoot(root() + "//");
    EXPECT_EQ(ZARNPackageCore::GetSystemRoot(), root());
    EXPECT_EQ(ZARNPhysicalPath("/etc"), root() + "/etc");

    ZARNPackageCore::SetSystemRoot("");
    EXPECT_EQ(ZARNPackageCore::GetSystemRoot(), "/");

    ZARNPackageCore::SetSystemRoot("/");
    EXPECT_EQ(ZARNPhysicalPath("/var/packages"), "/var/packages");
    EXPECT_EQ(ZARNLogicalPath("/var/packages"), "/var/packages");
    EXPECT_EQ(ZARNLogicalPath(root() + "/etc"), root() + "/etc");
    ZARNPackageCore::SetSystemRoot(root());
}
