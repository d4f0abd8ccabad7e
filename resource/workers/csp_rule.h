#pragma once

#include "pkgutils/worker.h"

namespace ZARNPackageTool {
namespace Resource {

// "csp-rule": adds the package's content-security-policy rules to the web server's rule set.
// Request: "conf", the path of a JSON file of rules relative to the root directory. No own
// object.
class CspRule : public ZARN::PkgUtils::IWorker {
public:
    int Acquire(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
    int Rollback(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                 Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
    int Release(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
    bool IsUpdatable() override { return true; }
    int Update(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
               Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
};

}  // namespace Resource
}  // namespace ZARNPackageTool
