#include "platform/services.h"

#include <cerrno>
#include <cstdlib>

#include "platform/errors.h"
#include "platform/filecache.h"
#include "platform/files.h"
#include "platform/json.h"

namespace {

constexpr const char* kServicesFile = "/etc/zarnhost/services.json";

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

int ZARNSystemGetBootStep() {
    constexpr int kSystemUp = 4;
    std::string text;
    if (!ZARNFileRead("/run/zarnhost/boot_step", text, 64)) {
        return kSystemUp;
    }
    char* end = nullptr;
    const long step = std::strtol(text.c_str(), &end, 10);
    return end == text.c_str() ? kSystemUp : static_cast<int>(step);
}
