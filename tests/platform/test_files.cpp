#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/sysroot.h"
#include "support/huge_alloc.h"
#include "support/temproot.h"

namespace {

constexpr uid_t kKeepUid = static_cast<uid_t>(-1);
constexpr gid_t kKeepGid = static_cast<gid_t>(-1);

ZARNFileType TypeOf(const std::vector<ZARNDirEntry>& entries, const std::string& name) {
    for (const auto& entry : entries) {
        if (entry.name == name) {
            return entry.type;
        }
    }
    return ZARNFileType::Unknown;
}

}  // namespace

class FilesTest : public TempRootTest {};

TEST_F(FilesTest, MkdirPModes) {
    umask(077);
    EXPECT_EQ(ZARNFSMkdirP("/volume1/@appstore/demo/bin", 0, 0, kKeepUid, kKeepGid, 0751), 0);
    EXPECT_EQ(modeOf("/volume1/@appstore"), 0751u);
    EXPECT_EQ(modeOf("/volume1/@appstore/demo/bin"), 0751u);
    // Folders that were there keep their mode.
    EXPECT_EQ(modeOf("/volume1"), 0755u);
    // Again is fine; a trailing slash and "." parts are fine.
    EXPECT_EQ(ZARNFSMkdirP("/volume1/@appstore/demo/bin/", 0, 0, kKeepUid, kKeepGid, 0700), 0);
    EXPECT_EQ(ZARNFSMkdirP("/volume1/./x//y", 0, 0, kKeepUid, kKeepGid, 0700), 0);
    EXPECT_TRUE(ZARNIsDir("/volume1/x/y"));
    EXPECT_EQ(modeOf("/volume1/@appstore/demo/bin"), 0751u);

    writeFile("/volume1/file", "x");
    EXPECT_LT(ZARNFSMkdirP("/volume1/file/sub", 0, 0, kKeepUid, kKeepGid, 0755), 0);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_LT(ZARNFSMkdirP("", 0, 0, kKeepUid, kKeepGid, 0755), 0);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_BAD_PARAMETERS);
}

TEST_F(FilesTest, MkdirPChownsAsRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "changing owners needs root";
    }
    ASSERT_EQ(ZARNFSMkdirP("/var/packages/demo/etc", 0, 0, 1234, 2345, 0700), 0);
    // Owner and group, or "failed".
    auto owner = [](const std::string& path) {
        struct stat st;
        return ZARNStat(path, st) ? std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid)
                                  : "failed";
    };
    EXPECT_EQ(owner("/var/packages/demo/etc"), "1234:2345");
    EXPECT_EQ(owner("/var/packages"), "0:0");
}

