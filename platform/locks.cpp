#include "platform/locks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>

#include "platform/errors.h"
#include "platform/files.h"

namespace {

struct HeldLock {
    int fd;
    pid_t owner;  // a forked child inherits the table but not the right to release
};

std::mutex g_locksMutex;
std::map<unsigned int, HeldLock>& HeldLocks() {
    static std::map<unsigned int, HeldLock> locks;
    return locks;
}

}  // namespace

std::string ZARNLockPath(unsigned int id) {
    if (id == PackageLockId) {
        return "/tmp/lock/lock_pkg";
    }
    char name[64];
    snprintf(name, sizeof(name), "/tmp/lock/lock_%08x", id);
    return name;
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
    // Close-on-exec keeps the lock from living on in daemons that a held action starts.
    int fd = ZARNOpen(ZARNLockPath(id), O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        return -1;
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(seconds > 0 ? seconds : 0);
    for (;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            break;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EWOULDBLOCK) {
            int saved = errno;
            close(fd);
            errno = saved;
            VLIBCErrSet(ZARN_ERR_IO);
            return -1;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            close(fd);
            errno = EAGAIN;
            VLIBCErrSet(ZARN_ERR_LOCK);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
    }
    std::lock_guard<std::mutex> guard(g_locksMutex);
    auto inserted = HeldLocks().emplace(id, HeldLock{fd, getpid()});
    if (!inserted.second) {
        // Another thread of this process took it meanwhile; one descriptor is enough.
        close(fd);
    }
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
        flock(it->second.fd, LOCK_UN);
    }
    close(it->second.fd);
    HeldLocks().erase(it);
    return 0;
}
