#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/locks.h"
#include "platform/process.h"
#include "platform/scope_guard.h"
#include "support/lock_holder.h"
#include "support/temproot.h"

namespace {

// Runs `body` in a forked child and returns its exit status (-1 if it died otherwise).
template <typename F>
int RunInChild(F body) {
    pid_t pid = fork();
    if (pid == 0) {
        _exit(body());
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

class LocksTest : public TempRootTest {};

TEST_F(LocksTest, PathsAndReentry) {
    EXPECT_EQ(ZARNLockPath(0xbeef), "/tmp/lock/lock_0000beef");

    // The folder is made again when something removed it.
    ASSERT_TRUE(ZARNRemoveTree("/tmp/lock"));
    ASSERT_EQ(VLIBCFileLock(PackageLockId, 0), 0);
    EXPECT_TRUE(ZARNIsRegularFile("/tmp/lock/lock_pkg"));
    EXPECT_EQ(VLIBCFileLock(PackageLockId, 0), 0) << "already held by this process";
    EXPECT_EQ(VLIBCFileLock(0x1234, 0), 0);
    EXPECT_EQ(VLIBCFileUnlock(PackageLockId), 0);
    EXPECT_EQ(VLIBCFileUnlock(0x1234), 0);
    EXPECT_EQ(VLIBCFileUnlock(0x1234), -1);
}

TEST_F(LocksTest, TimeoutAgainstAnotherProcess) {
    ChildLockHolder holder([] { return VLIBCFileLock(PackageLockId, 0) == 0; });
    ASSERT_TRUE(holder.took());

    const auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(VLIBCFileLock(PackageLockId, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(VLIBCErrGet(), ZARN_ERR_LOCK);
    // It waited for the time it was given rather than giving up at once.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_EQ(VLIBCFileLock(PackageLockId, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    // The host's setting cuts the long wait of the lifecycle down, and never lengthens one.
    writeFile("/etc/zarnhost/locks.json", R"({"max_wait_seconds": 1})");
    EXPECT_EQ(ZARNLockWaitLimit(PKG_LOCK_WAIT_SECONDS), 1);
    EXPECT_EQ(ZARNLockWaitLimit(0), 0);
    const auto capped = std::chrono::steady_clock::now();
    EXPECT_EQ(VLIBCFileLock(PackageLockId, PKG_LOCK_WAIT_SECONDS), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_LT(std::chrono::steady_clock::now() - capped, std::chrono::seconds(10));
    for (const char* bad : {"", "{\"max_wait_seconds\": -5}", "{\"max_wait_seconds\": \"1\"}"}) {
        writeFile("/etc/zarnhost/locks.json", bad);
        EXPECT_EQ(ZARNLockWaitLimit(PKG_LOCK_WAIT_SECONDS), PKG_LOCK_WAIT_SECONDS) << bad;
    }

    EXPECT_TRUE(holder.release());
    EXPECT_EQ(VLIBCFileLock(PackageLockId, 2), 0) << "free once its holder is gone";
    EXPECT_EQ(VLIBCFileUnlock(PackageLockId), 0);
}

TEST_F(LocksTest, DaemonStartedUnderLockDoesNotKeepIt) {
    ASSERT_EQ(VLIBCFileLock(PackageLockId, 0), 0);
    // A program that leaves a daemon behind, as a package's start script does: it prints the
    // daemon's process id and exits while the daemon runs on.
    ZARNUtils::ProcessRunner starter(
        {"/usr/bin/perl", "-e",
         "my $p = fork; die unless defined $p; if ($p) { print $p; exit 0 } "
         "close STDOUT; close STDERR; exec '/bin/sleep', '30'"});
    starter.captureOutput();
    ASSERT_EQ(starter.run(), 0);
    const pid_t daemon = static_cast<pid_t>(atoi(starter.getStdout().c_str()));
    ASSERT_GT(daemon, 1);
    // Whatever happens below, no daemon is left behind after the test.
    ZARN_SCOPE_EXIT {
        kill(daemon, SIGKILL);
    };
    EXPECT_EQ(kill(daemon, 0), 0) << "the daemon outlives the program that started it";

    EXPECT_EQ(VLIBCFileUnlock(PackageLockId), 0);
    EXPECT_EQ(RunInChild([] { return VLIBCFileLock(PackageLockId, 2) == 0 ? 0 : 1; }), 0)
        << "another process takes the lock right after the release";
    EXPECT_EQ(kill(daemon, 0), 0);
}

TEST_F(LocksTest, ForkedChildSharesAndCannotRelease) {
    const std::string lockFile = phys(ZARNLockPath(PackageLockId));
    auto heldElsewhere = [&lockFile] {
        // util-linux flock: exit 1 when the lock is taken.
        return ZARNUtils::ProcessRunner({"/usr/bin/flock", "-n", "-E", "1", lockFile, "/bin/true"})
                   .run() == 1;
    };
    ASSERT_EQ(VLIBCFileLock(PackageLockId, 0), 0);
    EXPECT_TRUE(heldElsewhere());
    // A forked helper of the holder counts as holding; its unlock doesn't free the parent's.
    EXPECT_EQ(RunInChild([] {
                  return VLIBCFileLock(PackageLockId, 0) == 0 && VLIBCFileUnlock(PackageLockId) == 0
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_TRUE(heldElsewhere());
    EXPECT_EQ(VLIBCFileUnlock(PackageLockId), 0);
    EXPECT_FALSE(heldElsewhere());
}
