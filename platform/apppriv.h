#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "platform/export.h"

// Application rights of the standalone host: who may open which desktop application. Grants
// are kept in /etc/zarnhost/app_privileges.json as {"users": {app: [user, ...]}, "groups":
// {app: [group, ...]}} and each one is noted as a line of /var/log/zarnhost/events.log.

constexpr const char* ZARN_APP_PRIVILEGE_FILE = "/etc/zarnhost/app_privileges.json";
constexpr const char* ZARN_EVENTS_LOG = "/var/log/zarnhost/events.log";

// Grants one application to one user or group: 0, or -1 (last error set). A grant that exists
// is success without a second entry.
ZARNHOST_API int VLIBAppPrivUserAddOne(const std::string& user, const std::string& app);
ZARNHOST_API int VLIBAppPrivGroupAddOne(const std::string& group, const std::string& app);
// Refuses one application to a group ("deny_groups" of the store), the same way.
ZARNHOST_API int VLIBAppPrivGroupDenyOne(const std::string& group, const std::string& app);

// 1 when the user belongs to the group "administrators" (listed, or as primary group), 0 when
// not, -1 when the accounts can't be read. `flags` is unused on this host.
ZARNHOST_API int VLIBGroupIsAdminGroupMem(const std::string& user, int flags);

// Directory services: the standalone host is bound to none.
ZARNHOST_API int ZARNLDAPIsBinded();
ZARNHOST_API int ZARNLDAPLoginSuffixGet(std::string& suffix);
ZARNHOST_API int ZARNWinsIsJoined();
ZARNHOST_API int ZARNGroupDomainAdminListGet(std::vector<std::string>& groups);

// The desktop's application configuration: the members of every JSON object in
// /usr/zarn/zarnman/webman/3rdparty/<folder>/config, merged in folder order (a later group of
// the same name adds its applications). `lang` names the language of the texts.
ZARNHOST_API bool ZARNAppConfigLoad(const char* lang, Json::Value& out);

// Appends one line, stamped, to the events log.
ZARNHOST_API bool ZARNEventLog(const std::string& text);
// A system log event: "event 0x<id> level <level>: <args...>" in the events log and syslog.
// 0, or -1 when it can't be written.
ZARNHOST_API int ZARNLogSet1(int facility, int level, unsigned int id, const std::string& arg1,
                             const std::string& arg2, const std::string& arg3);
