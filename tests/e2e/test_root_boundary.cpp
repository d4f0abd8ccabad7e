#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/cli_runner.h"
#include "support/qar_builder.h"
#include "support/temproot.h"

namespace {

// What a run under a temporary root could damage on the machine itself, read with the C library
// directly so that no root mapping is involved.
std::string MachineState() {
    std::string state;
    for (const char* path : {"/etc/passwd", "/etc/group", "/etc/shadow", "/etc/zarninfo.conf",
                             "/etc.defaults", "/etc/zarnhost", "/var/packages", "/usr/zarn",
                             "/usr/local/packages", "/volume1", "/tmp/lock/lock_pkg"}) {
        struct stat st;
        state += path;
        if (lstat(path, &st) != 0) {
            state += " absent\n";
            continue;
        }
        state += " mode " + std::to_string(st.st_mode) + " mtime " +
                 std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
        if (S_ISREG(st.st_mode)) {
            std::ifstream in(path);
            std::stringstream text;
            text << in.rdbuf();
            state += " text " + std::to_string(std::hash<std::string>()(text.str()));
        }
        state += "\n";
    }
    return state;
}

class RootBoundaryE2ETest : public TempRootTest {
protected:
    void TearDown() override {
        qartest::Run({"/bin/rm", "-rf", outside_});
        TempRootTest::TearDown();
    }
    std::string outside_;
};

TEST_F(RootBoundaryE2ETest, CommandsNeitherReadNorChangeWhatLinksOutsideTheRoot) {
    char tmpl[] = "/tmp/zarnpkg-outside-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    outside_ = tmpl;
    const std::string info = qartest::BasicInfo("evil", "6.6-6", {{"displayname", "OUTSIDE"}});
    ASSERT_EQ(qartest::Run({"/bin/mkdir", "-p", outside_ + "/pkg", outside_ + "/conf"}), 0);
    ASSERT_EQ(qartest::Run({"/bin/cp", phys("/etc/zarninfo.conf"), outside_ + "/conf/"}), 0);
    writeFile("/tmp/evil.INFO", info);
    ASSERT_EQ(qartest::Run({"/bin/cp", phys("/tmp/evil.INFO"), outside_ + "/pkg/INFO"}), 0);
    const std::vector<std::pair<std::string, std::string>> links = {
        {outside_ + "/pkg", "/var/packages/evil"},
        {outside_ + "/pkg", "/volume1/@appstore/evil"},
        {outside_ + "/conf", "/etc/zarnhost"},
    };
    ASSERT_EQ(qartest::Run({"/bin/rm", "-rf", phys("/etc/zarnhost")}), 0);
    ASSERT_EQ(qartest::Run({"/bin/mkdir", "-p", phys("/volume1/@appstore")}), 0);
    for (const auto& link : links) {
        ASSERT_EQ(symlink(link.first.c_str(), phys(link.second).c_str()), 0) << link.second;
    }
    writeFile("/var/packages/good/INFO", qartest::BasicInfo("good", "1.0-1"));
    ASSERT_EQ(symlink(outside_.c_str(), phys("/var/packages/good/target").c_str()), 0);
    // What is outside: its paths and the content of its files.
    auto seen = [this] {
        std::vector<std::string> all = qartest::Snapshot(outside_);
        for (const char* file : {"/pkg/INFO", "/conf/zarninfo.conf"}) {
            std::string text;
            qartest::Run({"/bin/cat", outside_ + file}, &text);
            all.push_back(text);
        }
        return all;
    };
    const std::vector<std::string> before = seen();

    for (const std::vector<std::string>& args : {std::vector<std::string>{"host-init"},
                                                 {"--json", "list"},
                                                 {"list"},
                                                 {"info", "evil"},
                                                 {"--json", "info", "good"},
                                                 {"--json", "status", "evil"}}) {
        const CliRun r = RunZarnpkg(root(), args);
        EXPECT_EQ(r.out.find("OUTSIDE"), std::string::npos) << args.back() << ": " << r.out;
        EXPECT_EQ(r.out.find("6.6-6"), std::string::npos) << args.back() << ": " << r.out;
    }
    EXPECT_EQ(before, seen());
}

// Every command under --root works inside the root and leaves the machine's own registry,
// settings, accounts and volumes as they were.
TEST_F(RootBoundaryE2ETest, CommandsUnderARootLeaveTheMachineAlone) {
    const std::string before = MachineState();
    const std::string qar = root() + "/tmp/hello.qar";
    const std::vector<std::vector<std::string>> commands = {
        {"host-init"},
        {"host-init", "--volumes", "2"},
        {"pack", ZARN_SOURCE_DIR "/examples/hello", "-o", qar},
        {"check", qar},
        {"info", qar},
        {"list"},
        {"status", "hello"},
        {"log", "hello"},
        {"order"},
    };
    for (const auto& args : commands) {
        CliRun r = RunZarnpkg(root(), args);
        EXPECT_LE(r.status, 1) << args[0] << ": " << r.err;
    }
    EXPECT_EQ(RunZarnpkg(root(), {"host-init"}).status, 0);
    EXPECT_EQ(MachineState(), before);
}

}  // namespace
