#include "platform/locks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"

namespace {

struct HeldLock {
    Fd fd;
    pid_t owner;  // a forked child inherits the table but not the right to release
};

constexpr const char* kLockSettings = "/etc/zarnhost/locks.json";

std::mutex g_locksMutex;
std::map<unsigned int, HeldLock>& HeldLocks() {
    static std::map<unsigned int, HeldLock> locks;
    return locks;
}

}  // namespace

int ZARNLockWaitLimit(int seconds) {
    Json::Value settings;
    if (!ZARNIsRegularFile(kLockSettings) || !Json::fromFile(settings, kLockSettings) ||
        !settings.isObject() || !settings["max_wait_seconds"].isInt() ||
        settings["max_wait_seconds"].asInt() < 0) {
        return seconds;
    }
    return std::min(seconds, settings["max_wait_seconds"].asInt());
}

std::string ZARNLockPath(unsigned int id) {
    if (id == PackageLockId) {
        return "/tmp/lock/lock_pkg";
    }
    char name[64];
    snprintf(name, sizeof(name), "/tmp/lock/lock_%08x", id);
    return name;
}

Fd ZARNLockFileOpen(const std::string& path) {
    // Close-on-exec (added by the open) keeps the lock from living on in daemons that a held
    // action starts.
    Fd fd = ZARNOpen(path, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (fd.valid() && fchmod(fd.get(), 0600) != 0) {
        VLIBCErrSet(ZARN_ERR_IO);
        return Fd();
    }
    return fd;
}

bool ZARNFlock(int fd, bool exclusive, int seconds) {
    const int op = exclusive ? LOCK_EX : LOCK_SH;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(seconds > 0 ? seconds : 0);
    for (;;) {
        if (flock(fd, op | (seconds < 0 ? 0 : LOCK_NB)) == 0) {
            return true;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EWOULDBLOCK) {
            VLIBCErrSet(ZARN_ERR_IO);
            return false;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            errno = EAGAIN;
            VLIBCErrSet(ZARN_ERR_LOCK);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
}

int VLIBCFileLock(unsigned int id, int seconds) {
    {
        std::lock_guard<std::mutex> guard(g_locksMutex);
        if (HeldLocks().count(id) != 0) {
            return 0;
        }
    }
    if (!ZARNIsDir("/tmp/lock") && ZARNFSMkdirP("/tmp/lock", 0, 0, static_cast<uid_t>(-1),
                                                static_cast<gid_t>(-1), 0755) != 0) {
        return -1;
    }
    Fd fd = ZARNLockFileOpen(ZARNLockPath(id));
    if (!fd.valid() || !ZARNFlock(fd.get(), true, ZARNLockWaitLimit(seconds > 0 ? seconds : 0))) {
        return -1;
    }
    std::lock_guard<std::mutex> guard(g_locksMutex);
    // Another thread of this process may have taken it meanwhile; one descriptor is enough.
    HeldLocks().emplace(id, HeldLock{std::move(fd), getpid()});
    return 0;
}

int VLIBCFileUnlock(unsigned int id) {
    std::lock_guard<std::mutex> guard(g_locksMutex);
    auto it = HeldLocks().find(id);
    if (it == HeldLocks().end()) {
        errno = ENOENT;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    // An explicit unlock also frees the lock for a forked child that still shares the
    // descriptor; a child that only inherited the table just drops its copy.
    if (it->second.owner == getpid()) {
        flock(it->second.fd.get(), LOCK_UN);
    }
    HeldLocks().erase(it);
    return 0;
}

int VLIBCFileLockTimeByFile(const std::string& path, int type, int seconds, Fd& fd) {
    Fd file = ZARNOpen(path, O_RDONLY | O_NOFOLLOW);
    if (!file.valid() || !ZARNFlock(file.get(), type == 0, seconds)) {
        return -1;
    }
    fd = std::move(file);
    return 0;
}

int VLIBCFileUnlockByFile(Fd& fd) {
    if (!fd.valid()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    flock(fd.get(), LOCK_UN);
    return fd.close() ? 0 : -1;
}
