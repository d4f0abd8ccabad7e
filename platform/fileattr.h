#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "platform/export.h"

// Work on an open descriptor, so that what was checked is what gets changed, and the real
// location of a logical path. Failures set errno and the last-error slot and do not log.

ZARNHOST_API bool ZARNFStat(int fd, struct stat& st);
ZARNHOST_API bool ZARNFChown(int fd, uid_t uid, gid_t gid);
ZARNHOST_API bool ZARNFChmod(int fd, mode_t mode);

// The logical path of a logical path with every symbolic link and "." or ".." resolved, as the
// machine sees it. A result outside the system root comes back as the machine's own path.
ZARNHOST_API bool ZARNRealPath(const std::string& path, std::string& real);

// Whether a file is in ACL mode, with access or default entries beyond its mode bits: 1 when it
// is, 0 when its plain mode rules, -1 when it can't be read. `fd` -1 opens `path`; `kind` is the
// appliance's selector and only 2 (the file itself) is known here.
ZARNHOST_API int ZARNACLIsSupport(const std::string& path, int fd, int kind);
