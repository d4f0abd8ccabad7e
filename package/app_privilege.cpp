#include "package/app_privilege.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <vector>

#include "core/packagemanager.h"
#include "platform/accounts.h"
#include "platform/apppriv.h"
#include "platform/errors.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kAdminGroup = "administrators";

std::string Lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// The built-in accounts hold every right already.
bool IsBuiltinAccount(const std::string& user) {
    const std::string lower = Lower(user);
    return lower == "admin" || lower == "zarnwickcms";
}

bool IsTrue(const Json::Value& v) {
    return v.isBool() && v.asBool();
}

struct Grant {
    std::string grant;
};

}  // namespace

void PMSSetAppPrivilege(const char* user, const std::string& apps, const char* lang) {
    if (apps.empty()) {
        return;
    }
    Json::Value config;
    if (!ZARNAppConfigLoad(lang != nullptr ? lang : "enu", config) || !config.isObject()) {
        return;
    }
    std::vector<std::string> order;
    std::map<std::string, Grant> recorded;
    // The advanced mark comes from any group that lets the application take privileges, also
    // one whose grant isn't configurable; it counts for the applications that get recorded.
    std::set<std::string> advanced;
    for (const auto& app : PMSExplodeString(apps, " ")) {
        for (const auto& groupName : config.getMemberNames()) {
            const Json::Value& group = config[groupName];
            if (!group.isObject() || !group.isMember(app) || !group[app].isObject()) {
                continue;
            }
            const Json::Value& entry = group[app];
            const Json::Value& grant = entry["grantPrivilege"];
            if (!grant.isString() || (grant.asString() != "all" && grant.asString() != "local")) {
                continue;
            }
            if (!entry.isMember("configablePrivilege") || IsTrue(entry["configablePrivilege"])) {
                if (recorded.count(app) == 0) {
                    order.push_back(app);
                }
                recorded[app].grant = grant.asString();
            }
            if (IsTrue(entry["advanceGrantPrivilege"])) {
                advanced.insert(app);
            }
        }
    }
    if (order.empty()) {
        return;
    }
    if (user != nullptr && !IsBuiltinAccount(user) && VLIBGroupIsAdminGroupMem(user, 0) == 1) {
        for (const auto& app : order) {
            VLIBAppPrivUserAddOne(user, app);
        }
    }
    for (const auto& app : order) {
        const Grant& g = recorded[app];
        if (advanced.count(app) != 0) {
            VLIBAppPrivGroupAddOne(kAdminGroup, app);
            if (g.grant == "all") {
                std::string suffix;
                if (ZARNLDAPIsBinded() == 1 && ZARNLDAPLoginSuffixGet(suffix) >= 0) {
                    VLIBAppPrivGroupAddOne(std::string(kAdminGroup) + "@" + suffix, app);
                }
                std::vector<std::string> domainAdmins;
                if (ZARNWinsIsJoined() == 1 && ZARNGroupDomainAdminListGet(domainAdmins) >= 0) {
                    for (const auto& group : domainAdmins) {
                        VLIBAppPrivGroupAddOne(group, app);
                    }
                }
            }
            continue;
        }
        std::vector<std::string> members;
        if (ZARNGroupListMember(kAdminGroup, members) < 0) {
            ZARNSyslog(LOG_ERR, "%s:%d ZARNGroupListMember(%s) failed, zarnerr=0x%04X\n", __FILE__,
                       __LINE__, kAdminGroup, VLIBCErrGet());
            continue;
        }
        for (const auto& member : members) {
            if (!IsBuiltinAccount(member)) {
                VLIBAppPrivUserAddOne(member, app);
            }
        }
    }
}

}  // namespace ZARNPackageTool
