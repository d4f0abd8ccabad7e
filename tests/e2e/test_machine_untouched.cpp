#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/cli_runner.h"
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

class MachineUntouched : public TempRootTest {};

}  // namespace

// Every command under --root works inside the root and leaves the machine's own registry,
// settings, accounts and volumes as they were.
TEST_F(MachineUntouched, CommandsUnderARootLeaveTheMachineAlone) {
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
