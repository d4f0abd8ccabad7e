#include "platform/rootat.h"

#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <deque>

#include "platform/errors.h"
#include "platform/log.h"
#include "platform/sysroot.h"
#include "platform/textsplit.h"

namespace {

constexpr int kMaxLinks = 40;  // as the kernel allows in one resolution

std::atomic<bool> g_walk{false};

bool InRootMode(const std::string& logical) {
    return !logical.empty() && logical[0] == '/' && ZARNPackageCore::GetSystemRoot() != "/";
}

// The root's folder, opened once per root and thread, so that scans on several threads share
// no lock; -1 with errno when it can't be opened.
int RootFd() {
    thread_local std::string openedRoot;
    thread_local Fd fd;
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (!fd.valid() || openedRoot != root) {
        fd.reset(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        openedRoot = root;
    }
    return fd.get();
}

void SetErrnoError() {
    int saved = errno;
    VLIBCErrSet(saved == ENOENT || saved == ENOTDIR ? ZARN_ERR_NO_FILE : ZARN_ERR_IO);
    errno = saved;
}

void SplitInto(const std::string& path, std::deque<std::string>& parts, bool front) {
    const std::vector<std::string> names = ZARNPathNames(path);
    parts.insert(front ? parts.begin() : parts.end(), names.begin(), names.end());
}

bool ReadLinkAt(int dir, const std::string& name, std::string& target) {
    char buf[PATH_MAX];
    ssize_t n = readlinkat(dir, name.c_str(), buf, sizeof(buf));
    if (n < 0) {
        return false;
    }
    target.assign(buf, static_cast<size_t>(n));
    return true;
}

// Opens `rel` one component at a time where openat2 is missing. The kernel never follows a
// link here: each is read and walked from the root (absolute) or from where it lies, and ".."
// never climbs above the root.
Fd WalkInRoot(int rootFd, const std::string& rel, int flags, mode_t mode) {
    std::vector<Fd> stack;  // the folders below the root down to the current one
    std::deque<std::string> parts;
    SplitInto(rel, parts, false);
    int links = 0;
    auto current = [&] { return stack.empty() ? rootFd : stack.back().get(); };
    while (!parts.empty()) {
        const std::string part = parts.front();
        parts.pop_front();
        if (part == "..") {
            if (!stack.empty()) {
                stack.pop_back();
            }
            continue;
        }
        const bool last = parts.empty();
        struct stat st;
        const bool isLink =
            fstatat(current(), part.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
        if (isLink && !(last && (flags & O_NOFOLLOW) != 0)) {
            std::string target;
            if (++links > kMaxLinks) {
                errno = ELOOP;
                return Fd();
            }
            if (!ReadLinkAt(current(), part, target)) {
                return Fd();
            }
            if (!target.empty() && target[0] == '/') {
                stack.clear();
            }
            SplitInto(target, parts, true);
            continue;
        }
        if (last) {
            return Fd(openat(current(), part.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
        }
        Fd next(openat(current(), part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next.valid()) {
            return next;
        }
        stack.push_back(std::move(next));
    }
    // The path named the root or a folder reached through "..".
    return Fd(openat(current(), ".", flags | O_CLOEXEC, mode));
}

Fd OpenRel(int rootFd, const std::string& rel, int flags, mode_t mode) {
    if (!g_walk.load(std::memory_order_relaxed)) {
        struct open_how how = {};
        how.flags = static_cast<unsigned long long>(flags | O_CLOEXEC);
        how.mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode : 0;
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
        for (int attempt = 0; attempt < 8; ++attempt) {
            long fd = syscall(SYS_openat2, rootFd, rel.c_str(), &how, sizeof(how));
            if (fd >= 0) {
                return Fd(static_cast<int>(fd));
            }
            // EAGAIN: a rename raced with the resolution; it is safe to try again.
            if (errno != EAGAIN) {
                break;
            }
        }
        if (errno != ENOSYS) {
            return Fd();
        }
        g_walk.store(true, std::memory_order_relaxed);
    }
    return WalkInRoot(rootFd, rel, flags, mode);
}

std::string DirOf(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

void ZARNRootWalkForce(bool force) {
    g_walk.store(force, std::memory_order_relaxed);
}

namespace {

// Opens inside the root without touching the last error.
Fd OpenQuietly(const std::string& logical, int flags, mode_t mode) {
    if (!InRootMode(logical)) {
        return Fd(open(logical.c_str(), flags | O_CLOEXEC, mode));
    }
    const int rootFd = RootFd();
    if (rootFd < 0) {
        return Fd();
    }
    const size_t first = logical.find_first_not_of('/');
    return OpenRel(rootFd, first == std::string::npos ? "." : logical.substr(first), flags, mode);
}

}  // namespace

Fd ZARNOpenInRoot(const std::string& logical, int flags, mode_t mode) {
    Fd fd = OpenQuietly(logical, flags, mode);
    if (!fd.valid()) {
        SetErrnoError();
    }
    return fd;
}

bool ZARNStatInRoot(const std::string& logical, bool follow, struct stat& st) {
    if (!InRootMode(logical)) {
        return (follow ? stat(logical.c_str(), &st) : lstat(logical.c_str(), &st)) == 0;
    }
    // One resolution of the whole path; O_PATH with O_NOFOLLOW holds a last link itself.
    const Fd fd = OpenQuietly(logical, O_PATH | (follow ? 0 : O_NOFOLLOW), 0);
    return fd.valid() && fstat(fd.get(), &st) == 0;
}

bool ZARNReachableInRoot(const std::string& logical, int flags) {
    if (!InRootMode(logical)) {
        struct stat st;
        const bool found = ((flags & O_NOFOLLOW) != 0 ? lstat(logical.c_str(), &st)
                                                      : stat(logical.c_str(), &st)) == 0;
        return found && ((flags & O_DIRECTORY) == 0 || S_ISDIR(st.st_mode));
    }
    // The open itself answers: O_DIRECTORY fails on anything but a folder, so no stat follows.
    return OpenQuietly(logical, O_PATH | flags, 0).valid();
}

bool ZARNResolveAt(const std::string& logical, bool followLast, ZARNAtPath& at) {
    at.held.reset();
    if (!InRootMode(logical)) {
        at.dir = AT_FDCWD;
        at.name = logical;
        at.noFollow = followLast ? 0 : AT_SYMLINK_NOFOLLOW;
        return true;
    }
    at.noFollow = AT_SYMLINK_NOFOLLOW;
    std::string path = logical;
    for (int links = 0;; ++links) {
        while (path.size() > 1 && path.back() == '/') {
            path.pop_back();
        }
        const size_t slash = path.find_last_of('/');
        std::string name = path.substr(slash + 1);
        std::string parent = path.substr(0, slash + 1);
        if (name.empty() || name == "." || name == "..") {
            // The folder itself: resolving it whole keeps ".." from climbing out of the root.
            parent = path;
            name = ".";
        }
        at.held = ZARNOpenInRoot(parent, O_PATH | O_DIRECTORY);
        if (!at.held.valid()) {
            return false;
        }
        at.dir = at.held.get();
        at.name = name;
        std::string target;
        if (!followLast || name == "." || !ReadLinkAt(at.dir, name, target)) {
            return true;
        }
        if (links >= kMaxLinks) {
            errno = ELOOP;
            SetErrnoError();
            return false;
        }
        path = target[0] == '/' ? target : DirOf(path) + "/" + target;
    }
}

namespace {

// Where the machine takes a physical path when it follows its links: the real path of the
// deepest part that exists, with a dangling link in the way followed by hand.
bool RealPlace(std::string path, std::string& real) {
    std::string rest;
    for (int links = 0; links <= kMaxLinks;) {
        char* resolved = realpath(path.c_str(), nullptr);
        if (resolved != nullptr) {
            real = std::string(resolved) + rest;
            free(resolved);
            return true;
        }
        if (errno != ENOENT && errno != ENOTDIR) {
            return false;
        }
        std::string target;
        if (ReadLinkAt(AT_FDCWD, path, target)) {
            ++links;
            path = target[0] == '/' ? target : DirOf(path) + "/" + target;
            continue;
        }
        const size_t slash = path.find_last_of('/');
        if (slash == std::string::npos || path == "/") {
            return false;
        }
        rest = path.substr(slash) + rest;
        path = slash == 0 ? "/" : path.substr(0, slash);
    }
    errno = ELOOP;
    return false;
}

bool Under(const std::string& path, const std::string& dir) {
    return path.compare(0, dir.size(), dir) == 0 &&
           (path.size() == dir.size() || path[dir.size()] == '/');
}

}  // namespace

bool ZARNProgramArgsInRoot(const std::vector<std::string>& argv) {
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root == "/") {
        return true;
    }
    std::string realRoot;
    if (!RealPlace(root, realRoot)) {
        realRoot = root;
    }
    // The program itself may be a tool of the root linked to the machine's binary; what it is
    // handed must stay inside.
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& arg = argv[i];
        if (!Under(arg, root)) {
            continue;
        }
        std::string real;
        if (!RealPlace(arg, real) || !Under(real, realRoot)) {
            ZLOGERR("Refused to run %s: %s leads outside the root %s", argv[0].c_str(), arg.c_str(),
                    root.c_str());
            return false;
        }
    }
    return true;
}
