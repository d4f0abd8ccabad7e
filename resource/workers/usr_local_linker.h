#pragma once

#include <string>

#include "pkgutils/worker.h"

namespace ZARNPackageTool {
namespace Resource {

// "usr-local-linker": links files of the payload into /usr/local/bin, /usr/local/lib and
// /usr/local/etc. Request: "bin", "lib", "etc", arrays of patterns relative to the root
// directory. Own: "links", the links it made.
class UsrLocalLinker : public ZARN::PkgUtils::IWorker {
public:
    int Acquire(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
    int Rollback(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                 Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
    int Release(const ZARN::PkgUtils::ActionInfo& action, const Json::Value& request,
                Json::Value& own, ZARN::PkgUtils::WorkerResp& resp) override;
};

}  // namespace Resource
}  // namespace ZARNPackageTool
