#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"
#include "core/packageinfo.h"
#include "pkgutils/worker.h"
#include "resource/timing.h"

// The resource calls of the lifecycle. Each runs the workers of one moment in one forked
// child, so that a crashing worker fails the call instead of the caller.
namespace ZARNPackageTool {
namespace Resource {

// Runs the workers of `timing` forward over the package's conf/resource (under `prefix` while
// it is unpacked there, else the installed one). A failure rolls back what ran, last first,
// except at "postinst", where the remaining workers still run. `variables` may be null.
ZARNPKG_API bool Acquire(TIMING timing, const PackageInfo& info, PKG_INSTALLATION_TYPE type,
                         ZARN::PkgUtils::WorkerResp& resp, const Json::Value* variables,
                         const std::string& prefix);
// Runs the workers of `timing` backward, only those that recorded something in the own file.
// A worker's failure is logged and fails nothing.
ZARNPKG_API bool Release(TIMING timing, const PackageInfo& info, PKG_INSTALLATION_TYPE type,
                         ZARN::PkgUtils::WorkerResp& resp, const Json::Value* variables,
                         const std::string& prefix);
// Runs Update of one worker of an installed package with `helperArgs` as "@helper-args".
ZARNPKG_API bool Update(const PackageInfo& info, const std::string& type,
                        const Json::Value& helperArgs, ZARN::PkgUtils::WorkerResp& resp);
// Makes sure that conf/resource has the key "service-cfg".
ZARNPKG_API bool InitRequiredFields(const std::string& name, const std::string& prefix);

}  // namespace Resource
}  // namespace ZARNPackageTool
