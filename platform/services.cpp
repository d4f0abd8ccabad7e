#include "platform/services.h"

#include <cerrno>

#include "platform/errors.h"
#include "platform/filecache.h"
#include "platform/files.h"
#include "platform/json.h"

namespace {

constexpr const char* kServicesFile = "/etc/zarnhost/services.json";
constexpr const char* kJobStateDir = "/run/zarnhost/jobs";

bool ParseServiceList(Json::Value& list) {
    Json::Value services;
    if (!Json::fromFile(services, kServicesFile)) {
        return false;
    }
    if (!services.isObject()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    list = services["services"];
    if (!list.isArray()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    return true;
}

// Kept while the file is unchanged: every status query of a listing asks about host services.
bool LoadServiceList(Json::Value& list) {
    static ZARNFileCache<Json::Value> cache;
    return cache.get(kServicesFile, list, ParseServiceList);
}

// The entry of one host service: 1 found, 0 not known, -1 list unreadable.
int FindService(const std::string& name, Json::Value& entry) {
    Json::Value list;
    if (!LoadServiceList(list)) {
        return -1;
    }
    for (const auto& s : list) {
        if (s.isObject() && s["name"].isString() && s["name"].asString() == name) {
            entry = s;
            return 1;
        }
    }
    return 0;
}

int ServiceFlag(const std::string& name, const char* key) {
    Json::Value entry;
    int found = FindService(name, entry);
    if (found <= 0) {
        return found;
    }
    const Json::Value& flag = entry[key];
    return (flag.isBool() && flag.asBool()) ? 1 : 0;
}

// Reads a job's state file. 1 read, 0 no such file, -1 unreadable.
int ReadJobState(const std::string& job, Json::Value& state) {
    if (job.empty() || job.find('/') != std::string::npos) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    const std::string path = ZARNJobStatePath(job);
    if (!ZARNPathExists(path)) {
        return 0;
    }
    if (!Json::fromFile(state, path) || !state.isObject()) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    return 1;
}

int IntMember(const Json::Value& obj, const char* key, int fallback) {
    const Json::Value& v = obj[key];
    return v.isInt() ? v.asInt() : fallback;
}

}  // namespace

bool VLIBServiceEnum(std::vector<std::string>& names) {
    Json::Value list;
    if (!LoadServiceList(list)) {
        return false;
    }
    names.clear();
    for (const auto& s : list) {
        if (s.isObject() && s["name"].isString()) {
            names.push_back(s["name"].asString());
        }
    }
    return true;
}

int VLIBServiceIsEnabled(const std::string& name) {
    return ServiceFlag(name, "enabled");
}

int VLIBServiceIsRunning(const std::string& name) {
    return ServiceFlag(name, "running");
}

int VLIBServicecfgDisplayNameGet(const std::string& name, std::string& displayName) {
    Json::Value entry;
    int found = FindService(name, entry);
    if (found < 0) {
        return -1;
    }
    if (found == 0 || !entry["display_name"].isString() ||
        entry["display_name"].asString().empty()) {
        VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
        return -1;
    }
    displayName = entry["display_name"].asString();
    return 0;
}

std::string ZARNJobStatePath(const std::string& job) {
    return std::string(kJobStateDir) + "/" + job + ".json";
}

int VLIBServiceStatusGet(const std::string& job, int& state) {
    state = 0;
    Json::Value record;
    int read = ReadJobState(job, record);
    if (read < 0) {
        return -1;
    }
    if (read == 0) {
        // Not a job of the runner: a host service answers from the service list.
        Json::Value entry;
        int found = FindService(job, entry);
        if (found > 0) {
            state = (entry["running"].isBool() && entry["running"].asBool()) ? 1 : 0;
        }
        return 0;
    }
    state = IntMember(record, "state", 0) == 1 ? 1 : 0;
    return 0;
}

int VLIBServicectlStatus(const std::string& job, int& process, int& phase) {
    process = 0;
    phase = ZARN_JOB_PHASE_WAITING;
    Json::Value record;
    int read = ReadJobState(job, record);
    if (read < 0) {
        return -1;
    }
    if (read == 0) {
        return 0;
    }
    const int state = IntMember(record, "state", 0) == 1 ? 1 : 0;
    process = IntMember(record, "process", state);
    phase =
        IntMember(record, "phase", state == 1 ? ZARN_JOB_PHASE_RUNNING : ZARN_JOB_PHASE_WAITING);
    return 0;
}

bool ZARNJobStateWrite(const std::string& job, int state, int process, int phase) {
    if (job.empty() || job.find('/') != std::string::npos) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (ZARNFSMkdirP(kJobStateDir, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) !=
        0) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    Json::Value record(Json::objectValue);
    record["state"] = state;
    record["process"] = process;
    record["phase"] = phase;
    return Json::toFile(record, ZARNJobStatePath(job));
}
