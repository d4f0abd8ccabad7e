#include "core/paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "core/packageinfo.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"
#include "platform/tempnames.h"
#include "platform/volumes.h"

namespace ZARNPackageTool {

namespace {

constexpr int kKindAll = ZARN_VOL_KIND_INTERNAL | ZARN_VOL_KIND_EXTERNAL;  // 3

int ErrnoToLibError(int err) {
    switch (err) {
        case ENOSPC:
        case EDQUOT:
            return ZARN_ERR_NO_SPACE;
        case EROFS:
            return ZARN_ERR_VOL_READONLY;
        case ENOENT:
        case ENOTDIR:
            return ZARN_ERR_NO_FILE;
        case EINVAL:
        case ENAMETOOLONG:
            return ZARN_ERR_BAD_PARAMETERS;
        case ENOMEM:
            return ZARN_ERR_OUT_OF_MEMORY;
        default:
            return ZARN_ERR_ERRNO_OTHER;
    }
}

// Sizes come from package files: a sum that would wrap around asks for more room than any place
// has, never for almost none.
unsigned long long WithMargin(unsigned long long size, unsigned long long margin) {
    unsigned long long sum = 0;
    return __builtin_add_overflow(size, margin, &sum) ? ULLONG_MAX : sum;
}

int MakeDir(const std::string& path, mode_t mode) {
    return ZARNFSMkdirP(path, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), mode);
}

// Asks the volume service for a volume with `size` bytes free in `mode`, and reads its answer.
bool AvailVolume(unsigned long long size, int mode, ZARNMountVolInfo& info) {
    unsigned int status = 0;
    int rc = VolumeAvailGet(size, &info, &status, mode);
    if (rc < 0) {
        ZLOGERR("VolumeAvailGet() failed!! zarnerr=[0x%04X]", VLIBCErrGet());
        return false;
    }
    if (rc > 0) {
        return true;
    }
    if (status & ZARN_VOL_AVAIL_NO_SPACE) {
        VLIBCErrSet(ZARN_ERR_NO_SPACE);
        return false;
    }
    if (!(status & ZARN_VOL_AVAIL_HAS_VOLUME)) {
        VLIBCErrSet(ZARN_ERR_NO_VOLUME);
        return false;
    }
    if (!info.created) {
        VLIBCErrSet(ZARN_ERR_VOL_CREATING);
        return false;
    }
    return true;
}

bool IsSystemInstall(const PackageInfo& info) {
    return info.install_type == "system";
}

// A volume that may be remembered as the place for new packages.
bool IsGoodDefaultVolume(const std::string& volume) {
    if (volume.empty()) {
        return false;
    }
    unsigned int attr = 0;
    if (ZARNVolumeAttributeGet(volume.c_str(), &attr) != 0) {
        ZARNSyslog(LOG_WARNING, "%s:%d Failed to read volume attribute, path=[%s]", __FILE__,
                   __LINE__, volume.c_str());
        return false;
    }
    if (!(attr & ZARN_VOL_ATTR_GENERIC)) {
        return false;
    }
    if (!PMSCheckVolStatus(volume.c_str(), PMS_ROOT_MARGIN)) {
        return false;
    }
    // With a single generic volume there is nothing to choose between.
    return VolumeCountGet(kKindAll, false) != 1;
}

bool CreateDownloadTmpDirOn(const char* volume, const char* name, unsigned long long size,
                            std::string& out) {
    std::string tmp;
    bool systemTmp = false;
    if (!PMSGetTmpDir(size, volume, tmp)) {
        if (!PMSGetSystemTmpDir(size, tmp)) {
            return false;
        }
        systemTmp = true;
    }
    tmp += PMS_DOWNLOAD_SUBDIR;
    if (MakeDir(tmp, 0777) != 0) {
        ZLOGERR("Failed to mkdir : %s , errno=%m", tmp.c_str());
        VLIBCErrSet(ErrnoToLibError(errno));
        return false;
    }
    if (systemTmp) {
        // The system temp has no owner that clears it: drop downloads over a day old.
        ZARNUtils::ProcessRunner sweep({ZARNMachineProgram("/usr/bin/find"), ZARNPhysicalPath(tmp),
                                        "-type", "f", "!", "-mtime", "-1", "-maxdepth", "1",
                                        "-exec", "rm", "-rf", "{}", ";"});
        sweep.captureOutput();
        if (sweep.run() != 0) {
            ZARNSyslog(LOG_WARNING, "%s:%d Failed to remove old downloads in %s, %s", __FILE__,
                       __LINE__, tmp.c_str(), sweep.getStderr().c_str());
        }
    }
    tmp += "/";
    tmp += name;
    if (MakeDir(tmp, 0777) != 0) {
        ZLOGERR("Failed to mkdir : %s , errno=%m", tmp.c_str());
        VLIBCErrSet(ErrnoToLibError(errno));
        return false;
    }
    out = tmp;
    return true;
}

// The folder for a unique temp name: a volume's temp, else the system temp, else /tmp.
std::string TmpNameFolder() {
    std::string dir;
    if (PMSGetTmpDir(0, dir) || PMSGetSystemTmpDir(0, dir)) {
        return dir;
    }
    return "/tmp";
}

}  // namespace

