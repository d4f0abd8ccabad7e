#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/errors.h"
#include "platform/sysroot.h"

namespace {

// Sets the last error from errno, keeping errno for the caller.
void SetErrnoError(const char* file, int line) {
    int saved = errno;
    int code;
    switch (saved) {
        case ENOENT:
        case ENOTDIR:
            code = ZARN_ERR_NO_FILE;
            break;
        case ENOSPC:
        case EDQUOT:
            code = ZARN_ERR_NO_SPACE;
            break;
        case ENOMEM:
            code = ZARN_ERR_OUT_OF_MEMORY;
            break;
        case EINVAL:
        case ENAMETOOLONG:
            code = ZARN_ERR_BAD_PARAMETERS;
            break;
        default:
            code = ZARN_ERR_IO;
            break;
    }
    VLIBCErrSetEx(code, file, line);
    errno = saved;
}

#define SET_ERRNO_ERROR() SetErrnoError(__FILE__, __LINE__)

bool BadPath(const std::string& path) {
    if (path.empty() || path.find('\0') != std::string::npos) {
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return true;
    }
    return false;
}

bool WriteAllFd(int fd, const char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

void CloseKeepErrno(int fd) {
    int saved = errno;
    close(fd);
    errno = saved;
}

std::string DirName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    if (slash == 0) {
        return "/";
    }
    return path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Opens a file for writing; a file made here gets exactly `mode`, whatever the umask.
int OpenForWrite(const std::string& phys, int extraFlags, mode_t mode) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        int fd = open(phys.c_str(), O_WRONLY | O_CLOEXEC | extraFlags);
        if (fd >= 0 || errno != ENOENT) {
            return fd;
        }
        fd = open(phys.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | extraFlags, mode);
        if (fd >= 0) {
            if (fchmod(fd, mode) != 0) {
                CloseKeepErrno(fd);
                return -1;
            }
            return fd;
        }
        if (errno != EEXIST) {
            return -1;
        }
    }
    errno = EAGAIN;
    return -1;
}

bool FsyncPath(const std::string& phys, bool directory) {
    int fd = open(phys.c_str(), O_RDONLY | O_CLOEXEC | (directory ? O_DIRECTORY : 0));
    if (fd < 0) {
        return false;
    }
    int rc = fsync(fd);
    CloseKeepErrno(fd);
    return rc == 0;
}

ZARNFileType TypeFromMode(mode_t mode) {
    if (S_ISREG(mode)) {
        return ZARNFileType::Regular;
    }
    if (S_ISDIR(mode)) {
        return ZARNFileType::Directory;
    }
    if (S_ISLNK(mode)) {
        return ZARNFileType::Symlink;
    }
    return ZARNFileType::Other;
}

// Writes all of `data` through a descriptor opened with `extraFlags` (truncate or append).
bool WriteWithFlags(const std::string& path, const std::string& data, int extraFlags, mode_t mode) {
    if (BadPath(path)) {
        return false;
    }
    int fd = OpenForWrite(ZARNPhysicalPath(path), extraFlags, mode);
    if (fd < 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    if (!WriteAllFd(fd, data.data(), data.size())) {
        SET_ERRNO_ERROR();
        CloseKeepErrno(fd);
        return false;
    }
    if (close(fd) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

// Syncs each path; all are tried, and a failure of any makes the result false.
bool FsyncEach(const std::vector<std::string>& paths, bool directories) {
    bool ok = true;
    for (const std::string& path : paths) {
        if (BadPath(path) || !FsyncPath(ZARNPhysicalPath(path), directories)) {
            SET_ERRNO_ERROR();
            ok = false;
        }
    }
    return ok;
}

// Removes `name` inside the directory `parentFd` without following links.
bool RemoveAt(int parentFd, const char* name) {
    if (unlinkat(parentFd, name, 0) == 0 || errno == ENOENT) {
        return true;
    }
    if (errno != EISDIR && errno != EPERM) {
        return false;
    }
    int fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == EACCES) {
        // A folder left without permissions by a test or a package must still go.
        fchmodat(parentFd, name, 0700, 0);
        fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    }
    if (fd < 0) {
        return errno == ENOENT;
    }
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        CloseKeepErrno(fd);
        return false;
    }
    bool ok = true;
    while (struct dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        if (!RemoveAt(dirfd(dir), entry->d_name)) {
            ok = false;
        }
    }
    int saved = errno;
    closedir(dir);
    errno = saved;
    if (!ok) {
        return false;
    }
    return unlinkat(parentFd, name, AT_REMOVEDIR) == 0 || errno == ENOENT;
}

}  // namespace

