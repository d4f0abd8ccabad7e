#include "support/temproot.h"

#include <sys/stat.h>

#include <cstdlib>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/host_init.h"
#include "platform/jobs.h"
#include "platform/sysroot.h"

TempRootTest::SavedVar TempRootTest::saveVar(const char* name) {
    SavedVar saved;
    const char* value = getenv(name);
    if (value != nullptr) {
        saved.set = true;
        saved.value = value;
    }
    return saved;
}

void TempRootTest::restoreVar(const char* name, const SavedVar& saved) {
    if (saved.set) {
        setenv(name, saved.value.c_str(), 1);
    } else {
        unsetenv(name);
    }
}

void TempRootTest::SetUp() {
    savedRootVar_ = saveVar("ZARNPKG_ROOT");
    savedLogVar_ = saveVar("ZARNPKG_LOG_FILE");
    savedUmask_ = umask(022);
    savedSystemRoot_ = ZARNPackageCore::GetSystemRoot();

    char tmpl[] = "/tmp/zarnpkg-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr) << "cannot make a temporary root";
    // The real path, so that paths the machine reports back (links, /proc) compare equal.
    char* real = realpath(tmpl, nullptr);
    ASSERT_NE(real, nullptr);
    root_ = real;
    free(real);
    logPath_ = root_ + "/zarnpkg-test.log";

    setenv("ZARNPKG_ROOT", root_.c_str(), 1);
    setenv("ZARNPKG_LOG_FILE", logPath_.c_str(), 1);
    ZARNPackageCore::SetSystemRoot(root_);
    VLIBCErrSetEx(ZARN_ERR_NONE, "", 0);

    std::string error;
    ASSERT_TRUE(ZARNHostInit(error)) << error;
}

void TempRootTest::TearDown() {
    if (!root_.empty()) {
        // Removed through the machine's view of the path: the root itself is the tree to go.
        ZARNPackageCore::SetSystemRoot("/");
        EXPECT_TRUE(ZARNRemoveTree(root_)) << "cannot remove " << root_;
    }
    ZARNPackageCore::SetSystemRoot(savedSystemRoot_);
    restoreVar("ZARNPKG_ROOT", savedRootVar_);
    restoreVar("ZARNPKG_LOG_FILE", savedLogVar_);
    umask(savedUmask_);
}

std::string TempRootTest::phys(const std::string& logical) const {
    return ZARNPhysicalPath(logical);
}

void TempRootTest::writeFile(const std::string& logical, const std::string& text, mode_t mode) {
    size_t slash = logical.find_last_of('/');
    if (slash != std::string::npos && slash > 0) {
        makeDir(logical.substr(0, slash));
    }
    ASSERT_TRUE(ZARNFileWrite(logical, text, mode)) << logical;
}

void TempRootTest::removeKey(const std::string& logical, const std::string& key) {
    std::string text = readFile(logical);
    const size_t line = text.find(key + "=");
    ASSERT_NE(std::string::npos, line) << key << " in " << logical;
    text.erase(line, text.find('\n', line) - line + 1);
    writeFile(logical, text);
}

void TempRootTest::addPackage(const std::string& name, const std::string& info,
                              const std::string& target) {
    std::string text;
    for (const char* key : {"package", "version", "maintainer", "description"}) {
        const std::string line = std::string(key) + "=";
        if (info.compare(0, line.size(), line) != 0 &&
            info.find("\n" + line) == std::string::npos) {
            const std::string value = line == "package=" ? name : line == "version=" ? "1.0" : key;
            text += line + "\"" + value + "\"\n";
        }
    }
    const std::string dir = "/var/packages/" + name;
    writeFile(dir + "/INFO", text + info);
    if (target.empty()) {
        return;
    }
    const std::string payload = target == kDefaultTarget ? "/volume1/@appstore/" + name : target;
    writeFile(payload + "/.keep", "");
    ASSERT_TRUE(ZARNSymlink(payload, dir + "/target")) << payload;
}

void TempRootTest::addControlScript(const std::string& name, int statusExit) {
    writeFile("/var/packages/" + name + "/scripts/start-stop-status",
              "#!/bin/sh\n[ \"$1\" = status ] || exit 0\nexit " + std::to_string(statusExit) + "\n",
              0755);
}

void TempRootTest::enable(const std::string& name) {
    writeFile("/var/packages/" + name + "/enabled", "");
}

void TempRootTest::markRunning(const std::string& name) {
    enable(name);
    ASSERT_TRUE(ZARNJobStateWrite("pkgctl-" + name, 1, 1, ZARN_JOB_PHASE_RUNNING));
}

void TempRootTest::makeDir(const std::string& logical, mode_t mode) {
    ASSERT_EQ(ZARNFSMkdirP(logical, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), mode), 0)
        << logical;
}

mode_t TempRootTest::modeOf(const std::string& logical) const {
    struct stat st = {};
    return ZARNLstat(logical, st) ? (st.st_mode & 07777) : 0;
}

std::string TempRootTest::readFile(const std::string& logical) const {
    std::string text;
    if (!ZARNFileRead(logical, text)) {
        text.clear();
    }
    return text;
}

std::string TempRootTest::logText() const {
    std::string text;
    if (!ZARNFileRead(ZARNLogicalPath(logPath_), text)) {
        text.clear();
    }
    return text;
}

int FailedWith(bool ok) {
    return ok ? -1 : VLIBCErrGet();
}

std::string OutIf(bool ok, const std::string& out) {
    return ok ? out : "failed";
}

size_t CountOf(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}
