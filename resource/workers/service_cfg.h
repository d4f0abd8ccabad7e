#pragma once

#include <string>

#include "core/export.h"
#include "pkgutils/worker.h"

namespace ZARNPackageTool {
namespace Resource {

// "service-cfg": installs the package's own jobs, writes its generated job and registers its
// service. The framework adds the key to every package, so it runs for all. Request: what the
// job adapter reads. Own: "jobs", the names of the installed package jobs.
class ServiceCfg : public ZARN::PkgUtils::IWorker {
public:
    int Acquire(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
    int Rollback(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                 Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
    int Release(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
};

// Re-creates the jobs and the service of an installed package from its "service-cfg" request,
// leaving files that already stand, and records them in the own file.
ZARNPKG_API bool RestoreServiceCfg(const std::string& package);

}  // namespace Resource
}  // namespace ZARNPackageTool
