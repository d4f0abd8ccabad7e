#include "privilege/privilege.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/packagemanager.h"
#include "pkgutils/relpath.h"
#include "platform/accounts.h"
#include "platform/errors.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/scope_guard.h"
#include "platform/sysroot.h"
#include "privilege/revise_executable.h"
#include "privilege/revise_tool.h"
#include "privilege/walker.h"

// The last error's code, file and line, for the "[0x%04X %s:%d]" end of a log line.
#define PRIV_LAST_ERROR VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine()

namespace ZARNPackageTool {
namespace Privilege {

namespace {

const char* const kScripts[] = {"start-stop-status", "preupgrade", "postupgrade", "preinst",
                                "postinst",          "preuninst",  "postuninst"};

std::string PackageDir(const std::string& name) {
    return "/var/packages/" + name;
}

bool FindConf(const std::string& name, const std::string& dir, std::string& path) {
    return dir.empty() ? GetConfPath(name, path) : GetConfPathFrom(dir, path);
}

// The file comes with the package: far larger than any real one is refused rather than read.
const size_t kMaxConfFile = 4 * 1024 * 1024;

// Reads the file; errno tells why it failed, a parse failure showing as a bad message. Only a
// regular file is read, so that a link to a device or a pipe can neither hang nor exhaust us.
bool ReadConfFile(const std::string& path, Json::Value& config) {
    config = Json::Value();
    std::string text;
    bool ok = false;
    if (!ZARNIsRegularFile(path)) {
        errno = IsFileExists(path) ? EINVAL : ENOENT;
    } else if (!ZARNFileRead(path, text, kMaxConfFile + 1)) {
        // errno tells why
    } else if (text.size() > kMaxConfFile) {
        errno = EFBIG;
    } else {
        errno = EBADMSG;
        ok = Json::fromString(config, text);
    }
    if (!ok) {
        ZLOGERR("Failed to read %s (%m)", path.c_str());
        VLIBCErrSet(PRIV_ERR_READ_CONF);
        return false;
    }
    return true;
}

// Adds the user to the member list of an existing group, unless it is already there.
bool JoinGroup(const std::string& user, const std::string& group) {
    ZARNGroupRecord* record = nullptr;
    if (ZARNGroupGet(group, &record) < 0) {
        ZLOGERR("ZARNGroupGet [%s] failed [0x%04X %s:%d]", group.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    ZARN_SCOPE_EXIT {
        ZARNGroupFree(record);
    };
    size_t count = 0;
    for (char** member = record->members; member != nullptr && *member != nullptr; ++member) {
        if (strcmp(*member, user.c_str()) == 0) {
            return true;
        }
        ++count;
    }
    char** members = static_cast<char**>(calloc(count + 2, sizeof(char*)));
    if (members == nullptr) {
        ZLOGERR("Failed to calloc");
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
        return false;
    }
    char* added = strdup(user.c_str());
    // The record gets its own list back before it is freed; the new list and name are ours.
    char** original = record->members;
    ZARN_SCOPE_EXIT {
        record->members = original;
        free(added);
        free(members);
    };
    if (added == nullptr) {
        ZLOGERR("Failed to strdup");
        VLIBCErrSet(ZARN_ERR_OUT_OF_MEMORY);
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        members[i] = original[i];
    }
    members[count] = added;
    record->members = members;
    if (ZARNLocalAccountGroupSet(record->name, record) < 0) {
        ZLOGERR("Failed to set '%s' [0x%04X %s:%d]", record->name, PRIV_LAST_ERROR);
        return false;
    }
    return true;
}

// Clears the set-ID bits of the package's scripts. A script that is a link is refused when it
// leads out of the staging folder, and passed over when it stays inside: its target is a file
// of the package that has been judged on its own.
bool ClearScriptBits(const std::string& staging) {
    for (const char* script : kScripts) {
        const std::string rel = std::string("scripts/") + script;
        // A dangling link has no bits to clear; it is passed over like a missing script.
        if (!IsFileExists(staging + "/" + rel)) {
            continue;
        }
        std::string path;
        if (!ZARN::PkgUtils::ResolveRelPath(staging, rel, path)) {
            return false;
        }
        if (!RelPathCrossesLink(staging, rel) && !ClearSetUGidBit(path)) {
            return false;
        }
    }
    return true;
}

// chown -hR on the package tree: links themselves, the whole tree. The owner goes as numbers
// since the names live in the root's account files, which the machine's chown doesn't read.
bool SetDefaultOwner(const std::string& staging, int identity, uid_t uid, gid_t gid) {
    const gid_t systemGid = 1;
    std::string owner;
    switch (identity) {
        case IDENTITY_PACKAGE:
            owner = std::to_string(uid) + ":" + std::to_string(gid);
            break;
        case IDENTITY_SYSTEM:
            owner = std::to_string(uid) + ":" + std::to_string(systemGid);
            break;
        case IDENTITY_ROOT:
            return true;
        default:
            VLIBCErrSet(PRIV_ERR_BAD_CONF);
            return false;
    }
    const std::string tree = staging + "/package";
    // The walkers resolve paths inside this folder, so it must be the folder itself.
    if (ZARNIsSymlink(tree)) {
        VLIBCErrSet(PRIV_ERR_NOT_THERE);
        return false;
    }
    ZARNUtils::ProcessRunner chownTree(
        {ZARNMachineProgram("/bin/chown"), "-hR", owner, ZARNPhysicalPath(tree)});
    if (chownTree.run() != 0) {
        VLIBCErrSet(ZARN_ERR_EXEC);
        return false;
    }
    return true;
}

}  // namespace

bool GetConfPathFrom(const std::string& dir, std::string& path) {
    const std::string candidate = dir + "/conf/privilege";
    if (dir.empty() || !IsFileExists(candidate)) {
        VLIBCErrSet(PRIV_ERR_NOT_THERE);
        return false;
    }
    path = candidate;
    return true;
}

bool GetConfPath(const std::string& name, std::string& path) {
    return GetConfPathFrom(PackageDir(name), path);
}

int TranslateIdentity(const std::string& word) {
    if (word == "root") {
        return IDENTITY_ROOT;
    }
    if (word == "system") {
        return IDENTITY_SYSTEM;
    }
    if (word == "package") {
        return IDENTITY_PACKAGE;
    }
    VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
    return IDENTITY_NONE;
}

int GetDefaultIdentity(const Json::Value& config) {
    if (config.isObject() && config.isMember("defaults") && config["defaults"].isObject() &&
        config["defaults"].isMember("run-as") && config["defaults"]["run-as"].isString()) {
        return TranslateIdentity(config["defaults"]["run-as"].asString());
    }
    return IDENTITY_PACKAGE;
}

std::string GetConfString(const Json::Value& config, const std::string& key,
                          const std::string& def) {
    if (config.isObject() && config.isMember(key) && config[key].isString() &&
        !config[key].asString().empty()) {
        return config[key].asString();
    }
    return def;
}

bool ReadConfig(const std::string& name, const std::string& dir, Config& config) {
    config = Config();
    if (name.empty()) {
        VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
        return false;
    }
    if (!FindConf(name, dir, config.path)) {
        return true;
    }
    if (!ReadConfFile(config.path, config.raw)) {
        return false;
    }
    config.present = true;
    config.username = GetConfString(config.raw, "username", name);
    config.groupname = GetConfString(config.raw, "groupname", name);
    config.joinGroupname = GetConfString(config.raw, "join-groupname", "");
    config.defaultIdentity = GetDefaultIdentity(config.raw);
    return true;
}

std::string GetUserName(const std::string& name, const std::string& dir) {
    if (name.empty()) {
        VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
        return "";
    }
    std::string path;
    if (!FindConf(name, dir, path)) {
        return "";
    }
    Json::Value config;
    if (!ReadConfFile(path, config)) {
        return "";
    }
    return GetConfString(config, "username", name);
}

bool SetIdentity(ZARNUtils::ProcessRunner& runner, const std::string& name,
                 const std::string& action, const std::string& dir) {
    CtrlScriptWalker walker(action);
    if (name.empty()) {
        VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
        return false;
    }
    std::string path;
    if (!FindConf(name, dir, path)) {
        return true;  // no conf/privilege: the script keeps the caller's identity
    }
    Json::Value config;
    if (!ReadConfFile(path, config)) {
        return false;
    }
    if (!TraversePrivilege(config, "ctrl-script", walker)) {
        ZLOGERR("Failed to traverse %s [0x%04X %s:%d]", path.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    int identity = walker.GetIdentity();
    if (identity == IDENTITY_NONE) {
        identity = GetDefaultIdentity(config);
    }
    const std::string username = GetConfString(config, "username", name);
    // An account that can't be found makes the runner refuse to run the script, never run it
    // with the caller's identity.
    if (identity == IDENTITY_PACKAGE) {
        runner.setRuntimeIdentity(username, true);
    } else if (identity == IDENTITY_SYSTEM) {
        runner.setRuntimeIdentity(username, false);
    }
    return true;
}

bool ReviseFileAttr(const std::string& name, const std::string& staging, bool skipOwnership) {
    if (name.empty()) {
        VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
        return false;
    }
    if (!ClearScriptBits(staging)) {
        ZLOGERR("Failed to revise scripts of %s [0x%04X %s:%d]", name.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    std::string path;
    if (!GetConfPathFrom(staging, path)) {
        return true;
    }
    Json::Value config;
    if (!ReadConfFile(path, config)) {
        return false;
    }

    const std::string username = GetConfString(config, "username", name);
    uid_t uid = static_cast<uid_t>(-1);
    if (ZARNUserGetUGID(username, &uid, nullptr) < 0) {
        if (VLIBCErrGet() != PRIV_ERR_USER_NOT_FOUND) {
            ZLOGERR("Failed to check user %s [0x%04X %s:%d]", username.c_str(), PRIV_LAST_ERROR);
            return false;
        }
        uid = static_cast<uid_t>(-1);
    }
    if (ZARNUserIsReserved(username, uid)) {
        ZLOGERR("User %s is reservered for system", username.c_str());
        return false;
    }
    const std::string groupname = GetConfString(config, "groupname", name);
    gid_t gid = static_cast<gid_t>(-1);
    if (ZARNGroupGetGID(groupname, &gid) < 0) {
        if (VLIBCErrGet() != PRIV_ERR_GROUP_NOT_FOUND) {
            ZLOGERR("Failed to check groupr %s [0x%04X %s:%d]", groupname.c_str(), PRIV_LAST_ERROR);
            return false;
        }
        gid = static_cast<gid_t>(-1);
    }
    if (ZARNGroupIsReserved(groupname, gid)) {
        ZLOGERR("Group %s is reservered for system", groupname.c_str());
        return false;
    }
    if (ZARNLocalAccountUserPrepareForPkg(username, groupname, PackageDir(name) + "/target") < 0) {
        ZLOGERR("Failed to prepare user for %s [0x%04X %s:%d]", name.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    if (ZARNUserGetUGID(username, &uid, &gid) < 0) {
        ZLOGERR("Failed to get %s [0x%04X %s:%d]", username.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    const std::string joinGroup = GetConfString(config, "join-groupname", "");
    if (!joinGroup.empty() && !JoinGroup(username, joinGroup)) {
        ZLOGERR("Failed to add package user '%s' to group '%s'", username.c_str(),
                joinGroup.c_str());
        return false;
    }
    if (skipOwnership) {
        return true;
    }
    if (!SetDefaultOwner(staging, GetDefaultIdentity(config), uid, gid)) {
        ZLOGERR("Failed to set default owner of %s [0x%04X %s:%d]", name.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    ExeWalker exe(staging + "/package", uid, gid);
    ToolWalker tool(staging + "/package", uid, gid);
    if (!TraversePrivilege(config, "executable", exe) || !TraversePrivilege(config, "tool", tool)) {
        ZLOGERR("Failed to override default of %s [0x%04X %s:%d]", name.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    return true;
}

bool ClearSetUGidBit(const std::string& path) {
    // A link is not followed: the bits are cleared on the file named, never elsewhere.
    Fd fd = ZARNOpen(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    if (!fd.valid()) {
        VLIBCErrSet(errno == ENOENT ? PRIV_ERR_NO_FILE : PRIV_ERR_OPEN);
        return false;
    }
    struct stat st;
    if (!ZARNFStat(fd.get(), st)) {
        VLIBCErrSet(PRIV_ERR_FSTAT);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        VLIBCErrSet(PRIV_ERR_NOT_THERE);
        return false;
    }
    if (!ZARNFChmod(fd.get(), st.st_mode & 07777 & ~static_cast<mode_t>(06000))) {
        VLIBCErrSet(PRIV_ERR_FCHOWN);
        return false;
    }
    return true;
}

std::string GetTmpFolderPath(const std::string& name, const char* volume) {
    if (name.empty()) {
        VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
        return "";
    }
    std::string head;
    if (volume == nullptr) {
        const std::string target = PMSReadLink(PackageDir(name) + "/target");
        std::string::size_type second = target.find('/', 1);
        head = target.substr(0, second);
    } else {
        head = volume;
    }
    // A target under /usr/local/packages has the head "/usr" here and so no folder; that
    // asymmetry is kept as it is.
    if (head.compare(0, 7, "/volume") == 0 || head.compare(0, 19, "/usr/local/packages") == 0) {
        return head + "/@tmp/zarnpkg.tmp/" + name;
    }
    return "";
}

bool CreateTmpFolder(const std::string& name, const std::string& path) {
    if (name.empty() || path.empty()) {
        VLIBCErrSet(PRIV_ERR_BAD_PARAMETERS);
        return false;
    }
    uid_t uid = 0;
    gid_t gid = 0;
    const std::string user = GetUserName(name, "");
    if (user.empty()) {
        if (VLIBCErrGet() != PRIV_ERR_NOT_THERE) {
            ZLOGERR("Failed to get username of %s [0x%04X %s:%d]", name.c_str(), PRIV_LAST_ERROR);
            return false;
        }
    } else if (ZARNUserGetUGID(user, &uid, &gid) < 0) {
        ZLOGERR("Failed to get id of %s [0x%04X %s:%d]", user.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    // The folders above it are the system's and stay passable for every account, or the
    // package's user could never reach its own folder; only the last one is private.
    const std::string::size_type slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0) {
        const std::string parent = path.substr(0, slash);
        if (!ZARNIsDir(parent) && ZARNFSMkdirP(parent, 0, 1, 0, 0, 0755) < 0) {
            ZLOGERR("Failed to create %s [0x%04X %s:%d]", parent.c_str(), PRIV_LAST_ERROR);
            return false;
        }
    }
    if (ZARNFSMkdirP(path, 0, 1, 0, 0, 0700) < 0) {
        ZLOGERR("Failed to create %s [0x%04X %s:%d]", path.c_str(), PRIV_LAST_ERROR);
        return false;
    }
    // The folder itself, not what a link in its place would point at.
    if (!ZARNChown(path, uid, gid, false)) {
        ZLOGERR("Failed to chown %s (%m)", path.c_str());
        return false;
    }
    return true;
}

}  // namespace Privilege
}  // namespace ZARNPackageTool
