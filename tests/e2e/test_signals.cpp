#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

// The processes whose command line names `needle`, as "pid: command line".
std::vector<std::string> ProcessesNaming(const std::string& needle) {
    std::vector<std::string> found;
    // /proc is the machine's, not the root's.
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return found;
    }
    while (struct dirent* entry = readdir(proc)) {
        const std::string name = entry->d_name;
        if (name.find_first_not_of("0123456789") != std::string::npos ||
            name == std::to_string(getpid())) {
            continue;
        }
        std::ifstream in("/proc/" + name + "/cmdline");
        std::stringstream text;
        text << in.rdbuf();
        std::string line = text.str();
        for (char& c : line) {
            c = c == '\0' ? ' ' : c;
        }
        if (line.find(needle) != std::string::npos) {
            found.push_back(name + ": " + line);
        }
    }
    closedir(proc);
    return found;
}

class SignalE2ETest : public TempRootTest {};

TEST_F(SignalE2ETest, StoppedCheckLeavesNoTemporaryFolderNorChild) {
    // A payload that takes a while to read and hash: the command is stopped meanwhile.
    const std::string dir = "/tmp/slow";
    ASSERT_EQ(qartest::Run({"/bin/mkdir", "-p", phys(dir)}), 0);
    writeFile(dir + "/INFO",
              qartest::BasicInfo("slow", "1.0-1", {{"checksum", std::string(32, 'a')}}));
    ASSERT_EQ(qartest::Run({"/usr/bin/truncate", "-s", "512M", phys(dir + "/package.tgz")}), 0);
    const std::string qar = phys("/tmp/slow.qar");
    ASSERT_EQ(qartest::Run({"/bin/tar", "cf", qar, "-C", phys(dir), "INFO", "package.tgz"}), 0);
    ASSERT_TRUE(ZARNRemoveTree(dir));

    const std::string binary = std::string(ZARN_BINARY_DIR) + "/zarnpkg";
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        unsetenv("ZARNPKG_ROOT");
        execl(binary.c_str(), binary.c_str(), "--root", root().c_str(), "check", qar.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    // Stopped while it reads the payload: the package file is open.
    auto readsPackage = [pid] {
        const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
        DIR* dir = opendir(fds.c_str());
        bool open = false;
        while (struct dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
            char target[4096];
            const ssize_t n =
                readlink((fds + "/" + entry->d_name).c_str(), target, sizeof(target) - 1);
            open = open || (n > 0 && std::string(target, static_cast<size_t>(n)).find("slow.qar") !=
                                         std::string::npos);
        }
        if (dir != nullptr) {
            closedir(dir);
        }
        return open;
    };
    bool busy = false;
    for (int i = 0; i < 3000 && !busy; ++i) {
        busy = readsPackage();
        if (!busy) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ASSERT_TRUE(busy) << "the payload was never seen read";
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGTERM) << "status " << status;

    std::vector<ZARNDirEntry> left;
    ASSERT_TRUE(ZARNListDir("/volume1/@tmp", left));
    EXPECT_TRUE(left.empty()) << left.size() << " left, first " << left[0].name;
    // A killed child may take a moment to be gone from the process table.
    std::vector<std::string> orphans = ProcessesNaming(root());
    for (int i = 0; i < 200 && !orphans.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        orphans = ProcessesNaming(root());
    }
    EXPECT_TRUE(orphans.empty()) << orphans.front();
}

}  // namespace
