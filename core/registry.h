#pragma once

#include <string>

#include "core/export.h"

class ZARNFolder;

namespace ZARNPackageTool {

// The registry root and its per-package folder.
constexpr const char* PKG_REGISTRY_DIR = "/var/packages";
ZARNPKG_API std::string PMSRegistryDir(const std::string& name);

// A package is installed when its registry folder and its INFO both exist.
ZARNPKG_API bool PMSCheckPackage(const std::string& name);
// The target of /var/packages/<name>/target, or "" when it is no directory.
ZARNPKG_API std::string PMSGetPackageTarget(const std::string& name);
// "" without a link, "not_volume_path" for the system partition, else the volume of the target.
ZARNPKG_API std::string PMSGetPackageTargetVolByPath(const char* dir);
// The same of a registry folder already open.
std::string PMSGetPackageTargetVol(const ZARNFolder& folder);
ZARNPKG_API bool PMSCheckEnabledFile(const char* dir);
// The desktop entry of a package's UI folder (`kosuidir`), whose presence shows it running.
ZARNPKG_API std::string PMSDesktopEntryPath(const std::string& uidir);

// flock on a file: the descriptor, or a negative number.
ZARNPKG_API int PMSLockFile(const char* path, bool exclusive);
ZARNPKG_API void PMSUnlockFile(int fd);

}  // namespace ZARNPackageTool
