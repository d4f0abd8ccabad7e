#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "platform/fd.h"
#include "platform/process.h"

namespace {

using ZARNUtils::ProcessRunner;

// Reads a pipe to its end.
std::string ReadAll(int fd) {
    std::string text;
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) {
        text.append(buf, static_cast<size_t>(n));
    }
    return text;
}

// Reads the first line that a child wrote: its process id.
pid_t FirstLinePid(int fd) {
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') {
        line.push_back(c);
    }
    return line.empty() ? -1 : static_cast<pid_t>(std::stol(line));
}

// True once the process is gone or a zombie, within a few seconds.
bool Ends(pid_t pid) {
    for (int i = 0; i < 500; ++i) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string text;
        if (!std::getline(stat, text) || text.find(") Z") != std::string::npos) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST(FdTest, OwnsOneDescriptor) {
    const int raw = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(raw, 0);
    {
        Fd first(raw);
        Fd second(std::move(first));
        EXPECT_FALSE(first.valid());
        Fd third;
        third = std::move(second);
        EXPECT_EQ(third.get(), raw);
        const int given = third.release();
        EXPECT_FALSE(third.valid());
        EXPECT_GE(fcntl(given, F_GETFD), 0) << "released, not closed";
        third.reset(given);
    }
    EXPECT_EQ(fcntl(raw, F_GETFD), -1) << "closed by its owner";
}

TEST(FdTest, ReadPipeOwnsItsChild) {
    ProcessRunner echo({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"});
    const int fd = echo.startReading();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ReadAll(fd), "out\n");
    EXPECT_EQ(echo.finish(), 3);

    // A runner that goes before finish() terminates and reaps its child.
    pid_t pid = -1;
    {
        ProcessRunner sleeper({"/bin/sh", "-c", "echo $$; exec sleep 30"});
        pid = FirstLinePid(sleeper.startReading());
        ASSERT_GT(pid, 0);
    }
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

// The child of a runner whose process dies at once, without a chance to clean up, dies too;
// under another identity as well, which the parent-death signal must survive.
TEST(FdTest, ChildrenDieWithTheirParent) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    Fd fromMiddle(fds[0]), toTest(fds[1]);
    const pid_t middle = fork();
    ASSERT_GE(middle, 0);
    if (middle == 0) {
        ProcessRunner sleeper({"/bin/sh", "-c", "echo $$; exec sleep 30"});
        if (geteuid() == 0) {
            sleeper.setIdentity(65534, 65534, {});
        }
        const std::string line = std::to_string(FirstLinePid(sleeper.startReading())) + "\n";
        (void)!write(toTest.get(), line.data(), line.size());
        raise(SIGKILL);
    }
    toTest.reset();
    const pid_t pid = FirstLinePid(fromMiddle.get());
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(middle, &status, 0), middle);
    const bool ended = Ends(pid);
    kill(pid, SIGKILL);
    EXPECT_TRUE(ended) << "pid " << pid << " outlived its parent";
}

}  // namespace