TEST_F(FilesTest, ReadWriteAppendTouch) {
    umask(077);
    EXPECT_TRUE(ZARNFileWrite("/etc/a.conf", "hello", 0644));
    EXPECT_EQ(modeOf("/etc/a.conf"), 0644u);
    EXPECT_TRUE(ZARNFileAppend("/etc/a.conf", " world"));
    EXPECT_EQ(readFile("/etc/a.conf"), "hello world");
    std::string head;
    EXPECT_TRUE(ZARNFileRead("/etc/a.conf", head, 5) && head == "hello") << head;
    // Rewriting keeps the file's mode.
    EXPECT_TRUE(ZARNChmod("/etc/a.conf", 0600));
    EXPECT_TRUE(ZARNFileWrite("/etc/a.conf", "short"));
    EXPECT_EQ(readFile("/etc/a.conf"), "short");
    EXPECT_EQ(modeOf("/etc/a.conf"), 0600u);

    EXPECT_TRUE(ZARNFileTouch("/etc/a.conf"));
    EXPECT_EQ(readFile("/etc/a.conf"), "short");
    EXPECT_TRUE(ZARNFileTouch("/etc/empty", 0640));
    EXPECT_TRUE(ZARNIsRegularFile("/etc/empty"));
    EXPECT_EQ(modeOf("/etc/empty"), 0640u);

    std::string data;
    EXPECT_FALSE(ZARNFileRead("/etc/missing", data));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_NO_FILE);
    EXPECT_FALSE(ZARNFileRead("/etc", data));
    // A pipe where a file belongs is refused at once instead of waited on for ever.
    ASSERT_EQ(mkfifo(phys("/etc/pipe").c_str(), 0644), 0);
    EXPECT_FALSE(ZARNFileRead("/etc/pipe", data));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(data.empty());
    EXPECT_FALSE(ZARNFileWrite("/no/dir/file", "x"));

    // A sparse file larger than any memory fails the read with a memory error and keeps no
    // descriptor open. (A kernel that grants every allocation would let the read run on.)
    ASSERT_TRUE(ZARNFileWrite("/etc/huge", ""));
    if (AllocationFails(size_t(1) << 40) && truncate(phys("/etc/huge").c_str(), 1LL << 40) == 0) {
        const int before = ZARNOpen("/etc/a.conf", O_RDONLY).get();
        EXPECT_EQ(FailedWith(ZARNFileRead("/etc/huge", data)), ZARN_ERR_OUT_OF_MEMORY);
        EXPECT_EQ(ZARNOpen("/etc/a.conf", O_RDONLY).get(), before);
    }

    const std::string binary("a\0b\xff", 4);
    EXPECT_TRUE(ZARNFileWrite("/etc/bin", binary));
    EXPECT_EQ(readFile("/etc/bin"), binary);
}

TEST_F(FilesTest, DurableWrite) {
    EXPECT_TRUE(ZARNFileWriteDurable("/var/packages/state.json", "{}", 0600));
    EXPECT_EQ(readFile("/var/packages/state.json"), "{}");
    EXPECT_EQ(modeOf("/var/packages/state.json"), 0600u);
    const std::string big(3 << 20, 'q');
    EXPECT_TRUE(ZARNFileWriteDurable("/var/packages/state.json", big));
    EXPECT_EQ(readFile("/var/packages/state.json"), big);
    EXPECT_EQ(modeOf("/var/packages/state.json"), 0644u);
    std::vector<ZARNDirEntry> entries;
    ASSERT_TRUE(ZARNListDir("/var/packages", entries));
    EXPECT_EQ(entries.size() == 1 ? entries[0].name : "not one entry", "state.json");

    EXPECT_EQ(FailedWith(ZARNFileWriteDurable("/var/nothing/here/state.json", "{}")),
              ZARN_ERR_NO_FILE);
    EXPECT_FALSE(FsyncFiles({"/var/packages/none"}));
    EXPECT_FALSE(FsyncDirectories({"/var/packages", "/none"}));
}

TEST_F(FilesTest, ListingTypes) {
    makeDir("/t/dir");
    writeFile("/t/file", "x");
    writeFile("/t/b_file", "y");
    ASSERT_TRUE(ZARNSymlink("/t/dir", "/t/link_to_dir"));
    ASSERT_TRUE(ZARNSymlink("/t/none", "/t/dangling"));
    std::vector<ZARNDirEntry> entries;
    ASSERT_TRUE(ZARNListDir("/t", entries));
    EXPECT_EQ(entries.size(), 5u);
    EXPECT_EQ(TypeOf(entries, "dir"), ZARNFileType::Directory);
    EXPECT_EQ(TypeOf(entries, "file"), ZARNFileType::Regular);
    EXPECT_EQ(TypeOf(entries, "link_to_dir"), ZARNFileType::Symlink);
    EXPECT_EQ(TypeOf(entries, "dangling"), ZARNFileType::Symlink);
    EXPECT_TRUE(ZARNIsDir("/t/link_to_dir"));
    EXPECT_TRUE(ZARNIsSymlink("/t/link_to_dir"));
    EXPECT_TRUE(ZARNPathExists("/t/dangling"));
    EXPECT_FALSE(IsFileExists("/t/dangling"));
    EXPECT_FALSE(ZARNIsRegularFile("/t/dangling"));

    std::vector<std::string> files;
    ASSERT_TRUE(GetRegularFilePathsInDirectory("/t/", files));
    EXPECT_EQ(files, (std::vector<std::string>{"/t/b_file", "/t/file"}));
    EXPECT_FALSE(ZARNListDir("/t/none", entries));
    EXPECT_TRUE(entries.empty());
    EXPECT_FALSE(ZARNListDir("/t/file", entries));
}

