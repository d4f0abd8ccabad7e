#include "platform/fileattr.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "platform/errors.h"
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

void ZARNClose(int fd) {
    if (fd >= 0) {
        int saved = errno;
        close(fd);
        errno = saved;
    }
}

bool ZARNRealPath(const std::string& path, std::string& real) {
    if (path.empty() || path.find('\0') != std::string::npos) {
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    char* resolved = realpath(ZARNPhysicalPath(path).c_str(), nullptr);
    if (resolved == nullptr) {
        SetIoError(__FILE__, __LINE__);
        return false;
    }
    real = ZARNLogicalPath(resolved);
    free(resolved);
    return true;
}
