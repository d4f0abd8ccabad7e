#pragma once

#include <set>
#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {
namespace Service {

// Error codes of the job and service configuration writers, in the last-error slot.
constexpr int kErrShortBuffer = 0x0100;
constexpr int kErrOpen = 0x0900;
constexpr int kErrWrite = 0x0b00;
constexpr int kErrTmpFile = 0x0c00;
constexpr int kErrEmptyName = 0x2a00;
constexpr int kErrRename = 0x2800;
constexpr int kErrUnlink = 0x3900;
constexpr int kErrCopy = 0x3b00;
constexpr int kErrInvalid = 0x4000;

// Unlinks a file; one that isn't there is no failure, another failure is logged (0x3900).
void UnlinkIfPresent(const std::string& path);

// "pkgctl-" followed by the package name: the generated job and service of a package.
ZARNPKG_API std::string PkgctlName(const std::string& package);
// True for the name of a package's own job: "pkg-" and at least one more character.
ZARNPKG_API bool IsPackageJobName(const std::string& job);

// The package's own jobs under /var/packages/<package>/conf/upstart, in listing order. True
// also when the package has no such folder.
ZARNPKG_API bool EnumAvailableJobs(const std::string& package, std::vector<std::string>& jobs);
// Copies the package's jobs into /etc/init with their control-group lines and has each
// validated; on a failure the jobs copied by this call are removed again.
ZARNPKG_API bool InstallJobs(const std::string& package, const std::vector<std::string>& jobs,
                             bool overwrite);
// True when the init daemon knows the job.
ZARNPKG_API bool ValidateJob(const std::string& job);
// Removes the generated job of the package and the package jobs of the list.
ZARNPKG_API void UnlinkAllJobs(const std::string& package, const std::vector<std::string>& jobs);
// System services that the package names (install_dep_services).
ZARNPKG_API bool GetDependentService(const std::string& package, std::set<std::string>& services);
// Packages that the package depends on, passed through `transform` when one is given.
ZARNPKG_API bool GetDependentPkg(const std::string& package, std::set<std::string>& packages,
                                 std::string (*transform)(const std::string&));
// Init jobs of the services that the package names.
ZARNPKG_API bool GetDependentJob(const std::string& package, std::set<std::string>& jobs);
// Creates an empty unique file beside `target` (mode 0600) and leaves its name in `buffer`.
ZARNPKG_API bool CreateTmpFile(const std::string& target, char* buffer, unsigned int size);

}  // namespace Service
}  // namespace ZARNPackageTool
