#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>

// How often `what` occurs in `text` (overlapping occurrences count).
size_t CountOf(const std::string& text, const std::string& what);

// The error slot after a call that failed, or -1 when the call succeeded, so that one
// comparison checks both: EXPECT_EQ(FailedWith(Call()), ZARN_ERR_...).
int FailedWith(bool ok);

// What a call left in `out` when it succeeded, or "failed", so that one comparison checks
// both: EXPECT_EQ(OutIf(Call(out), out), "...").
std::string OutIf(bool ok, const std::string& out);

// Runs each test under a fresh standalone root in a temporary folder, with the library's log
// mirrored to a file there. The process state that the fixture changes (ZARNPKG_ROOT,
// ZARNPKG_LOG_FILE, the umask, the system root) is put back afterwards.
class TempRootTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The physical folder that holds the root.
    const std::string& root() const { return root_; }
    // The physical path of a logical one.
    std::string phys(const std::string& logical) const;
    // Writes a file by logical path, making its folders.
    void writeFile(const std::string& logical, const std::string& text, mode_t mode = 0644);
    // The content of a file by logical path; empty when it can't be read.
    std::string readFile(const std::string& logical) const;
    // Makes a folder and its parents by logical path.
    void makeDir(const std::string& logical, mode_t mode = 0755);
    // The permission bits (set-ID and sticky included) of a path, not following a last link;
    // 0 when it doesn't exist.
    mode_t modeOf(const std::string& logical) const;
    // Takes the line of `key` out of a key file (by logical path), keeping the others.
    void removeKey(const std::string& logical, const std::string& key);
    // Lays down a registry entry: INFO with the package name, version "1.0", maintainer and
    // description (each unless `info` holds a line of its own for it) and then the lines of
    // `info`; a payload folder at `target` and the target link to it (no link when empty).
    void addPackage(const std::string& name, const std::string& info = "",
                    const std::string& target = kDefaultTarget);
    static constexpr const char* kDefaultTarget = "/volume1/@appstore/<name>";
    // Gives a package a control script whose `status` ends with `statusExit`; every other
    // action succeeds.
    void addControlScript(const std::string& name, int statusExit);
    // Marks a package enabled, as the person left it.
    void enable(const std::string& name);
    // Marks a package enabled with its job running, as a start leaves it.
    void markRunning(const std::string& name);
    // Everything the library logged during the test so far.
    std::string logText() const;
    // Whether the library logged `what` during the test so far.
    bool logged(const std::string& what) const { return logText().find(what) != std::string::npos; }
    // The physical path of the log mirror.
    const std::string& logPath() const { return logPath_; }

private:
    struct SavedVar {
        bool set = false;
        std::string value;
    };
    static SavedVar saveVar(const char* name);
    static void restoreVar(const char* name, const SavedVar& saved);

    std::string root_;
    std::string logPath_;
    SavedVar savedRootVar_;
    SavedVar savedLogVar_;
    mode_t savedUmask_ = 022;
    std::string savedSystemRoot_;
};
