#include "platform/apppriv.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "platform/accounts.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"

namespace {

constexpr const char* kDesktopDir = "/usr/zarn/zarnman/webman/3rdparty";
constexpr const char* kAdminGroup = "administrators";

// Adds `who` to the list of `app` under `kind` of the store, and notes `what` in the events log.
int AddOne(const char* kind, const std::string& who, const std::string& app,
           const std::string& what) {
    if (who.empty() || app.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    Json::Value store(Json::objectValue);
    if (ZARNPathExists(ZARN_APP_PRIVILEGE_FILE) &&
        (!Json::fromFile(store, ZARN_APP_PRIVILEGE_FILE) || !store.isObject())) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    // A store damaged by hand is left as it is rather than overwritten.
    if (store.isMember(kind) && !store[kind].isObject()) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    Json::Value& list = store[kind][app];
    if (!list.isArray()) {
        list = Json::Value(Json::arrayValue);
    }
    for (const auto& v : list) {
        if (v.isString() && v.asString() == who) {
            return 0;
        }
    }
    list.append(who);
    if (ZARNFSMkdirP("/etc/zarnhost", 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) !=
            0 ||
        !Json::toFile(store, ZARN_APP_PRIVILEGE_FILE)) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    ZARNEventLog("app privilege: " + what);
    return 0;
}

}  // namespace

int VLIBAppPrivUserAddOne(const std::string& user, const std::string& app) {
    return AddOne("users", user, app, "user " + user + " may open " + app);
}

int VLIBAppPrivGroupAddOne(const std::string& group, const std::string& app) {
    return AddOne("groups", group, app, "group " + group + " may open " + app);
}

int VLIBAppPrivGroupDenyOne(const std::string& group, const std::string& app) {
    return AddOne("deny_groups", group, app, "group " + group + " may not open " + app);
}

int VLIBGroupIsAdminGroupMem(const std::string& user, int /*flags*/) {
    std::vector<std::string> members;
    if (ZARNGroupListMember(kAdminGroup, members) < 0) {
        return -1;
    }
    if (std::find(members.begin(), members.end(), user) != members.end()) {
        return 1;
    }
    gid_t adminGid = 0;
    gid_t userGid = 0;
    if (ZARNGroupGetGID(kAdminGroup, &adminGid) < 0 ||
        ZARNUserGetUGID(user, nullptr, &userGid) < 0) {
        return 0;
    }
    return userGid == adminGid ? 1 : 0;
}

int ZARNLDAPIsBinded() {
    return 0;
}

int ZARNLDAPLoginSuffixGet(std::string& suffix) {
    suffix.clear();
    VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
    return -1;
}

int ZARNWinsIsJoined() {
    return 0;
}

int ZARNGroupDomainAdminListGet(std::vector<std::string>& groups) {
    groups.clear();
    VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
    return -1;
}

bool ZARNAppConfigLoad(const char* /*lang*/, Json::Value& out) {
    out = Json::Value(Json::objectValue);
    std::vector<ZARNDirEntry> entries;
    if (!ZARNListDir(kDesktopDir, entries)) {
        // No desktop applications at all.
        return true;
    }
    std::vector<std::string> names;
    for (const auto& e : entries) {
        names.push_back(e.name);
    }
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        const std::string path = std::string(kDesktopDir) + "/" + name + "/config";
        if (!ZARNIsRegularFile(path)) {
            continue;
        }
        Json::Value config;
        if (!Json::fromFile(config, path) || !config.isObject()) {
            ZLOGERR("Failed to parse %s", path.c_str());
            continue;
        }
        for (const auto& group : config.getMemberNames()) {
            const Json::Value& apps = config[group];
            if (!apps.isObject()) {
                continue;
            }
            for (const auto& app : apps.getMemberNames()) {
                out[group][app] = apps[app];
            }
        }
    }
    return true;
}

bool ZARNEventLog(const std::string& text) {
    if (ZARNFSMkdirP("/var/log/zarnhost", 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1),
                     0755) != 0) {
        return false;
    }
    char stamp[64] = "";
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) != nullptr) {
        strftime(stamp, sizeof(stamp), "%Y/%m/%d %H:%M:%S", &local);
    }
    ZARNSyslog(LOG_INFO, "%s", text.c_str());
    return ZARNFileAppend(ZARN_EVENTS_LOG, std::string(stamp) + "\t" + text + "\n");
}

int ZARNLogSet1(int /*facility*/, int level, unsigned int id, const std::string& arg1,
                const std::string& arg2, const std::string& arg3) {
    char head[64];
    snprintf(head, sizeof(head), "event 0x%08X level %d:", id, level);
    std::string text = head;
    for (const std::string* arg : {&arg1, &arg2, &arg3}) {
        if (!arg->empty()) {
            text += " " + *arg;
        }
    }
    return ZARNEventLog(text) ? 0 : -1;
}
