#include "resource/workers/csp_rule.h"

#include <string>

#include "platform/csp_rule.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "resource/resource_errors.h"

namespace ZARNPackageTool {
namespace Resource {

int CspRule::Acquire(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                     Json::Value& /*own*/, ZARN::PkgUtils::WorkerResp& /*resp*/) {
    const ZARN::KOS::CspRule rules(action.GetPkgName(), true);
    const Json::Value conf = request.get("conf", "");
    if (!conf.isString() || conf.asString().empty()) {
        ZLOGERR("no config real path defined");
        VLIBCErrSet(ZARN_ERR_NO_CONFIG);
        return 1;
    }
    const std::string path = action.GetRootDir() + "/" + conf.asString();
    if (!IsFileExists(path)) {
        ZLOGERR("config file %s not exist", path.c_str());
        VLIBCErrSet(ZARN_ERR_NO_CONFIG);
        return 1;
    }
    Json::Value content;
    if (!Json::fromFile(content, path)) {
        ZLOGERR("config file %s json format error", path.c_str());
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return 1;
    }
    if (!rules.Save(content)) {
        ZLOGERR("Failed to save the rules of %s %s", action.GetPkgName().c_str(),
                ZARNLastErrorSuffix().c_str());
        return 1;
    }
    return 0;
}

int CspRule::Rollback(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                      Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) {
    return Release(action, request, own, resp);
}

int CspRule::Release(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& /*request*/,
                     Json::Value& /*own*/, ZARN::PkgUtils::WorkerResp& /*resp*/) {
    ZARN::KOS::CspRule(action.GetPkgName(), true).Delete();
    return 0;
}

int CspRule::Update(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                    Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) {
    return Acquire(action, request, own, resp);
}

}  // namespace Resource
}  // namespace ZARNPackageTool