bool PMSCheckSpace(const char* path, unsigned long long size) {
    if (path == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    ZARNStatfsInfo st;
    if (!ZARNStatfs(path, st)) {
        ZLOGERR("Failed to get status of %s, %m", path);
        return false;
    }
    if (st.availBlocks * st.blockSize < size) {
        VLIBCErrSet(ZARN_ERR_NO_SPACE);
        ZLOGERR("%s space is not enough", path);
        return false;
    }
    return true;
}

bool PMSGetTmpDir(unsigned long long size, const char* volume, std::string& out, bool fallback) {
    out.clear();
    ZARNMountVolInfo info;
    bool chosen = false;
    if (volume != nullptr && volume[0] != '\0') {
        ZARNMountVolInfo given;
        if (ZARNMountVolInfoGet(volume, &given) == 0 && given.writable && given.freeBytes > size) {
            info = given;
            chosen = true;
        }
    }
    if (!chosen) {
        chosen = AvailVolume(WithMargin(size, PMS_TMP_MARGIN), 0, info);
        if (!chosen && fallback) {
            chosen = AvailVolume(WithMargin(size, PMS_TMP_MARGIN), ZARN_VOL_ENUM_ALL, info);
        }
    }
    if (!chosen) {
        return false;
    }
    char buf[4096];
    if (ZARNShareTmpPathGet(info.path.c_str(), buf, 4095) != 0) {
        ZLOGERR("Fail to get share temp path from [%s]", info.path.c_str());
        return false;
    }
    out = buf;
    if (MakeDir(out, 0777) != 0) {
        ZLOGERR("Failed to mkdir : %s , errno=%m", out.c_str());
        VLIBCErrSet(ErrnoToLibError(errno));
        return false;
    }
    return true;
}

bool PMSGetTmpDir(unsigned long long size, const char* volume, std::string& out) {
    return PMSGetTmpDir(size, volume, out, true);
}

bool PMSGetTmpDir(unsigned long long size, std::string& out) {
    return PMSGetTmpDir(size, nullptr, out, true);
}

bool PMSGetSystemTmpDir(unsigned long long size, std::string& out) {
    if (PMSCheckSpace("/tmp", WithMargin(size, PMS_TMP_MARGIN))) {
        if (MakeDir(PMS_SYSTEM_TMP_DIR, 0777) == 0) {
            out = PMS_SYSTEM_TMP_DIR;
            return true;
        }
        ZLOGERR("Failed to mkdir : %s , errno=%m", PMS_SYSTEM_TMP_DIR);
    }
    VLIBCErrSet(ZARN_ERR_NO_SPACE);
    return CanUploadtoRoot(size, out);
}

bool CanUploadtoRoot(unsigned long long size, std::string& out) {
    ZARNStatfsInfo st;
    if (!ZARNStatfs("/", st)) {
        ZLOGERR("Failed to get status of %s, %m", "/");
        return false;
    }
    if (st.freeBlocks * st.blockSize < WithMargin(size, PMS_ROOT_MARGIN)) {
        VLIBCErrSet(ZARN_ERR_NO_SPACE);
        ZLOGERR("%s space is not enough", "/");
        return false;
    }
    if (!ZARNIsDir(PMS_ROOT_TMP_DIR) && MakeDir(PMS_ROOT_TMP_DIR, 0700) != 0) {
        ZLOGERR("Failed to mkdir : %s , errno=%m", PMS_ROOT_TMP_DIR);
        VLIBCErrSet(ZARN_ERR_MKDIR);
        return false;
    }
    out = PMS_ROOT_TMP_DIR;
    return true;
}

std::string PMSMakeTmpFile(const char* prefix) {
    const std::string dir = TmpNameFolder();
    std::string path;
    if (!ZARNMkstemp(dir + "/" + (prefix ? prefix : "") + "XXXXXX", path).valid()) {
        ZLOGERR("Failed to mkstemp under %s, %m", dir.c_str());
        return "";
    }
    return path;
}

std::string PMSMakeTmpDir(const char* prefix) {
    const std::string dir = TmpNameFolder();
    std::string path;
    if (!ZARNMkdtemp(dir + "/" + (prefix ? prefix : "") + "XXXXXX", path)) {
        ZLOGERR("Failed to mkdtemp under %s, %m", dir.c_str());
        return "";
    }
    return path;
}

bool PMSCreateDownloadTmpDir(const char* volume, const char* name, unsigned long long size,
                             std::string& out) {
    // The name comes from a package server: it must stay one folder below the download place.
    if (name == nullptr || name[0] == '\0' || std::strchr(name, '/') != nullptr ||
        std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (volume != nullptr && volume[0] != '\0' && PMSCheckVolStatus(volume, size) &&
        CreateDownloadTmpDirOn(volume, name, size, out)) {
        return true;
    }
    return CreateDownloadTmpDirOn(nullptr, name, size, out);
}

namespace {

// Gives `out` the folder, made with `mode` when it is missing.
bool EnsureFixedDir(const char* dir, mode_t mode, std::string& out) {
    out = dir;
    if (ZARNIsDir(out)) {
        return true;
    }
    if (MakeDir(out, mode) != 0) {
        ZLOGERR("Failed to mkdir : %s , errno=%m", out.c_str());
        VLIBCErrSet(ErrnoToLibError(errno));
        return false;
    }
    return true;
}

}  // namespace

bool PMSGetListTmpDir(std::string& out) {
    return EnsureFixedDir(PMS_LIST_TMP_DIR, 0777, out);
}

bool PMSGetSystemInstallPath(std::string& out) {
    return EnsureFixedDir(PMS_SYSTEM_INSTALL_PATH, 0755, out);
}

bool PMSGetPackageVol(const std::string& name, std::string& out) {
    if (name.empty()) {
        return false;
    }
    std::string target;
    if (!ZARNReadLink(PMSRegistryDir(name) + "/target", target) || target.empty()) {
        ZLOGERR("Failed to resovle package target %s", name.c_str());
        return false;
    }
    const std::string system = PMS_SYSTEM_INSTALL_PATH;
    if (target.compare(0, system.size(), system) == 0) {
        out = system;
        return true;
    }
    std::string volume;
    if (VolumePathParseEx(target.c_str(), volume) != 0) {
        ZLOGERR("Failed to parse volume path: %s", target.c_str());
        return false;
    }
    out = volume;
    return true;
}

bool PMSGetPackageDefVol(std::string& out) {
    std::string value;
    if (VLIBCFileGetKeyValue(PMS_INFO_CONF, PMS_DEF_VOL_KEY, value, 256) != 1) {
        return false;
    }
    if (!IsGoodDefaultVolume(value)) {
        return false;
    }
    out = value;
    return true;
}

bool PMSSavePackageDefVolPath(const char* path) {
    if (path == nullptr) {
        return false;
    }
    std::string value = path;
    if (value.compare(0, 7, "/volume") != 0) {
        value.clear();
    }
    if (!value.empty() && !IsGoodDefaultVolume(value)) {
        return false;
    }
    if (!VLIBCFileSetKeyValue(PMS_INFO_CONF, PMS_DEF_VOL_KEY, value)) {
        ZLOGERR("Failed to set info key [%s] to [%s]", PMS_DEF_VOL_KEY, value.c_str());
        return false;
    }
    return true;
}

bool PMSCheckVolStatus(const char* path, unsigned long long size) {
    std::string volume;
    if (path == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (VolumePathParse(path, volume) != 0) {
        return false;
    }
    ZARNMountVolInfo info;
    if (ZARNMountVolInfoGet(volume.c_str(), &info) < 0) {
        if (VLIBCErrGet() != ZARN_ERR_VOL_UNKNOWN) {
            ZLOGERR("Failed to get volume info %s, zarnerr=[0x%04X]", path, VLIBCErrGet());
        }
        return false;
    }
    if (!info.writable) {
        VLIBCErrSet(ZARN_ERR_VOL_READONLY);
        return false;
    }
    if (info.freeBytes < size) {
        VLIBCErrSet(ZARN_ERR_NO_SPACE);
        return false;
    }
    return true;
}

int VolumeCountGet(int kind, bool all) {
    std::vector<ZARNMountVolInfo> volumes;
    if (ZARNMountVolAllEnum(0, kind, all ? ZARN_VOL_ENUM_ALL : 0, volumes) < 0) {
        return 0;
    }
    int count = 0;
    for (const ZARNMountVolInfo& volume : volumes) {
        if (volume.id != 0) {
            ++count;
        }
    }
    return count;
}

bool IsAnyVolumeExists() {
    return VolumeCountGet(kKindAll, true) > 0;
}

bool IsAnyGenericVolumeExists() {
    return VolumeCountGet(kKindAll, false) > 0;
}

bool PackageManager::CheckVolume(const char* file, const PackageInfo& info) {
    // Callers read the reason from the library error: every false below leaves its own, never
    // one that an earlier call left behind.
    if (file == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    struct stat st;
    if (!ZARNStat(file, st)) {
        ZLOGERR("Failed to get status of %s, %m", file);
        return false;
    }
    const unsigned long long need =
        WithMargin(static_cast<unsigned long long>(st.st_size), PMS_TMP_MARGIN);
    const bool system = IsSystemInstall(info);
    if (VLIBCIsDockHost()) {
        if (!PMSCheckSpace("/volume1", need)) {
            return false;
        }
    } else if (system) {
        if (!ZARNIsDir(PMS_SYSTEM_INSTALL_PATH)) {
            ZLOGERR("Failed to get system volumne");
            VLIBCErrSet(ZARN_ERR_NO_FILE);
            return false;
        }
        if (!PMSCheckSpace(PMS_SYSTEM_INSTALL_PATH, need)) {
            return false;
        }
    }
    if (system) {
        return true;
    }
    if (!IsAnyVolumeExists()) {
        VLIBCErrSet(ZARN_ERR_NO_VOLUME);
        return false;
    }
    if (PMSGetIntallOnColdStorage(info) || IsAnyGenericVolumeExists()) {
        return true;
    }
    VLIBCErrSet(ZARN_ERR_NO_GENERIC_VOLUME);
    return false;
}

bool PackageManager::GetAppStoreVolume(const PackageInfo& info, const char* path,
                                       unsigned long long size, std::string& out) {
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    const unsigned long long need = WithMargin(size, PMS_TMP_MARGIN);
    if (VLIBCIsDockHost()) {
        out = "/volume1";
        return PMSCheckSpace("/volume1", need);
    }
    if (IsSystemInstall(info)) {
        if (!PMSCheckSpace(PMS_SYSTEM_INSTALL_PATH, need)) {
            return false;
        }
        out = PMS_SYSTEM_INSTALL_PATH;
        return true;
    }
    std::string volume;
    if (VolumePathParseEx(path, volume) != 0) {
        ZLOGERR("Failed to parse volume path: %s", path);
        return false;
    }
    if (!PMSCheckVolStatus(volume.c_str(), need)) {
        return false;
    }
    out = volume;
    return true;
}

bool PackageManager::IsRootPartitionHasEnoughSpace() {
    if (!PMSCheckSpace("/", PMS_TMP_MARGIN)) {
        ZLOGERR("root partition space is not enough");
        return false;
    }
    return true;
}

}  // namespace ZARNPackageTool

namespace ZARNPackageCore {

namespace {

// Opens, syncs and closes each path; goes on past failures so that every path gets its chance.
bool FsyncEach(const std::vector<std::string>& paths, int flags) {
    bool ok = true;
    for (const std::string& path : paths) {
        Fd fd = ZARNOpen(path, flags);
        if (!fd.valid()) {
            ZLOGERR("Failed to open file, path=[%s]", path.c_str());
            ok = false;
            continue;
        }
        if (fsync(fd.get()) != 0) {
            ZLOGERR("Failed to fsync file, path=[%s]", path.c_str());
            ok = false;
        }
        if (!fd.close()) {
            ZLOGERR("Failed to close file, path=[%s]", path.c_str());
            ok = false;
        }
    }
    return ok;
}

}  // namespace

bool FsyncFiles(const std::vector<std::string>& paths) {
    return FsyncEach(paths, O_RDWR);
}

bool FsyncDirectories(const std::vector<std::string>& paths) {
    // Read-only as any folder allows; without blocking, so that a pipe in the list can't hold
    // the open forever.
    return FsyncEach(paths, O_RDONLY | O_NONBLOCK);
}

bool IsFileExists(const std::string& path) {
    return ::IsFileExists(path);
}

bool GetRegularFilePathsInDirectory(const std::string& dir, std::vector<std::string>& out) {
    std::vector<std::string> found;
    if (::GetRegularFilePathsInDirectory(dir, found)) {
        out.insert(out.end(), found.begin(), found.end());
    }
    return true;
}

}  // namespace ZARNPackageCore
