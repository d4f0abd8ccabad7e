#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/locks.h"
#include "platform/process.h"
#include "platform/rootat.h"
#include "platform/tempnames.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

// A root whose registry, volume and a package's target hold links to a folder of the machine
// outside the root. Every case runs through openat2 and through the component walk.
class BoundaryTest : public TempRootTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        TempRootTest::SetUp();
        ZARNRootWalkForce(GetParam());
        char tmpl[] = "/tmp/zarnpkg-outside-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        outside_ = tmpl;
        ASSERT_EQ(mkdir((outside_ + "/evil").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((outside_ + "/keep").c_str(), 0755), 0);
        WriteOutside("/evil/INFO", qartest::BasicInfo("evil", "1.0-1", {{"displayname", "OUT"}}));
        WriteOutside("/keep/data", "outside data");
        writeFile("/var/packages/good/INFO", qartest::BasicInfo("good", "1.0-1"));
        Plant(outside_ + "/evil", "/var/packages/evil");
        Plant("../../../../../../../../../../.." + outside_ + "/evil", "/var/packages/climb");
        Plant(outside_ + "/keep", "/volume1/@appstore/x");
        Plant(outside_ + "/keep", "/var/packages/good/target");
        Plant(outside_ + "/keep/planted-lock", "/tmp/lock/lock_pkg");
        before_ = Outside();
    }
    void TearDown() override {
        ZARNRootWalkForce(false);
        qartest::Run({"/bin/rm", "-rf", outside_});
        TempRootTest::TearDown();
    }

    void WriteOutside(const std::string& rel, const std::string& text) {
        FILE* f = fopen((outside_ + rel).c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs(text.c_str(), f);
        fclose(f);
    }
    // A link made by the machine, as an attacker or a package would plant it.
    void Plant(const std::string& target, const std::string& logical) {
        ASSERT_EQ(qartest::Run({"/bin/mkdir", "-p", phys(logical.substr(0, logical.rfind('/')))}),
                  0);
        ASSERT_EQ(symlink(target.c_str(), phys(logical).c_str()), 0) << logical;
    }
    // Every path under the outside folder with its mode and content.
    std::vector<std::string> Outside() const {
        std::vector<std::string> seen;
        for (const std::string& path : qartest::Snapshot(outside_)) {
            struct stat st;
            lstat(path.c_str(), &st);
            std::string out;
            qartest::Run({"/bin/cat", path}, &out);
            seen.push_back(path + " " + std::to_string(st.st_mode) + " " + out);
        }
        return seen;
    }

    std::string outside_;
    std::vector<std::string> before_;
};

TEST_P(BoundaryTest, LinksLeadingOutsideStayInsideTheRoot) {
    std::string text;
    struct stat st;
    std::vector<ZARNDirEntry> entries;
    for (const char* link : {"/var/packages/evil", "/var/packages/climb"}) {
        const std::string info = std::string(link) + "/INFO";
        EXPECT_FALSE(ZARNFileRead(info, text)) << text;
        EXPECT_FALSE(IsFileExists(info)) << link;
        EXPECT_FALSE(ZARNStat(info, st)) << link;
        EXPECT_FALSE(ZARNIsDir(link)) << link;
        EXPECT_FALSE(ZARNListDir(link, entries)) << link;
        EXPECT_FALSE(ZARNOpen(info, O_RDONLY).valid()) << link;
    }
    EXPECT_FALSE(ZARNIsRegularFile("/volume1/@appstore/x/data"));
    std::string real;
    EXPECT_FALSE(ZARNRealPath("/var/packages/good/target/data", real)) << real;

    // A program is refused a path that the machine would follow outside the root.
    for (const char* path : {"/var/packages/good/target/data", "/volume1/@appstore/x/new"}) {
        ZARNUtils::ProcessRunner cp({"/bin/cp", phys("/var/packages/good/INFO"), phys(path)});
        EXPECT_EQ(cp.captureOutput().run(), -1) << path;
    }
    ZARNUtils::ProcessRunner inside({"/bin/cp", phys("/var/packages/good/INFO"), phys("/tmp/c")});
    EXPECT_EQ(inside.run(), 0);

    // Writes, folders, modes, renames and removals through the links land inside the root or
    // fail; the folder outside is never touched.
    ZARNFileWrite("/volume1/@appstore/x/data", "changed");
    ZARNFileWriteDurable("/var/packages/good/target/data", "changed");
    ZARNFileAppend("/var/packages/good/target/data", "changed");
    ZARNFileTouch("/volume1/@appstore/x/new");
    ZARNFSMkdirP("/volume1/@appstore/x/sub/dir", 0, 0, -1, -1, 0755);
    ZARNChmod("/var/packages/good/target", 0777);
    ZARNChmod("/volume1/@appstore/x/data", 0777);
    ZARNChown("/var/packages/good/target", 1234, 1234);
    ZARNUtimeNow("/var/packages/good/target/data");
    ZARNRename("/var/packages/good/INFO", "/volume1/@appstore/x/INFO");
    ZARNRemoveTree("/volume1/@appstore/x/data");
    ZARNUnlink("/var/packages/good/target/data");
    ZARNSymlink("/etc", "/var/packages/good/target/link");
    // The entries of a folder opened once are held to the root as their whole paths are.
    Plant(outside_ + "/evil/INFO", "/var/packages/good/leak");
    const ZARNFolder good("/var/packages/good");
    EXPECT_FALSE(good.readFile("leak", text)) << text;
    EXPECT_FALSE(good.isDir("target"));
    EXPECT_TRUE(good.readFile("INFO", text));
    std::string made;
    ZARNMkstemp("/volume1/@appstore/x/tmpXXXXXX", made);
    EXPECT_NE(VLIBCFileLock(PackageLockId, 0), 0);
    EXPECT_EQ(before_, Outside());
}

