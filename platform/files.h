#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/fd.h"

// File helpers on logical paths, resolved inside the system root (platform/rootat.h). Every
// descriptor they open is close-on-exec. Failures set the
// last-error slot and errno; they do not log, the caller decides what a failure means.

ZARNHOST_API bool IsFileExists(const std::string& path);    // any kind, links followed
ZARNHOST_API bool ZARNPathExists(const std::string& path);  // any kind, links not followed
ZARNHOST_API bool ZARNIsDir(const std::string& path);       // links followed
ZARNHOST_API bool ZARNIsRegularFile(const std::string& path);
ZARNHOST_API bool ZARNIsSymlink(const std::string& path);
ZARNHOST_API bool ZARNStat(const std::string& path, struct stat& st);
ZARNHOST_API bool ZARNLstat(const std::string& path, struct stat& st);

// Makes a directory with its parents (mkdir -p). uid/gid of -1 leave the owner; the mode
// applies to the directories made. Returns 0 or a negative number on failure.
ZARNHOST_API int ZARNFSMkdirP(const std::string& path, int unused1, int unused2, uid_t uid,
                              gid_t gid, mode_t mode);

// Reads a whole file; limit > 0 reads at most that many bytes.
ZARNHOST_API bool ZARNFileRead(const std::string& path, std::string& out, size_t limit = 0);
// Writes a whole file in place (truncate).
ZARNHOST_API bool ZARNFileWrite(const std::string& path, const std::string& data,
                                mode_t mode = 0644);
// Writes under a unique name beside the target, syncs, renames, syncs the directory.
ZARNHOST_API bool ZARNFileWriteDurable(const std::string& path, const std::string& data,
                                       mode_t mode = 0644);
ZARNHOST_API bool ZARNFileAppend(const std::string& path, const std::string& data,
                                 mode_t mode = 0644);
// Creates an empty file if it doesn't exist.
ZARNHOST_API bool ZARNFileTouch(const std::string& path, mode_t mode = 0644);

enum class ZARNFileType { Unknown, Regular, Directory, Symlink, Other };
struct ZARNDirEntry {
    std::string name;
    ZARNFileType type;  // as the directory listing reports it (d_type), links not followed
};
// Lists a directory without "." and "..", in directory order.
ZARNHOST_API bool ZARNListDir(const std::string& path, std::vector<ZARNDirEntry>& out);

// The full logical paths of the regular files directly in a directory, sorted.
ZARNHOST_API bool GetRegularFilePathsInDirectory(const std::string& dir,
                                                 std::vector<std::string>& out);

// Visits every entry below `dir`, a folder before what it holds, with the entry's own lstat;
// a symbolic link is reported and never followed, and folders are entered through descriptors
// opened without following, so a link put in place of a folder is never walked into. `visit`
// gets the path relative to `dir` and stops the walk by returning false. False when the walk
// was stopped or a folder can't be read (errno and the last error set).
using ZARNTreeVisitor = std::function<bool(const std::string& rel, const struct stat& st)>;
ZARNHOST_API bool ZARNWalkTree(const std::string& dir, const ZARNTreeVisitor& visit);

// Reads a symbolic link; under a root other than "/" the target comes back as a logical path.
ZARNHOST_API bool ZARNReadLink(const std::string& path, std::string& target);
// A folder opened once inside the root, whose entries are then reached by their names alone:
// a scan of thousands of folders spares resolving each folder's path again for every entry.
// An entry that is a link is resolved from the root as its whole logical path is, so the root
// stays the boundary; a folder that can't be opened leaves every call to the logical path.
class ZARNHOST_API ZARNFolder {
public:
    explicit ZARNFolder(const std::string& path);
    const std::string& path() const { return path_; }
    // As ZARNFileRead, ZARNIsDir and ZARNReadLink on the entry `name` of the folder.
    bool readFile(const char* name, std::string& out, size_t limit = 0) const;
    bool isDir(const char* name) const;
    bool readLink(const char* name, std::string& target) const;

private:
    std::string pathOf(const char* name) const;
    std::string path_;
    Fd fd_;
};

// Makes a symbolic link; under a root other than "/" an absolute target is stored relative to
// the link.
ZARNHOST_API bool ZARNSymlink(const std::string& target, const std::string& linkPath);

ZARNHOST_API bool ZARNChmod(const std::string& path, mode_t mode);
ZARNHOST_API bool ZARNChown(const std::string& path, uid_t uid, gid_t gid, bool followLinks = true);
ZARNHOST_API bool ZARNUnlink(const std::string& path);
ZARNHOST_API bool ZARNRmdir(const std::string& path);
ZARNHOST_API bool ZARNRename(const std::string& from, const std::string& to);
// Removes a file, link or whole tree; a missing path is success.
ZARNHOST_API bool ZARNRemoveTree(const std::string& path);
// Opens with O_CLOEXEC added; the descriptor is invalid on failure.
ZARNHOST_API Fd ZARNOpen(const std::string& path, int flags, mode_t mode = 0644);
ZARNHOST_API bool ZARNUtimeNow(const std::string& path);

// fsync on each file / directory; false if any fails.
ZARNHOST_API bool FsyncFiles(const std::vector<std::string>& paths);
ZARNHOST_API bool FsyncDirectories(const std::vector<std::string>& paths);
