#include <gtest/gtest.h>

#include "platform/sysroot.h"
#include "support/temproot.h"

class SysrootTest : public TempRootTest {};

TEST_F(SysrootTest, LogicalAndPhysicalPaths) {
    EXPECT_EQ(ZARNPhysicalPath("/var/packages/demo/INFO"), root() + "/var/packages/demo/INFO");
    EXPECT_EQ(ZARNLogicalPath(root() + "/etc/zarninfo.conf"), "/etc/zarninfo.conf");
    EXPECT_EQ(ZARNLogicalPath(root()), "/");
    EXPECT_EQ(ZARNLogicalPath(root() + "/"), "/");
    EXPECT_EQ(ZARNPhysicalPath("/"), root() + "/");
    // Relative paths are not in the system's name space and pass through both ways.
    for (const char* path : {"conf/resource", ""}) {
        EXPECT_EQ(ZARNPhysicalPath(path), path);
        EXPECT_EQ(ZARNLogicalPath(path), path);
    }
    // A path outside the root, and a sibling that merely shares its prefix, stay as they are.
    EXPECT_EQ(ZARNLogicalPath("/usr/bin/tar"), "/usr/bin/tar");
    EXPECT_EQ(ZARNLogicalPath(root() + "x/etc"), root() + "x/etc");

    ZARNPackageCore::SetSystemRoot(root() + "//");
    EXPECT_EQ(ZARNPackageCore::GetSystemRoot(), root());
    EXPECT_EQ(ZARNPhysicalPath("/etc"), root() + "/etc");
    ZARNPackageCore::SetSystemRoot("");
    EXPECT_EQ(ZARNPackageCore::GetSystemRoot(), "/");
    EXPECT_EQ(ZARNPhysicalPath("/var/packages"), "/var/packages");
    EXPECT_EQ(ZARNLogicalPath(root() + "/etc"), root() + "/etc");
    ZARNPackageCore::SetSystemRoot(root());
}
