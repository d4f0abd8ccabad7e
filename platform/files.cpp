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
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/rootat.h"
#include "platform/sysroot.h"
#include "platform/tempnames.h"
#include "platform/textsplit.h"

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
Fd OpenForWrite(const std::string& path, int extraFlags, mode_t mode) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        Fd fd = ZARNOpenInRoot(path, O_WRONLY | extraFlags);
        if (fd.valid() || errno != ENOENT) {
            return fd;
        }
        fd = ZARNOpenInRoot(path, O_WRONLY | O_CREAT | O_EXCL | extraFlags, mode);
        if (fd.valid()) {
            if (fchmod(fd.get(), mode) != 0) {
                return Fd();
            }
            return fd;
        }
        if (errno != EEXIST) {
            return fd;
        }
    }
    errno = EAGAIN;
    return Fd();
}

bool FsyncFd(int fd) {
    return fd >= 0 && fsync(fd) == 0;
}

// Stats a logical path inside the root; `follow` follows a link in the last place.
bool StatPath(const std::string& path, bool follow, struct stat& st) {
    return !path.empty() && ZARNStatInRoot(path, follow, st);
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
    Fd fd = OpenForWrite(path, extraFlags, mode);
    if (!fd.valid()) {
        SET_ERRNO_ERROR();
        return false;
    }
    if (!WriteAllFd(fd.get(), data.data(), data.size())) {
        SET_ERRNO_ERROR();
        return false;
    }
    if (!fd.close()) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

// Syncs each path; all are tried, and a failure of any makes the result false.
bool FsyncEach(const std::vector<std::string>& paths, bool directories) {
    bool ok = true;
    for (const std::string& path : paths) {
        if (BadPath(path) ||
            !FsyncFd(ZARNOpenInRoot(path, O_RDONLY | (directories ? O_DIRECTORY : 0)).get())) {
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
        fchmodat(parentFd, name, 0700, AT_SYMLINK_NOFOLLOW);
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
    return !path.empty() && ZARNReachableInRoot(path, 0);
}

bool ZARNPathExists(const std::string& path) {
    return !path.empty() && ZARNReachableInRoot(path, O_NOFOLLOW);
}

bool ZARNIsDir(const std::string& path) {
    return !path.empty() && ZARNReachableInRoot(path, O_DIRECTORY);
}

bool ZARNIsRegularFile(const std::string& path) {
    struct stat st;
    return StatPath(path, true, st) && S_ISREG(st.st_mode);
}

bool ZARNIsSymlink(const std::string& path) {
    struct stat st;
    return StatPath(path, false, st) && S_ISLNK(st.st_mode);
}

bool ZARNStat(const std::string& path, struct stat& st) {
    if (BadPath(path)) {
        return false;
    }
    if (!StatPath(path, true, st)) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

bool ZARNLstat(const std::string& path, struct stat& st) {
    if (BadPath(path)) {
        return false;
    }
    if (!StatPath(path, false, st)) {
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
    for (const std::string& part : ZARNPathNames(path)) {
        if (!logical.empty() || path[0] == '/') {
            logical.push_back('/');
        }
        logical.append(part);
        ZARNAtPath at;
        if (!ZARNResolveAt(logical, false, at)) {
            SET_ERRNO_ERROR();
            return -1;
        }
        if (mkdirat(at.dir, at.name.c_str(), 0700) == 0) {
            // The mode is applied after the fact so that the umask does not narrow it.
            if (fchmodat(at.dir, at.name.c_str(), mode, 0) != 0) {
                SET_ERRNO_ERROR();
                return -1;
            }
            if ((uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) &&
                fchownat(at.dir, at.name.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) != 0) {
                SET_ERRNO_ERROR();
                return -1;
            }
            continue;
        }
        int err = errno;
        struct stat st;
        if (StatPath(logical, true, st)) {
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

namespace {

// Reads the whole of a file just opened with O_NONBLOCK; limit > 0 reads at most that many bytes.
bool ReadOpened(const Fd& fd, std::string& out, size_t limit) {
    struct stat st;
    const bool regular = fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode);
    if (!regular && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode))) {
        errno = EINVAL;
        SET_ERRNO_ERROR();
        return false;
    }
    // Reads of a regular file never block; anything else is read as it would be without the
    // flag.
    const int flags = regular ? -1 : fcntl(fd.get(), F_GETFL);
    if (flags >= 0) {
        fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK);
    }
    // A file larger than memory must fail the read, not the process.
    bool ok = false;
    try {
        ok = ReadOpenFile(fd.get(), regular, regular ? static_cast<size_t>(st.st_size) : 0, limit,
                          out);
    } catch (const std::bad_alloc&) {
        out.clear();
        out.shrink_to_fit();
        errno = ENOMEM;
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
    }
    return ok;
}

}  // namespace

bool ZARNFileRead(const std::string& path, std::string& out, size_t limit) {
    out.clear();
    if (BadPath(path)) {
        return false;
    }
    // Opened without blocking: a pipe put where a file belongs would hold the open forever.
    Fd fd = ZARNOpenInRoot(path, O_RDONLY | O_NONBLOCK);
    if (!fd.valid()) {
        SET_ERRNO_ERROR();
        return false;
    }
    return ReadOpened(fd, out, limit);
}

bool ZARNFileWrite(const std::string& path, const std::string& data, mode_t mode) {
    return WriteWithFlags(path, data, O_TRUNC, mode);
}

bool ZARNFileWriteDurable(const std::string& path, const std::string& data, mode_t mode) {
    if (BadPath(path)) {
        return false;
    }
    std::string tmp;
    Fd fd = ZARNMkstemp(DirName(path) + "/." + BaseName(path) + ".XXXXXX", tmp);
    if (!fd.valid()) {
        SET_ERRNO_ERROR();
        return false;
    }
    bool ok = WriteAllFd(fd.get(), data.data(), data.size()) && fchmod(fd.get(), mode) == 0;
    if (ok) {
        // A replaced file keeps its owner, so that a package's own settings stay its own.
        struct stat old;
        if (StatPath(path, true, old) && (old.st_uid != geteuid() || old.st_gid != getegid())) {
            if (fchown(fd.get(), old.st_uid, old.st_gid) != 0) {
                ok = geteuid() != 0;
            }
        }
    }
    ok = ok && fsync(fd.get()) == 0 && fd.close();
    if (!ok || !ZARNRename(tmp, path)) {
        SET_ERRNO_ERROR();
        int saved = errno;
        ZARNUnlink(tmp);
        errno = saved;
        return false;
    }
    if (!FsyncFd(ZARNOpenInRoot(DirName(path), O_RDONLY | O_DIRECTORY).get())) {
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
    Fd fd = ZARNOpenInRoot(path, O_WRONLY | O_CREAT | O_EXCL, mode);
    if (fd.valid()) {
        if (fchmod(fd.get(), mode) != 0) {
            SET_ERRNO_ERROR();
            return false;
        }
        return true;
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
    Fd fd = ZARNOpenInRoot(path, O_RDONLY | O_DIRECTORY);
    if (!fd.valid()) {
        SET_ERRNO_ERROR();
        return false;
    }
    DIR* dir = fdopendir(fd.get());
    if (dir == nullptr) {
        SET_ERRNO_ERROR();
        return false;
    }
    fd.release();
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

namespace {

// Walks the folder open as `fd`; `prefix` is its path relative to the top, "" or ending in "/".
bool WalkFolder(Fd fd, const std::string& prefix, const ZARNTreeVisitor& visit) {
    DIR* dir = fdopendir(fd.get());
    if (dir == nullptr) {
        SET_ERRNO_ERROR();
        return false;
    }
    fd.release();
    bool ok = true;
    errno = 0;
    while (struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
            continue;
        }
        struct stat st;
        if (fstatat(dirfd(dir), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            SET_ERRNO_ERROR();
            ok = false;
            break;
        }
        const std::string rel = prefix + name;
        if (!visit(rel, st)) {
            errno = 0;
            ok = false;
            break;
        }
        if (S_ISDIR(st.st_mode)) {
            Fd sub(openat(dirfd(dir), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!sub.valid()) {
                SET_ERRNO_ERROR();
                ok = false;
                break;
            }
            if (!WalkFolder(std::move(sub), rel + "/", visit)) {
                ok = false;
                break;
            }
        }
        errno = 0;
    }
    if (ok && errno != 0) {
        SET_ERRNO_ERROR();
        ok = false;
    }
    int saved = errno;
    closedir(dir);
    errno = saved;
    return ok;
}

}  // namespace

bool ZARNWalkTree(const std::string& dir, const ZARNTreeVisitor& visit) {
    if (BadPath(dir)) {
        return false;
    }
    Fd fd = ZARNOpenInRoot(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!fd.valid()) {
        SET_ERRNO_ERROR();
        return false;
    }
    return WalkFolder(std::move(fd), "", visit);
}

namespace {

// Folds "." and ".." out of an absolute logical path, never above "/".
std::string Normalize(const std::string& path) {
    // Built in place: a scan normalizes a target link for every package.
    std::string out;
    for (size_t at = 0; at < path.size();) {
        size_t end = path.find('/', at);
        if (end == std::string::npos) {
            end = path.size();
        }
        const std::string_view part(path.data() + at, end - at);
        if (part == "..") {
            out.resize(out.empty() ? 0 : out.rfind('/'));
        } else if (!part.empty() && part != ".") {
            out += '/';
            out += part;
        }
        at = end + 1;
    }
    return out.empty() ? "/" : out;
}

// Runs an *at() call on a logical path resolved inside the root.
template <typename Call>
bool AtCall(const std::string& path, bool follow, Call call) {
    ZARNAtPath at;
    if (BadPath(path) || !ZARNResolveAt(path, follow, at)) {
        return false;
    }
    if (call(at) != 0) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

}  // namespace

namespace {

// Reads the link `name` in the folder `dir`, which the logical `path` names; the target comes
// back as ZARNReadLink gives it.
bool ReadLinkIn(int dir, const char* name, const std::string& path, std::string& target) {
    std::string buf(256, '\0');
    for (;;) {
        ssize_t n = readlinkat(dir, name, &buf[0], buf.size());
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
    if (ZARNPackageCore::GetSystemRoot() == "/" || path[0] != '/' || buf.empty()) {
        target = buf;
    } else if (buf[0] == '/') {
        // Inside the root an absolute target is logical already, unless it was stored as the
        // machine's path of a place in the root.
        target = ZARNLogicalPath(buf);
    } else {
        target = Normalize(DirName(path) + "/" + buf);
    }
    return true;
}

}  // namespace

bool ZARNReadLink(const std::string& path, std::string& target) {
    target.clear();
    ZARNAtPath at;
    if (BadPath(path) || !ZARNResolveAt(path, false, at)) {
        return false;
    }
    return ReadLinkIn(at.dir, at.name.c_str(), path, target);
}

ZARNFolder::ZARNFolder(const std::string& path) : path_(path) {
    if (!BadPath(path)) {
        fd_ = ZARNOpenInRoot(path, O_PATH | O_DIRECTORY);
    }
}

std::string ZARNFolder::pathOf(const char* name) const {
    return path_ + "/" + name;
}

bool ZARNFolder::readFile(const char* name, std::string& out, size_t limit) const {
    out.clear();
    if (!fd_.valid()) {
        return ZARNFileRead(pathOf(name), out, limit);
    }
    Fd fd(openat(fd_.get(), name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno == ELOOP) {
            return ZARNFileRead(pathOf(name), out, limit);
        }
        SET_ERRNO_ERROR();
        return false;
    }
    return ReadOpened(fd, out, limit);
}

bool ZARNFolder::isDir(const char* name) const {
    if (!fd_.valid()) {
        return ZARNIsDir(pathOf(name));
    }
    struct stat st;
    if (fstatat(fd_.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    return S_ISLNK(st.st_mode) ? ZARNIsDir(pathOf(name)) : S_ISDIR(st.st_mode);
}

bool ZARNFolder::readLink(const char* name, std::string& target) const {
    target.clear();
    if (!fd_.valid()) {
        return ZARNReadLink(pathOf(name), target);
    }
    return ReadLinkIn(fd_.get(), name, pathOf(name), target);
}

bool ZARNSymlink(const std::string& target, const std::string& linkPath) {
    if (BadPath(target) || BadPath(linkPath)) {
        return false;
    }
    // Under another root an absolute target is stored relative to the link, so that the link
    // leads to the same place for the library inside the root and for the machine's programs.
    std::string stored = target;
    if (target[0] == '/' && linkPath[0] == '/' && ZARNPackageCore::GetSystemRoot() != "/") {
        stored.clear();
        const std::string parent = Normalize(DirName(linkPath));
        for (size_t k = 1; parent != "/" && k != std::string::npos; k = parent.find('/', k + 1)) {
            stored += "../";
        }
        stored += Normalize(target).substr(1);
        if (stored.empty()) {
            stored = ".";
        }
    }
    return AtCall(linkPath, false, [&](ZARNAtPath& at) {
        return symlinkat(stored.c_str(), at.dir, at.name.c_str());
    });
}

bool ZARNChmod(const std::string& path, mode_t mode) {
    return AtCall(path, true,
                  [&](ZARNAtPath& at) { return fchmodat(at.dir, at.name.c_str(), mode, 0); });
}

bool ZARNChown(const std::string& path, uid_t uid, gid_t gid, bool followLinks) {
    return AtCall(path, followLinks, [&](ZARNAtPath& at) {
        return fchownat(at.dir, at.name.c_str(), uid, gid, at.noFollow);
    });
}

bool ZARNUnlink(const std::string& path) {
    return AtCall(path, false, [](ZARNAtPath& at) { return unlinkat(at.dir, at.name.c_str(), 0); });
}

bool ZARNRmdir(const std::string& path) {
    return AtCall(path, false,
                  [](ZARNAtPath& at) { return unlinkat(at.dir, at.name.c_str(), AT_REMOVEDIR); });
}

bool ZARNRename(const std::string& from, const std::string& to) {
    ZARNAtPath target;
    if (BadPath(to) || !ZARNResolveAt(to, false, target)) {
        return false;
    }
    return AtCall(from, false, [&](ZARNAtPath& at) {
        return renameat(at.dir, at.name.c_str(), target.dir, target.name.c_str());
    });
}

bool ZARNRemoveTree(const std::string& path) {
    ZARNAtPath at;
    if (BadPath(path)) {
        return false;
    }
    if (!ZARNResolveAt(path, false, at)) {
        return errno == ENOENT;
    }
    while (at.name.size() > 1 && at.name.back() == '/') {
        at.name.pop_back();
    }
    const std::string name = BaseName(at.name);
    if (at.name == "/" || name.empty() || name == "." || name == "..") {
        // Never the whole machine nor the whole root, whatever the caller computed.
        errno = EINVAL;
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (!RemoveAt(at.dir, at.name.c_str())) {
        SET_ERRNO_ERROR();
        return false;
    }
    return true;
}

Fd ZARNOpen(const std::string& path, int flags, mode_t mode) {
    if (BadPath(path)) {
        return Fd();
    }
    return ZARNOpenInRoot(path, flags, (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode : 0);
}

bool ZARNUtimeNow(const std::string& path) {
    return AtCall(path, true, [](ZARNAtPath& at) {
        return utimensat(at.dir, at.name.c_str(), nullptr, at.noFollow);
    });
}

bool FsyncFiles(const std::vector<std::string>& paths) {
    return FsyncEach(paths, false);
}

bool FsyncDirectories(const std::vector<std::string>& paths) {
    return FsyncEach(paths, true);
}