bool IsFileExists(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(ZARNPhysicalPath(path).c_str(), &st) == 0;
}

bool ZARNPathExists(const std::string& path) {
    struct stat st;
    return !path.empty() && lstat(ZARNPhysicalPath(path).c_str(), &st) == 0;
}

bool ZARNIsDir(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(ZARNPhysicalPath(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool ZARNIsRegularFile(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(ZARNPhysicalPath(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool ZARNIsSymlink(const std::string& path) {
    struct stat st;
    return !path.empty() && lstat(ZARNPhysicalPath(path).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool ZARNStat(const std::string& path, struct stat& st) {
    if (BadPath(path)) {
        return false;
    }
    if (stat(ZARNPhysicalPath(path).c_str(), &st) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNLstat(const std::string& path, struct stat& st) {
    if (BadPath(path)) {
        return false;
    }
    if (lstat(ZARNPhysicalPath(path).c_str(), &st) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

int ZARNFSMkdirP(const std::string& path, int /*unused1*/, int /*unused2*/, uid_t uid, gid_t gid,
                 mode_t mode) {
    if (BadPath(path)) {
        return -1;
    }
    // Walks the logical components so that the folders of the root itself are never touched.
    std::string logical;
    size_t pos = 0;
    if (path[0] == '/') {
        pos = 1;
    }
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) {
            next = path.size();
        }
        std::string part = path.substr(pos, next - pos);
        pos = next + 1;
        if (part.empty() || part == ".") {
            continue;
        }
        if (!logical.empty() || path[0] == '/') {
            logical.push_back('/');
        }
        logical.append(part);
        std::string phys = ZARNPhysicalPath(logical);
        if (mkdir(phys.c_str(), 0700) == 0) {
            // The mode is applied after the fact so that the umask does not narrow it.
            if (chmod(phys.c_str(), mode) != 0) {
                SET_ERRNO_ERROR();
                return -1;
            }
            if ((uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) &&
                chown(phys.c_str(), uid, gid) != 0) {
                SET_ERRNO_ERROR();
                return -1;
            }
            continue;
        }
        int err = errno;
        struct stat st;
        if (stat(phys.c_str(), &st) == 0) {
            if (S_ISDIR(st.st_mode)) {
                continue;
            }
            errno = ENOTDIR;
        } else {
            errno = err;
        }
        SET_ERRNO_ERROR();
        return -1;
    }
    return 0;
}

namespace {

// Reads an open file to its end, or to `limit` bytes when that is not 0.
bool ReadOpenFile(int fd, bool regular, size_t size, size_t limit, std::string& out) {
    if (size > 0) {
        out.reserve(limit > 0 ? std::min(limit, size) : size);
    }
    char buf[65536];
    for (;;) {
        size_t want = sizeof(buf);
        if (limit > 0) {
            if (out.size() >= limit) {
                break;
            }
            want = std::min(want, limit - out.size());
        }
        ssize_t n = read(fd, buf, want);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            SET_ERRNO_ERROR();
            out.clear();
            return false;
        }
        if (n == 0) {
            break;
        }
        out.append(buf, static_cast<size_t>(n));
        // A short read of a regular file is its end; this saves a read per file in scans.
        if (regular && static_cast<size_t>(n) < want) {
            break;
        }
    }
    return true;
}

}  // namespace

bool ZARNFileRead(const std::string& path, std::string& out, size_t limit) {
    out.clear();
    if (BadPath(path)) {
        return false;
    }
    // Opened without blocking: a pipe put where a file belongs would hold the open forever.
    int fd = open(ZARNPhysicalPath(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    struct stat st;
    const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (!regular && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode))) {
        errno = EINVAL;
        SET_ERRNO_ERROR();
        CloseKeepErrno(fd);
        return false;
    }
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    }
    // A file larger than memory must fail the read, not the process.
    bool ok = false;
    try {
        ok = ReadOpenFile(fd, regular, regular ? static_cast<size_t>(st.st_size) : 0, limit, out);
    } catch (const std::bad_alloc&) {
        out.clear();
        out.shrink_to_fit();
        errno = ENOMEM;
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
    }
    if (!ok) {
        CloseKeepErrno(fd);
        return false;
    }
    close(fd);
    return true;
}

bool ZARNFileWrite(const std::string& path, const std::string& data, mode_t mode) {
    return WriteWithFlags(path, data, O_TRUNC, mode);
}

bool ZARNFileWriteDurable(const std::string& path, const std::string& data, mode_t mode) {
    if (BadPath(path)) {
        return false;
    }
    std::string phys = ZARNPhysicalPath(path);
    std::string dir = DirName(phys);
    std::string tmpl = dir + "/." + BaseName(phys) + ".XXXXXX";
    int fd = mkostemp(&tmpl[0], O_CLOEXEC);
    if (fd < 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    bool ok = WriteAllFd(fd, data.data(), data.size()) && fchmod(fd, mode) == 0;
    if (ok) {
        // A replaced file keeps its owner, so that a package's own settings stay its own.
        struct stat old;
        if (stat(phys.c_str(), &old) == 0 && (old.st_uid != geteuid() || old.st_gid != getegid())) {
            if (fchown(fd, old.st_uid, old.st_gid) != 0) {
                ok = geteuid() != 0;
            }
        }
    }
    ok = ok && fsync(fd) == 0;
    if (!ok) {
        SET_ERRNO_ERROR();
        CloseKeepErrno(fd);
        unlink(tmpl.c_str());
        return false;
    }
    if (close(fd) != 0 || rename(tmpl.c_str(), phys.c_str()) != 0) {
        SET_ERRNO_ERROR();
        int saved = errno;
        unlink(tmpl.c_str());
        errno = saved;
        return false;
    }
    if (!FsyncPath(dir, true)) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNFileAppend(const std::string& path, const std::string& data, mode_t mode) {
    return WriteWithFlags(path, data, O_APPEND, mode);
}

bool ZARNFileTouch(const std::string& path, mode_t mode) {
    if (BadPath(path)) {
        return false;
    }
    std::string phys = ZARNPhysicalPath(path);
    int fd = open(phys.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0) {
        bool ok = fchmod(fd, mode) == 0;
        if (!ok) {
            SET_ERRNO_ERROR();
        }
        close(fd);
        return ok;
    }
    if (errno == EEXIST) {
        return true;
    }
    SET_ERRNO_ERROR();
    return false;
}

bool ZARNListDir(const std::string& path, std::vector<ZARNDirEntry>& out) {
    out.clear();
    if (BadPath(path)) {
        return false;
    }
    int fd = open(ZARNPhysicalPath(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        SET_ERRNO_ERROR();
        CloseKeepErrno(fd);
        return false;
    }
    errno = 0;
    while (struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
            continue;
        }
        ZARNFileType type;
        switch (entry->d_type) {
            case DT_REG:
                type = ZARNFileType::Regular;
                break;
            case DT_DIR:
                type = ZARNFileType::Directory;
                break;
            case DT_LNK:
                type = ZARNFileType::Symlink;
                break;
            case DT_UNKNOWN: {
                // Some file systems leave the type out of the listing.
                struct stat st;
                type = fstatat(dirfd(dir), name, &st, AT_SYMLINK_NOFOLLOW) == 0
                           ? TypeFromMode(st.st_mode)
                           : ZARNFileType::Unknown;
                break;
            }
            default:
                type = ZARNFileType::Other;
                break;
        }
        out.push_back(ZARNDirEntry{name, type});
        errno = 0;
    }
    bool ok = errno == 0;
    if (!ok) {
        SET_ERRNO_ERROR();
    }
    int saved = errno;
    closedir(dir);
    errno = saved;
    return ok;
}

bool GetRegularFilePathsInDirectory(const std::string& dir, std::vector<std::string>& out) {
    out.clear();
    std::vector<ZARNDirEntry> entries;
    if (!ZARNListDir(dir, entries)) {
        return false;
    }
    std::string prefix = dir;
    if (prefix.empty() || prefix.back() != '/') {
        prefix.push_back('/');
    }
    for (const ZARNDirEntry& entry : entries) {
        if (entry.type == ZARNFileType::Regular) {
            out.push_back(prefix + entry.name);
        }
    }
    std::sort(out.begin(), out.end());
    return true;
}

bool ZARNReadLink(const std::string& path, std::string& target) {
    target.clear();
    if (BadPath(path)) {
        return false;
    }
    std::string phys = ZARNPhysicalPath(path);
    std::string buf(256, '\0');
    for (;;) {
        ssize_t n = readlink(phys.c_str(), &buf[0], buf.size());
        if (n < 0) {
            SET_ERRNO_ERROR();
            return false;
        }
        if (static_cast<size_t>(n) < buf.size()) {
            buf.resize(static_cast<size_t>(n));
            break;
        }
        buf.resize(buf.size() * 2);
    }
    target = (!buf.empty() && buf[0] == '/') ? ZARNLogicalPath(buf) : buf;
    return true;
}

bool ZARNSymlink(const std::string& target, const std::string& linkPath) {
    if (BadPath(target) || BadPath(linkPath)) {
        return false;
    }
    // The machine resolves the link, so an absolute target must name the physical place.
    std::string stored = target[0] == '/' ? ZARNPhysicalPath(target) : target;
    if (symlink(stored.c_str(), ZARNPhysicalPath(linkPath).c_str()) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNChmod(const std::string& path, mode_t mode) {
    if (BadPath(path)) {
        return false;
    }
    if (chmod(ZARNPhysicalPath(path).c_str(), mode) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNChown(const std::string& path, uid_t uid, gid_t gid, bool followLinks) {
    if (BadPath(path)) {
        return false;
    }
    std::string phys = ZARNPhysicalPath(path);
    int rc = followLinks ? chown(phys.c_str(), uid, gid) : lchown(phys.c_str(), uid, gid);
    if (rc != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNUnlink(const std::string& path) {
    if (BadPath(path)) {
        return false;
    }
    if (unlink(ZARNPhysicalPath(path).c_str()) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNRmdir(const std::string& path) {
    if (BadPath(path)) {
        return false;
    }
    if (rmdir(ZARNPhysicalPath(path).c_str()) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNRename(const std::string& from, const std::string& to) {
    if (BadPath(from) || BadPath(to)) {
        return false;
    }
    if (rename(ZARNPhysicalPath(from).c_str(), ZARNPhysicalPath(to).c_str()) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNRemoveTree(const std::string& path) {
    if (BadPath(path)) {
        return false;
    }
    std::string phys = ZARNPhysicalPath(path);
    while (phys.size() > 1 && phys.back() == '/') {
        phys.pop_back();
    }
    if (phys == "/") {
        // Never the whole machine, whatever the caller computed.
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    std::string parent = DirName(phys);
    std::string name = BaseName(phys);
    if (name.empty() || name == "." || name == "..") {
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    int parentFd = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd < 0) {
        if (errno == ENOENT) {
            return true;
        }
        SET_ERRNO_ERROR();
        return false;
    }
    bool ok = RemoveAt(parentFd, name.c_str());
    if (!ok) {
        SET_ERRNO_ERROR();
    }
    CloseKeepErrno(parentFd);
    return ok;
}

int ZARNOpen(const std::string& path, int flags, mode_t mode) {
    if (BadPath(path)) {
        return -1;
    }
    int fd = open(ZARNPhysicalPath(path).c_str(), flags | O_CLOEXEC, mode);
    if (fd < 0) {
        SET_ERRNO_ERROR();
    }
    return fd;
}

bool ZARNUtimeNow(const std::string& path) {
    if (BadPath(path)) {
        return false;
    }
    if (utimensat(AT_FDCWD, ZARNPhysicalPath(path).c_str(), nullptr, 0) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool FsyncFiles(const std::vector<std::string>& paths) {
    return FsyncEach(paths, false);
}

bool FsyncDirectories(const std::vector<std::string>& paths) {
    return FsyncEach(paths, true);
}
