#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/fd.h"

// The root as a boundary. Under a root other than "/" a logical path is resolved inside the
// root, as the appliance would resolve it: an absolute link or a ".." jumps to the root, never
// above it. Under "/", and for a relative path (a file a person names outside the root), the
// path is used as it stands.

// A logical path made ready for an *at() call on its last component.
struct ZARNAtPath {
    Fd held;             // the parent folder resolved inside the root, when there is one
    int dir = AT_FDCWD;  // the folder that `name` is relative to
    std::string name;    // the last component, or the whole path against the working folder
    int noFollow = 0;    // AT_SYMLINK_NOFOLLOW wherever the kernel must not follow a last link
};

// Resolves the parent folder inside the root. With `followLast` a link in the last place is
// resolved inside the root too, so that `name` never is a link that could lead outside.
// False with errno and the last error set.
ZARNHOST_API bool ZARNResolveAt(const std::string& logical, bool followLast, ZARNAtPath& at);
// Opens a logical path inside the root; O_CLOEXEC is added. Invalid with errno on failure.
ZARNHOST_API Fd ZARNOpenInRoot(const std::string& logical, int flags, mode_t mode = 0);
// stat (follow) or lstat inside the root; errno on failure, the last error untouched, so that
// a mere test for a file never hides the failure a caller is reporting.
ZARNHOST_API bool ZARNStatInRoot(const std::string& logical, bool follow, struct stat& st);
// Whether a logical path leads to something inside the root, opened with `flags`: O_NOFOLLOW
// takes a last link itself, O_DIRECTORY asks for a folder. errno on failure, the last error
// untouched; cheaper than a stat for a caller that needs no more than the answer.
ZARNHOST_API bool ZARNReachableInRoot(const std::string& logical, int flags);
// Makes the resolution walk the components itself, as it does where the kernel lacks
// openat2: for tests of that walk.
ZARNHOST_API void ZARNRootWalkForce(bool force);

// Checks the physical paths among a program's arguments (argv[0], the program, aside): one
// under the root must lead to a place inside it when the program follows its links. False,
// logged, when one leads outside.
ZARNHOST_API bool ZARNProgramArgsInRoot(const std::vector<std::string>& argv);
