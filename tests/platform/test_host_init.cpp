#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstring>

#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/keyfile.h"
#include "platform/sysroot.h"
#include "support/temproot.h"

namespace {

std::string Key(const std::string& path, const std::string& key) {
    std::string value;
    return VLIBCFileGetKeyValue(path, key, value) == 1 ? value : std::string("<missing>");
}

}  // namespace

class HostInitTest : public TempRootTest {};

TEST_F(HostInitTest, MakesTheStandaloneRoot) {
    struct utsname name;
    ASSERT_EQ(uname(&name), 0);
    const std::string platform = strcmp(name.machine, "aarch64") == 0 ? "rtd1296" : "kvmx64";
    EXPECT_EQ(Key("/etc.defaults/zarninfo.conf", "unique"), "zarn_" + platform + "_zpc");
    EXPECT_EQ(readFile("/etc.defaults/VERSION"),
              "majorversion=\"6\"\nminorversion=\"2\"\nbuildnumber=\"25556\"\n"
              "smallfixnumber=\"0\"\nproductversion=\"6.2\"\n");
    for (const char* dir :
         {"/etc/zarnhost", "/var/packages", "/usr/local/etc/rc.d", "/usr/local/packages",
          "/usr/zarn/etc/packages", "/tmp/lock", "/var/log/packages", "/volume1"}) {
        EXPECT_TRUE(ZARNIsDir(dir)) << dir;
        EXPECT_FALSE(ZARNIsSymlink(dir)) << dir;
    }
    EXPECT_EQ(modeOf("/var/packages"), 0755u);
}

TEST_F(HostInitTest, CompletesWithoutOverwriting) {
    writeFile("/etc/zarninfo.conf", "timezone=\"Europe/Paris\"\n# kept\nextra=\"yes\"");
    ASSERT_TRUE(ZARNRemoveTree("/var/packages"));
    ASSERT_TRUE(ZARNChmod("/volume1", 0700));
    std::string error;
    ASSERT_TRUE(ZARNHostInit(error)) << error;
    EXPECT_EQ(readFile("/etc/zarninfo.conf"),
              "timezone=\"Europe/Paris\"\n# kept\nextra=\"yes\"\nlanguage=\"enu\"\n"
              "pkg_source_trust_level=\"2\"\n");
    EXPECT_TRUE(ZARNIsDir("/var/packages"));
    EXPECT_EQ(modeOf("/volume1"), 0700u);

    const std::string before = readFile("/etc.defaults/VERSION");
    ASSERT_TRUE(ZARNHostInit(error)) << error;
    EXPECT_EQ(readFile("/etc.defaults/VERSION"), before);

    writeFile("/etc.defaults/zarninfo.conf", "unique=\"zarn_custom_zpc\"\n");
    ASSERT_TRUE(ZARNHostInit(error)) << error;
    EXPECT_EQ(Key("/etc.defaults/zarninfo.conf", "unique"), "zarn_custom_zpc");
    EXPECT_EQ(Key("/etc.defaults/zarninfo.conf", "product"), "ZarnStation");
}

TEST_F(HostInitTest, ReportsWhatFailed) {
    ASSERT_TRUE(ZARNRemoveTree("/etc/zarnhost"));
    writeFile("/etc/zarnhost", "a file where a folder belongs");
    std::string error;
    EXPECT_FALSE(ZARNHostInit(error));
    EXPECT_NE(error.find("/etc/zarnhost"), std::string::npos) << error;
    EXPECT_TRUE(logged("Failed to initialise the host"));

    // The machine's own root is never prepared.
    ZARNPackageCore::SetSystemRoot("/");
    EXPECT_FALSE(ZARNHostInit(error));
    ZARNPackageCore::SetSystemRoot(root());
    EXPECT_FALSE(error.empty());
}
