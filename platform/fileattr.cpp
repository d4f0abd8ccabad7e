#include "platform/fileattr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "platform/errors.h"
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
