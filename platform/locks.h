#pragma once

#include <string>

#include "platform/export.h"
#include "platform/fd.h"

// Numbered locks: flock on files under /tmp/lock/ of the root, held by the process until
// released. 0x10000006 is the package lock, /tmp/lock/lock_pkg.
constexpr unsigned int PackageLockId = 0x10000006;

// How long the lifecycle waits for the package lock.
constexpr int PKG_LOCK_WAIT_SECONDS = 180;

// The wait of `seconds` as this host allows it: "max_wait_seconds" of
// /etc/zarnhost/locks.json, a number of 0 or more, lowers every longer wait (so that a test of
// contention takes seconds); without that setting the wait stays as asked.
ZARNHOST_API int ZARNLockWaitLimit(int seconds);

// The logical lock file of a numbered lock.
ZARNHOST_API std::string ZARNLockPath(unsigned int id);
// Takes the lock, waiting up to `seconds` (0: one try) or the host's limit. 0 when held; else -1
// with errno set (EAGAIN for a plain timeout) and the last error set.
ZARNHOST_API int VLIBCFileLock(unsigned int id, int seconds);
ZARNHOST_API int VLIBCFileUnlock(unsigned int id);

// Opens (creates) a lock file by logical path: never through a link, readable and writable by
// its owner alone, so that no other account can hold it and block the library.
ZARNHOST_API Fd ZARNLockFileOpen(const std::string& path);
// flock on an open lock file, waiting up to `seconds` (0: one try; negative: as long as it
// takes). False with errno (EAGAIN for a plain timeout) and the last error set.
ZARNHOST_API bool ZARNFlock(int fd, bool exclusive, int seconds);

// Opens an existing file read-only (never through a link) and flocks it, exclusive for `type` 0
// and shared otherwise, waiting up to `seconds`: the lock that scripts take on the files they
// report through. 0 with `fd` holding the file, else -1 (errno and last error set).
ZARNHOST_API int VLIBCFileLockTimeByFile(const std::string& path, int type, int seconds, Fd& fd);
// Lets go of such a lock and closes the file.
ZARNHOST_API int VLIBCFileUnlockByFile(Fd& fd);
