#include "platform/servicecfg.h"

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/json.h"

namespace {

constexpr const char* kServicecfgDir = "/usr/zarn/etc/zarnservice.d/";
constexpr const char* kRuntimeDir = "/run/zarnservice/service";

bool IsYesNo(const Json::Value& value) {
    return value.isString() && (value.asString() == "yes" || value.asString() == "no");
}

bool ReadInitJobs(const Json::Value& cfg, std::vector<std::string>* out) {
    if (!cfg.isObject() || !cfg["init_job_map"].isObject()) {
        return false;
    }
    const Json::Value& jobs = cfg["init_job_map"]["upstart"];
    if (!jobs.isArray()) {
        return false;
    }
    for (const auto& job : jobs) {
        if (!job.isString() || !ZARNJobNameValid(job.asString())) {
            return false;
        }
        if (out != nullptr) {
            out->push_back(job.asString());
        }
    }
    return true;
}

}  // namespace

std::string ZARNServicecfgPath(const std::string& service) {
    return kServicecfgDir + service + ".cfg";
}

std::string ZARNServicecfgRuntimePath(const std::string& service) {
    return std::string(kRuntimeDir) + "/" + service + ".cfg";
}

int VLIBServicecfgValidate(const std::string& path) {
    Json::Value cfg;
    if (!Json::fromFile(cfg, path)) {
        return -1;
    }
    for (const char* flag : {"auto_start", "is_package"}) {
        if (cfg.isObject() && cfg.isMember(flag) && !IsYesNo(cfg[flag])) {
            VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
            return -1;
        }
    }
    if (!ReadInitJobs(cfg, nullptr)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    return 0;
}

int VLIBServicecfgRunKeySet(const std::string& service, int key) {
    if (!ZARNJobNameValid(service) || (key != ZARN_RUNKEY_ENABLED && key != ZARN_RUNKEY_DISABLED)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    if (ZARNFSMkdirP(kRuntimeDir, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) !=
        0) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    Json::Value record(Json::objectValue);
    record["runkey"] = key;
    return Json::toFile(record, ZARNServicecfgRuntimePath(service)) ? 0 : -1;
}

int VLIBServicecfgRunKeyGet(const std::string& service) {
    if (!ZARNJobNameValid(service)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    const std::string path = ZARNServicecfgRuntimePath(service);
    if (!ZARNPathExists(path)) {
        return 0;
    }
    Json::Value record;
    if (!Json::fromFile(record, path)) {
        return -1;
    }
    return record.isObject() && record["runkey"].isInt() ? record["runkey"].asInt() : 0;
}

int VLIBServicecfgInfoGet(const std::string& service, int what, std::vector<std::string>& out) {
    if (!ZARNJobNameValid(service) || what != ZARN_SERVICECFG_INIT_JOBS) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    out.clear();
    const std::string path = ZARNServicecfgPath(service);
    if (!ZARNPathExists(path)) {
        if (ZARNPathExists(ZARNJobFilePath(service))) {
            out.push_back(service);
        }
        return 0;
    }
    Json::Value cfg;
    if (!Json::fromFile(cfg, path)) {
        return -1;
    }
    if (!ReadInitJobs(cfg, &out)) {
        out.clear();
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    return 0;
}
