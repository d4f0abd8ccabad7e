#pragma once

#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {

// Margins kept free beside what a package needs.
constexpr unsigned long long PMS_TMP_MARGIN = 0xa00000ULL;    // 10 MiB
constexpr unsigned long long PMS_ROOT_MARGIN = 0xc800000ULL;  // 200 MiB

constexpr const char* PMS_SYSTEM_INSTALL_PATH = "/usr/local/packages";
constexpr const char* PMS_SYSTEM_TMP_DIR = "/tmp/@tmp";
constexpr const char* PMS_ROOT_TMP_DIR = "/var/tmp";
constexpr const char* PMS_DOWNLOAD_SUBDIR = "/@zarnpkg/@download";
constexpr const char* PMS_LIST_TMP_DIR = "/var/cache/pkglist.tmp/";
constexpr const char* PMS_DEF_VOL_KEY = "pkg_def_intall_vol";
constexpr const char* PMS_INFO_CONF = "/etc/zarninfo.conf";

// Temporary folders.
ZARNPKG_API bool PMSGetTmpDir(unsigned long long size, const char* volume, std::string& out,
                              bool fallback);
ZARNPKG_API bool PMSGetTmpDir(unsigned long long size, const char* volume, std::string& out);
ZARNPKG_API bool PMSGetTmpDir(unsigned long long size, std::string& out);
ZARNPKG_API bool PMSGetSystemTmpDir(unsigned long long size, std::string& out);
ZARNPKG_API bool CanUploadtoRoot(unsigned long long size, std::string& out);
ZARNPKG_API bool PMSCreateDownloadTmpDir(const char* volume, const char* name,
                                         unsigned long long size, std::string& out);
ZARNPKG_API bool PMSGetListTmpDir(std::string& out);
ZARNPKG_API bool PMSGetSystemInstallPath(std::string& out);

// A unique file or folder in a temp place: the logical path; "" on failure. The file is
// created empty (mode 0600) and closed.
ZARNPKG_API std::string PMSMakeTmpFile(const char* prefix);
ZARNPKG_API std::string PMSMakeTmpDir(const char* prefix);

// Room on the file system of `path` for `size` bytes (0x2900 when short).
ZARNPKG_API bool PMSCheckSpace(const char* path, unsigned long long size);

// Volumes.
ZARNPKG_API bool PMSGetPackageVol(const std::string& name, std::string& out);
ZARNPKG_API bool PMSGetPackageDefVol(std::string& out);
ZARNPKG_API bool PMSSavePackageDefVolPath(const char* path);
ZARNPKG_API bool PMSCheckVolStatus(const char* path, unsigned long long size);
ZARNPKG_API int VolumeCountGet(int kind, bool all);
ZARNPKG_API bool IsAnyVolumeExists();
ZARNPKG_API bool IsAnyGenericVolumeExists();

}  // namespace ZARNPackageTool

namespace ZARNPackageCore {

ZARNPKG_API bool FsyncFiles(const std::vector<std::string>& paths);
ZARNPKG_API bool FsyncDirectories(const std::vector<std::string>& paths);
ZARNPKG_API bool IsFileExists(const std::string& path);
ZARNPKG_API bool GetRegularFilePathsInDirectory(const std::string& dir,
                                                std::vector<std::string>& out);

}  // namespace ZARNPackageCore
