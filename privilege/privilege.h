#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"

namespace ZARNUtils {
class ProcessRunner;
}

namespace ZARNPackageTool {
namespace Privilege {

// Identity of a script or of files, kept by the code and never written to disk.
enum Identity : int {
    IDENTITY_NONE = 0,     // invalid or not decided
    IDENTITY_PACKAGE = 1,  // "package": the package's user and group
    IDENTITY_SYSTEM = 2,   // "system": the package's user with group "system" (1)
    IDENTITY_ROOT = 3,     // "root": the caller's identity stays
};

// Codes that privilege operations set in the last-error slot.
enum PrivilegeErrorCode : int {
    PRIV_ERR_BAD_PARAMETERS = 0x0d00,
    PRIV_ERR_NO_FILE = 0x0700,
    PRIV_ERR_OPEN = 0x0900,
    PRIV_ERR_READ_CONF = 0x0a00,
    PRIV_ERR_GROUP_NOT_FOUND = 0x1800,
    PRIV_ERR_USER_NOT_FOUND = 0x1d00,
    PRIV_ERR_FSTAT = 0x2700,
    PRIV_ERR_FCHOWN = 0x2a00,
    PRIV_ERR_BAD_CONF = 0x4000,
    PRIV_ERR_NOT_THERE = 0xd900,
};

// `<dir>/conf/privilege` when that file exists; else false with error 0xd900.
ZARNPKG_API bool GetConfPathFrom(const std::string& dir, std::string& path);
// GetConfPathFrom("/var/packages/<name>", path).
ZARNPKG_API bool GetConfPath(const std::string& name, std::string& path);

// 3 for "root", 2 for "system", 1 for "package" (exact words); else 0 with error 0x0d00.
ZARNPKG_API int TranslateIdentity(const std::string& word);
// TranslateIdentity of "defaults"."run-as" when that is a string, else 1.
ZARNPKG_API int GetDefaultIdentity(const Json::Value& config);

// config[key] when config is an object holding a non-empty string there; else `def`.
ZARNPKG_API std::string GetConfString(const Json::Value& config, const std::string& key,
                                      const std::string& def);

// The whole of a package's conf/privilege with every default applied.
struct Config {
    bool present = false;                    // false: the package has no conf/privilege
    std::string path;                        // the file read
    Json::Value raw;                         // the parsed file
    std::string username;                    // "username", default the package name
    std::string groupname;                   // "groupname", default the package name
    std::string joinGroupname;               // "join-groupname", default empty
    int defaultIdentity = IDENTITY_PACKAGE;  // "defaults"."run-as", default "package"
};
// Reads conf/privilege of the package `name` from `dir`, or from /var/packages/<name> when
// `dir` is empty. A missing file is success with `present` false (error slot 0xd900); a file
// that can't be read or parsed logs and fails with error 0x0a00.
ZARNPKG_API bool ReadConfig(const std::string& name, const std::string& dir, Config& config);

// The account of the package: "username" of conf/privilege with the package name as default.
// Empty when the package has no conf/privilege (error slot 0xd900) or on failure.
ZARNPKG_API std::string GetUserName(const std::string& name, const std::string& dir);

// Sets the identity under which the runner's child will run the package's script `action`
// ("preinst", "status", "log", ...): the package's user with its own group ("package"), with
// group "system" ("system"), or left untouched ("root", no conf/privilege). The switch itself
// happens in the child process between its start and exec; the library's process keeps its own.
// `dir` empty reads /var/packages/<name>/conf/privilege.
ZARNPKG_API bool SetIdentity(ZARNUtils::ProcessRunner& runner, const std::string& name,
                             const std::string& action, const std::string& dir);

// At installation, on the unpacked `staging` folder: clears the set-ID bits of the scripts,
// prepares the package's account, joins the group named, gives `<staging>/package` its default
// owner and applies the "executable" and "tool" overrides.
ZARNPKG_API bool ReviseFileAttr(const std::string& name, const std::string& staging,
                                bool skipOwnership);

// Clears the set-user-ID and set-group-ID bits of a regular file (logical path).
ZARNPKG_API bool ClearSetUGidBit(const std::string& path);

// `<volume>/@tmp/zarnpkg.tmp/<name>`, the volume taken from the package's target link when
// `volume` is null; empty when the volume isn't one of /volume* or /usr/local/packages.
ZARNPKG_API std::string GetTmpFolderPath(const std::string& name, const char* volume);
// Makes the folder (mode 0700) owned by the package's user, or by root without conf/privilege.
ZARNPKG_API bool CreateTmpFolder(const std::string& name, const std::string& path);

}  // namespace Privilege

namespace Util {
// Substitutes "{{key}}" markers of `target` in place from the members of `dict`; a value left
// with a marker is removed. False with error 0x0d00 when `dict` is not an object.
ZARNPKG_API bool ReplaceVariables(const Json::Value& dict, Json::Value& target);
}  // namespace Util

}  // namespace ZARNPackageTool
