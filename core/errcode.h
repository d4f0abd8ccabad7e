#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {

// Result codes. Values below 0x100 other than 0x96 and 0xff are exit codes of a package's
// status script, stored as they are.
enum PKG_ERRCODE : unsigned int {
    PKG_ERR_SUCCESS = 0x0,
    PKG_ERR_BROKEN = 0x96,
    PKG_ERR_NOT_INSTALLED = 0xff,
    PKG_ERR_NO_SCRIPT = 0x100,
    PKG_ERR_NO_VOLUME = 0x101,
    PKG_ERR_ARCH_MODEL = 0x102,
    PKG_ERR_VERSION_LIMIT = 0x103,
    PKG_ERR_SERVICE_NOT_STARTED = 0x104,
    PKG_ERR_BAD_PACKAGE = 0x105,
    PKG_ERR_NOT_ENABLED = 0x106,
    PKG_ERR_SYSTEM = 0x107,
    PKG_ERR_LIMIT_NON = 0x108,
    PKG_ERR_LIMIT_SYSTEM = 0x109,
    PKG_ERR_LIMIT_UNKNOWN = 0x10a,
    PKG_ERR_DOWNGRADE = 0x10b,
    PKG_ERR_DEPENDENCY = 0x10c,
    PKG_ERR_DEP_HANDLE = 0x10d,
    PKG_ERR_ALREADY_INSTALLED = 0x10e,
    PKG_ERR_RESTART_SERVICE = 0x10f,
    PKG_ERR_START = 0x110,
    PKG_ERR_STOP = 0x111,
    PKG_ERR_DEP_CYCLE = 0x112,
    PKG_ERR_LOCK = 0x113,
    PKG_ERR_INSTALL = 0x114,
    PKG_ERR_UPGRADE = 0x115,
    PKG_ERR_REPAIR = 0x116,
    PKG_ERR_NO_SPACE = 0x117,
    PKG_ERR_PLATFORM = 0x119,
    PKG_ERR_OS_RANGE = 0x11a,
    PKG_ERR_PORT_CONFLICT = 0x11b,
    PKG_ERR_CONFLICT = 0x11c,
    PKG_ERR_VOLUME_CREATING = 0x11d,
    PKG_ERR_DEP_SERVICES = 0x11e,
    PKG_ERR_SIGN_OK = 0x11f,
    PKG_ERR_SIGN_NOT_MAKER = 0x120,
    PKG_ERR_SIGN_UNKNOWN_PUBLISHER = 0x121,
    PKG_ERR_SIGN_NONE = 0x122,
    PKG_ERR_SIGN_EXPIRED = 0x123,
    PKG_ERR_SIGN_BROKEN = 0x124,
    PKG_ERR_SIGN_CHECK = 0x125,
    PKG_ERR_ENUM = 0x126,
    PKG_ERR_SERVER = 0x127,
    PKG_ERR_NO_WORKING_VOLUME = 0x129,
    PKG_ERR_RESOURCE_RELEASE = 0x12b,
    PKG_ERR_PRESTART = 0x12c,
    PKG_ERR_PRESTOP = 0x12d,
    PKG_ERR_OS_TOO_NEW = 0x12e,
    PKG_ERR_OS_TOO_OLD = 0x12f,
    PKG_ERR_NO_DOWNLOAD = 0x130,
    PKG_ERR_BAD_EXTRA_VALUES = 0x131,
    PKG_ERR_BROKEN_BY_OTHER = 0x132,
    PKG_ERR_STOPPED_BY_DEP_LIMIT = 0x133,
    PKG_ERR_STOPPED_BUT_RUNNING = 0x136,
    PKG_ERR_JOB_ERROR = 0x137,
};

// The message array of the file check for a code: the message key first, then the values of
// its placeholders, taken from `detail`, the package's display name and, for 0x119, the
// machine's product name.
ZARNPKG_API Json::Value PMSFileCheckMessage(PKG_ERRCODE code, const Json::Value& detail,
                                            const std::string& displayName);
// The message key that the background server install gives a code.
ZARNPKG_API std::string PMSServerInstallMessageKey(PKG_ERRCODE code);
// The key of a code for any caller that shows a result: the server install's key, else the
// file check's, else the default.
ZARNPKG_API std::string PMSMessageKey(PKG_ERRCODE code);
// The default key, for codes without a mapping.
constexpr const char* PKG_MSG_DEFAULT = "error:error_error_system";

}  // namespace ZARNPackageTool
