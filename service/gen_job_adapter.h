#pragma once

#include <json/json.h>

#include <cstdint>
#include <ostream>
#include <set>
#include <string>

#include "core/export.h"

namespace ZARNPackageTool {
namespace Service {

// The generated init job of a package, pkgctl-<name>: an adapter between the init daemon's
// events and zarnpkgctl. Its text carries the order in which packages come up and go down.
class ZARNPKG_API JobAdapter {
public:
    enum StartKind : int32_t { kStartWithSystem = 0, kStartWithPackages = 1 };
    enum ControlKind : int32_t { kControlNone = 0, kControlScripts = 1, kControlEvents = 2 };

    std::string name;  // the package, without "pkgctl-"
    int32_t startKind = kStartWithPackages;
    int32_t controlKind = kControlScripts;
    std::set<std::string> dependentPackages;
    std::set<std::string> dependentJobs;

    // Writes the job text, a line at a time.
    void Write(std::ostream& out) const;
    // Writes the job file under a temporary name beside `path` and renames it into place.
    bool ToFile(const std::string& path) const;
};

// True when `package` can be written into job text: no double or single quote, "$", backquote,
// backslash or control character, which a shell would read as something else.
ZARNPKG_API bool IsJobSafeName(const std::string& package);

// Writes /etc/init/pkgctl-<package>.conf from the package's dependencies and the
// configuration's "start-on" and "controlled-by", has it validated and enables or disables the
// job as the package's `enabled` file says. `flag` is not read: the file is always rewritten.
ZARNPKG_API bool GenJobAdapter(const std::string& package, const Json::Value& config, bool flag);

}  // namespace Service
}  // namespace ZARNPackageTool
