#include "service/gen_service_cfg.h"

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/servicecfg.h"
#include "service/jobs.h"

namespace ZARNPackageTool {
namespace Service {

namespace {

const std::string kOverrideDir = "/usr/zarn/etc/zarnservice.override/";

// The service configuration of a package's service. The two flags are kept as booleans and
// written as the words the service manager reads.
struct ServiceCfg {
    std::string service;
    bool autoStart = false;
    bool isPackage = true;

    Json::Value ToJson() const {
        Json::Value cfg(Json::objectValue);
        cfg["init_job_map"]["upstart"].append(service);
        cfg["auto_start"] = autoStart ? "yes" : "no";
        cfg["is_package"] = isPackage ? "yes" : "no";
        return cfg;
    }
};

bool WriteServiceCfg(const std::string& path, const ServiceCfg& cfg) {
    if (path.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (cfg.service.empty()) {
        VLIBCErrSet(kErrEmptyName);
        return false;
    }
    char temporary[4096];
    if (!CreateTmpFile(path, temporary, sizeof(temporary))) {
        return false;
    }
    if (!Json::toFile(cfg.ToJson(), temporary)) {
        ZLOGERR("Failed to write %s (%m)", temporary);
        VLIBCErrSet(kErrWrite);
        goto failed;
    }
    if (VLIBServicecfgValidate(temporary) < 0) {
        ZLOGERR("Invalid %s%s", temporary, ZARNLastErrorSuffix().c_str());
        goto failed;
    }
    if (!ZARNRename(temporary, path)) {
        ZLOGERR("Failed to rename %s to %s (%m)", temporary, path.c_str());
        VLIBCErrSet(kErrRename);
        goto failed;
    }
    if (!ZARNChmod(path, 0644)) {
        ZLOGERR("chmod failed for '%s' (%m)", path.c_str());
    }
    return true;

failed:
    ZARNUnlink(temporary);
    return false;
}

}  // namespace

bool GenServiceCfg(const std::string& package, const Json::Value& /*config*/, bool overwrite) {
    if (package.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    ServiceCfg cfg;
    cfg.service = PkgctlName(package);
    const std::string path = ZARNServicecfgPath(cfg.service);
    if ((overwrite || !ZARNPathExists(path)) && !WriteServiceCfg(path, cfg)) {
        ZLOGERR("Failed to generate service cfg for %s %s", package.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    const int key = IsFileExists("/var/packages/" + package + "/enabled") ? ZARN_RUNKEY_ENABLED
                                                                          : ZARN_RUNKEY_DISABLED;
    if (VLIBServicecfgRunKeySet(cfg.service, key) < 0) {
        ZLOGERR("Failed to set runkey=%d for %s %s", key, cfg.service.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    return true;
}

void UnlinkServiceCfg(const std::string& package) {
    if (package.empty()) {
        return;
    }
    const std::string service = PkgctlName(package);
    for (const std::string& path : {ZARNServicecfgPath(service), kOverrideDir + service + ".cfg",
                                    ZARNServicecfgRuntimePath(service)}) {
        UnlinkIfPresent(path);
    }
}

}  // namespace Service
}  // namespace ZARNPackageTool