TEST_F(FilesTest, LinksMapBothWays) {
    makeDir("/volume1/@appstore/demo");
    makeDir("/var/packages/demo");
    ASSERT_TRUE(ZARNSymlink("/volume1/@appstore/demo", "/var/packages/demo/target"));
    ASSERT_TRUE(ZARNSymlink("../../volume1", "/var/packages/demo/relative"));
    EXPECT_FALSE(ZARNSymlink("/x", "/var/packages/demo/target"));
    EXPECT_EQ(errno, EEXIST);

    // What a link holds, or "failed".
    auto link = [](const std::string& path) {
        std::string target;
        return ZARNReadLink(path, target) ? target : "failed";
    };
    EXPECT_EQ(link("/var/packages/demo/target"), "/volume1/@appstore/demo");
    EXPECT_EQ(link("/var/packages/demo/relative"), "/var/volume1");
    // The machine resolves the link on its own, without the mapping.
    writeFile("/volume1/@appstore/demo/INFO", "package=demo\n");
    EXPECT_EQ(readFile("/var/packages/demo/target/INFO"), "package=demo\n");

    // Seen from the machine's root, the stored text is relative, so that the machine's
    // programs reach the same place.
    ZARNPackageCore::SetSystemRoot("/");
    EXPECT_EQ(link(root() + "/var/packages/demo/target"), "../../../volume1/@appstore/demo");
    ASSERT_TRUE(ZARNSymlink("/usr/bin", root() + "/outside"));
    ZARNPackageCore::SetSystemRoot(root());
    EXPECT_EQ(link("/outside"), "/usr/bin");
    EXPECT_EQ(link("/var/packages/demo"), "failed");
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FilesTest, RemoveRenameOpen) {
    makeDir("/keep/inner");
    writeFile("/keep/inner/precious", "data");
    makeDir("/gone/a/b/c");
    writeFile("/gone/a/b/c/file", "x");
    writeFile("/gone/a/file", "x");
    ASSERT_TRUE(ZARNSymlink("/keep", "/gone/a/link"));
    makeDir("/gone/locked/sub");
    ASSERT_TRUE(ZARNChmod("/gone/locked", 0));
    EXPECT_TRUE(ZARNRemoveTree("/gone"));
    EXPECT_FALSE(ZARNPathExists("/gone"));
    // A link inside the tree goes, what it points at stays.
    EXPECT_EQ(readFile("/keep/inner/precious"), "data");
    EXPECT_TRUE(ZARNRemoveTree("/gone"));
    writeFile("/single", "x");
    EXPECT_TRUE(ZARNRemoveTree("/single"));
    EXPECT_FALSE(ZARNPathExists("/single"));

    EXPECT_TRUE(ZARNRename("/keep/inner/precious", "/keep/moved"));
    EXPECT_EQ(readFile("/keep/moved"), "data");
    EXPECT_FALSE(ZARNRename("/keep/none", "/keep/other"));
    EXPECT_TRUE(ZARNUnlink("/keep/moved"));
    EXPECT_EQ(FailedWith(ZARNUnlink("/keep/moved")), ZARN_ERR_NO_FILE);
    EXPECT_TRUE(ZARNRmdir("/keep/inner"));
    EXPECT_FALSE(ZARNIsDir("/keep/inner"));

    Fd fd = ZARNOpen("/keep/opened", O_WRONLY | O_CREAT, 0600);
    ASSERT_TRUE(fd.valid());
    EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    fd.reset();
    EXPECT_TRUE(ZARNIsRegularFile("/keep/opened"));
    EXPECT_FALSE(ZARNOpen("/keep/none/file", O_RDONLY).valid());
}
