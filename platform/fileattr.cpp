#include "platform/fileattr.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/rootat.h"
#include "platform/sysroot.h"

namespace {

void SetIoError(const char* file, int line) {
    int saved = errno;
    VLIBCErrSetEx(saved == ENOENT || saved == ENOTDIR ? ZARN_ERR_NO_FILE : ZARN_ERR_IO, file, line);
    errno = saved;
}

}  // namespace

bool ZARNFStat(int fd, struct stat& st) {
    if (fstat(fd, &st) != 0) {
        SetIoError(__FILE__, __LINE__);
        return false;
    }
    return true;
}

bool ZARNFChown(int fd, uid_t uid, gid_t gid) {
    if (fchown(fd, uid, gid) != 0) {
        SetIoError(__FILE__, __LINE__);
        return false;
    }
    return true;
}

bool ZARNFChmod(int fd, mode_t mode) {
    if (fchmod(fd, mode) != 0) {
        SetIoError(__FILE__, __LINE__);
        return false;
    }
    return true;
}

bool ZARNRealPath(const std::string& path, std::string& real) {
    if (path.empty() || path.find('\0') != std::string::npos) {
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    // Resolved inside the root; the kernel names the place the descriptor reached.
    Fd fd = ZARNOpenInRoot(path, O_PATH);
    char resolved[PATH_MAX];
    ssize_t n = -1;
    if (fd.valid()) {
        const std::string self = "/proc/self/fd/" + std::to_string(fd.get());
        n = readlink(self.c_str(), resolved, sizeof(resolved));
    }
    if (n < 0 || static_cast<size_t>(n) >= sizeof(resolved)) {
        SetIoError(__FILE__, __LINE__);
        return false;
    }
    real = ZARNLogicalPath(std::string(resolved, static_cast<size_t>(n)));
    return true;
}

int ZARNACLIsSupport(const std::string& path, int fd, int kind) {
    if (kind != 2) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    Fd own;
    if (fd < 0) {
        own = ZARNOpen(path, O_RDONLY | O_NOFOLLOW);
        if (!own.valid()) {
            return -1;
        }
        fd = own.get();
    }
    // The kernel keeps an ACL as an extended attribute only when it says more than the mode.
    for (const char* name : {"system.posix_acl_access", "system.posix_acl_default"}) {
        if (fgetxattr(fd, name, nullptr, 0) >= 0) {
            return 1;
        }
        if (errno != ENODATA && errno != ENOTSUP) {
            SetIoError(__FILE__, __LINE__);
            return -1;
        }
    }
    return 0;
}
