#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/export.h"

// Users and groups of the standalone host. They are read from the root's /etc/passwd and
// /etc/group and changed with the machine's useradd, groupadd, usermod and gpasswd (with
// --prefix when the root is not "/"). Negative results mean failure, with the last-error slot
// set: 0x1d00 for an unknown user, 0x1800 for an unknown group, 0x0d00 for a bad argument.

enum ZARNAccountErrorCode : int {
    ZARN_ERR_GROUP_NOT_FOUND = 0x1800,
    ZARN_ERR_USER_NOT_FOUND = 0x1d00,
};

// The first id of the accounts that the system leaves to users and packages; ids below it,
// and the system's own names, are reserved.
constexpr unsigned int ZARN_FIRST_UNRESERVED_ID = 1000;

// One group: its name first and its member list third, as the host's records have it. The
// member list is a null-terminated array of strings. Made by ZARNGroupGet, freed with
// ZARNGroupFree (which frees the name, each member and the array).
struct ZARNGroupRecord {
    char* name;
    gid_t gid;
    char** members;
};

// One user of /etc/passwd.
struct ZARNUserRecord {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string gecos;
    std::string home;
    std::string shell;
};

// The uid and primary gid of a user; either pointer may be null.
ZARNHOST_API int ZARNUserGetUGID(const std::string& name, uid_t* uid, gid_t* gid);
ZARNHOST_API int ZARNUserGet(const std::string& name, ZARNUserRecord& record);
ZARNHOST_API int ZARNGroupGetGID(const std::string& name, gid_t* gid);

// Non-zero for names and ids the system keeps for itself: ids below 1000 and the names of the
// system's own accounts. An id of -1 (not known yet) is judged by the name alone.
ZARNHOST_API int ZARNUserIsReserved(const std::string& name, uid_t uid);
ZARNHOST_API int ZARNGroupIsReserved(const std::string& name, gid_t gid);

// Makes the package's account and its primary group when they are missing, or adjusts an
// existing one: primary group, home directory as given, no login shell.
ZARNHOST_API int ZARNLocalAccountUserPrepareForPkg(const std::string& user,
                                                   const std::string& group,
                                                   const std::string& home);

ZARNHOST_API int ZARNGroupGet(const std::string& name, ZARNGroupRecord** record);
ZARNHOST_API void ZARNGroupFree(ZARNGroupRecord* record);
// Writes the member list of the record to the group `name`.
ZARNHOST_API int ZARNLocalAccountGroupSet(const std::string& name, const ZARNGroupRecord* record);

// The members listed for a group in /etc/group (not the users that have it as primary group).
ZARNHOST_API int ZARNGroupListMember(const std::string& name, std::vector<std::string>& members);
// The gids of all groups that list the user as a member.
ZARNHOST_API int ZARNUserListGroupIds(const std::string& name, std::vector<gid_t>& gids);

// The numbers a child process takes on to run as a package's user: `primaryOwnGroup` true gives
// the user's own primary group, false the group "system" (gid 1) as primary with the user's
// own group kept among the supplementary ones.
struct ZARNRuntimeIdentity {
    std::string user;
    std::string home;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};
ZARNHOST_API int ZARNRuntimeIdentityGet(const std::string& user, bool primaryOwnGroup,
                                        ZARNRuntimeIdentity& identity);