TEST_P(BoundaryTest, LinksInsideTheRootResolveAsOnTheAppliance) {
    // An absolute link means the root's own folder, a relative one climbs no higher than it.
    writeFile("/volume1/@appstore/real/INFO", "inside");
    Plant("/volume1/@appstore/real", "/var/packages/abs");
    Plant("../../../../../../volume1/@appstore/real", "/var/packages/rel");
    for (const char* link : {"/var/packages/abs/INFO", "/var/packages/rel/INFO"}) {
        std::string text;
        EXPECT_TRUE(ZARNFileRead(link, text)) << link;
        EXPECT_EQ(text, "inside");
    }
    Plant("/volume1/@appstore/real/INFO", "/var/packages/good/abs");
    Plant("../../../volume1/@appstore/real", "/var/packages/good/conf");
    const ZARNFolder good("/var/packages/good");
    std::string text;
    EXPECT_TRUE(good.readFile("abs", text));
    EXPECT_EQ(text, "inside");
    EXPECT_TRUE(good.isDir("conf"));
    std::string target;
    ASSERT_TRUE(good.readLink("conf", target));
    EXPECT_EQ(target, "/volume1/@appstore/real");
    std::string real;
    ASSERT_TRUE(ZARNRealPath("/var/packages/abs/INFO", real));
    EXPECT_EQ(real, "/volume1/@appstore/real/INFO");

    // Links the library makes are relative under this root, and read back as logical paths.
    ASSERT_TRUE(ZARNSymlink("/volume1/@appstore/real", "/var/packages/made"));
    char stored[256] = "";
    ASSERT_GT(readlink(phys("/var/packages/made").c_str(), stored, sizeof(stored) - 1), 0);
    EXPECT_STREQ(stored, "../../volume1/@appstore/real");
    ASSERT_TRUE(ZARNReadLink("/var/packages/made", target));
    EXPECT_EQ(target, "/volume1/@appstore/real");
    EXPECT_TRUE(ZARNIsRegularFile("/var/packages/made/INFO"));
}

INSTANTIATE_TEST_SUITE_P(OpenAt2AndWalk, BoundaryTest, ::testing::Bool());

TEST_F(TempRootTest, LockFilesRefuseLinksAndBelongToTheirOwner) {
    ASSERT_EQ(VLIBCFileLock(PackageLockId, 0), 0);
    EXPECT_EQ(modeOf("/tmp/lock/lock_pkg"), 0600u);
    EXPECT_EQ(VLIBCFileUnlock(PackageLockId), 0);

    // A link planted where a lock file goes is never followed, even to a place in the root.
    ASSERT_EQ(symlink("/tmp/elsewhere", phys(ZARNLockPath(7)).c_str()), 0);
    EXPECT_NE(VLIBCFileLock(7, 0), 0);
    EXPECT_FALSE(ZARNPathExists("/tmp/elsewhere"));
}

}  // namespace
