#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {
namespace Service {

// Registers the service pkgctl-<package> with the service manager: writes its configuration
// (unless it exists and `overwrite` is false) and sets its run key from the package's
// `enabled` file. The configuration argument is not read.
ZARNPKG_API bool GenServiceCfg(const std::string& package, const Json::Value& config,
                               bool overwrite);
// Removes the service's configuration, its override and its runtime record.
ZARNPKG_API void UnlinkServiceCfg(const std::string& package);

}  // namespace Service
}  // namespace ZARNPackageTool
