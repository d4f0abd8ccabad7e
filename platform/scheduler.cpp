#include "platform/scheduler.h"

#include <cerrno>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/textsplit.h"

namespace ZARN {
namespace ZarnCrond {

namespace {

constexpr const char* kConfigDir = "/usr/zarn/etc/zarncron.d";

bool NonEmptyString(Json::Value const& job, const char* key) {
    return job[key].isString() && !job[key].asString().empty();
}

}  // namespace

ConfigManager::ConfigManager(std::string const& name, bool package)
    : path_(std::string(kConfigDir) + (package ? "/" : "/system/") + name + ".json") {
    // A name that could leave the folder names no configuration at all.
    if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
        path_.clear();
    }
}

bool ConfigManager::IsValidJob(Json::Value const& job) {
    if (!job.isObject()) {
        return false;
    }
    for (const char* key : {"name", "cmd", "user", "period"}) {
        if (!NonEmptyString(job, key)) {
            return false;
        }
    }
    if (job["period"].asString() != "crontab") {
        return true;
    }
    if (!job["crontab"].isString()) {
        return false;
    }
    size_t fields = 0;
    for (const std::string& field : ZARNSplitText(job["crontab"].asString(), ' ')) {
        fields += field.empty() ? 0 : 1;
    }
    return fields == 5;
}

bool ConfigManager::Exist() const {
    return !path_.empty() && ZARNIsRegularFile(path_);
}

bool ConfigManager::Save(Json::Value const& jobs) {
    Json::Value list = jobs;
    if (jobs.isObject()) {
        list = Json::Value(Json::arrayValue);
        list.append(jobs);
    }
    bool valid = !path_.empty() && list.isArray();
    for (Json::Value const& job : list) {
        valid = valid && IsValidJob(job);
    }
    if (!valid) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    const std::string dir = path_.substr(0, path_.find_last_of('/'));
    if (ZARNFSMkdirP(dir, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) != 0) {
        return false;
    }
    return Json::toFile(list, path_);
}

bool ConfigManager::Load(Json::Value& jobs) const {
    jobs = Json::Value(Json::arrayValue);
    if (!Exist() || !Json::fromFile(jobs, path_) || !jobs.isArray()) {
        jobs = Json::Value(Json::arrayValue);
        return false;
    }
    return true;
}

bool ConfigManager::Remove() {
    if (path_.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    return ZARNUnlink(path_) || errno == ENOENT;
}

}  // namespace ZarnCrond
}  // namespace ZARN
