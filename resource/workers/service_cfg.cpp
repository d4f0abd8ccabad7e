#include "resource/workers/service_cfg.h"

#include <vector>

#include "platform/errors.h"
#include "platform/log.h"
#include "resource/resource_errors.h"
#include "resource/state_files.h"
#include "service/gen_job_adapter.h"
#include "service/gen_service_cfg.h"
#include "service/jobs.h"

namespace ZARNPackageTool {
namespace Resource {

namespace {

// Acquire and restore differ only in `overwrite`: a restore keeps files that stand.
bool SetUpJobs(const std::string& package, const Json::Value& request, Json::Value& own,
               bool overwrite) {
    std::vector<std::string> jobs;
    if (!Service::EnumAvailableJobs(package, jobs)) {
        ZLOGERR("Failed to enumerate the jobs of %s %s", package.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    if (!Service::InstallJobs(package, jobs, overwrite)) {
        ZLOGERR("Failed to install the jobs of %s %s", package.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    own["jobs"] = Json::Value(Json::arrayValue);
    for (const std::string& job : jobs) {
        own["jobs"].append(job);
    }
    if (!Service::GenJobAdapter(package, request, overwrite)) {
        ZLOGERR("Failed to generate the job of %s %s", package.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    return Service::GenServiceCfg(package, request, overwrite);
}

}  // namespace

int ServiceCfg::Acquire(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                        Json::Value& own, ZARN::PkgUtils::WorkerResp& /*resp*/) {
    return SetUpJobs(action.GetPkgName(), request, own, true) ? 0 : 1;
}

int ServiceCfg::Rollback(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                         Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) {
    return Release(action, request, own, resp);
}

int ServiceCfg::Release(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& /*request*/,
                        Json::Value& own, ZARN::PkgUtils::WorkerResp& /*resp*/) {
    const Json::Value jobs = own.get("jobs", Json::Value(Json::arrayValue));
    if (!jobs.isArray()) {
        ZLOGERR("\"jobs\" of service-cfg is not an array");
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return 1;
    }
    std::vector<std::string> list;
    for (const Json::Value& job : jobs) {
        if (job.isString()) {
            list.push_back(job.asString());
        }
    }
    Service::UnlinkAllJobs(action.GetPkgName(), list);
    Service::UnlinkServiceCfg(action.GetPkgName());
    own.removeMember("jobs");
    return 0;
}

bool RestoreServiceCfg(const std::string& package) {
    return RestoreServiceCfgWith(package, SetUpJobs);
}

}  // namespace Resource
}  // namespace ZARNPackageTool
