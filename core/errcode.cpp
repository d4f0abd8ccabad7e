#include "core/errcode.h"

#include <cstdio>

#include "platform/keyfile.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

std::string JoinMemberNames(const Json::Value& object) {
    std::string out;
    if (!object.isObject()) {
        return out;
    }
    for (const auto& name : object.getMemberNames()) {
        out += out.empty() ? name : ", " + name;
    }
    return out;
}

// A list member may come as a string or as an array of strings.
std::string ListText(const Json::Value& value) {
    if (value.isString()) {
        return value.asString();
    }
    std::string out;
    if (value.isArray()) {
        for (const auto& item : value) {
            if (item.isString()) {
                out += out.empty() ? item.asString() : ", " + item.asString();
            }
        }
    }
    return out;
}

bool IsFilled(const Json::Value& value) {
    return !ListText(value).empty() || (value.isObject() && !value.empty());
}

// A number member of the detail; a member of another type or out of range gives `def`.
int IntMember(const Json::Value& detail, const char* name, int def) {
    const Json::Value& v = detail[name];
    return v.isInt() ? v.asInt() : def;
}

// An OS bound as the file check prints it; the detail is either an object with "major",
// "minor", "build", "nano" or the version text "major.minor-build[-nano]".
std::string OSBoundText(const Json::Value& detail, int defaultNano) {
    int major = 0, minor = 0, build = 0, nano = defaultNano;
    if (detail.isObject()) {
        major = IntMember(detail, "major", 0);
        minor = IntMember(detail, "minor", 0);
        build = IntMember(detail, "build", 0);
        nano = IntMember(detail, "nano", defaultNano);
    } else if (detail.isString()) {
        int n = 0;
        if (std::sscanf(detail.asCString(), "%d.%d-%d-%d", &major, &minor, &build, &n) == 4) {
            nano = n;
        }
    }
    char buf[64];
    if (nano == defaultNano) {
        std::snprintf(buf, sizeof(buf), "%d.%d-%04d", major, minor, build);
    } else {
        std::snprintf(buf, sizeof(buf), "%d.%d-%04d (update %d)", major, minor, build, nano);
    }
    return buf;
}

std::string MemberText(const Json::Value& detail, const char* name) {
    if (!detail.isObject() || !detail.isMember(name)) {
        return "";
    }
    const Json::Value& v = detail[name];
    return v.isString() ? v.asString() : (v.isNull() ? "" : v.toStyledString());
}

// The one table from code to message key: what the file check puts first in its array, and
// what the background server install gives. A null column means the function gives the default.
// Codes whose file check key depends on the detail name their plain variant here.
struct MessageKeyRow {
    PKG_ERRCODE code;
    const char* fileCheck;
    const char* server;
};

constexpr const char* kKeyVersionLimit = "pkgmgr:pkg_install_version_less_than_limit";
constexpr const char* kKeyDowngrade = "pkgmgr:downgrade_version";
constexpr const char* kKeyNotPackage = "pkgmgr:pkgmgr_file_not_package";
constexpr const char* kKeyBroken = "pkgmgr:broken_package";
constexpr const char* kKeySpaceNotReady = "pkgmgr:pkgmgr_space_not_ready";
constexpr const char* kKeyDepPackages = "pkgmgr:error_upgrade_dep_packages";

constexpr MessageKeyRow kMessageKeys[] = {
    {PKG_ERR_BROKEN, kKeyNotPackage, nullptr},
    {PKG_ERR_NOT_INSTALLED, nullptr, "pkgmgr:pkgmgr_pkg_not_available"},
    {PKG_ERR_VERSION_LIMIT, kKeyVersionLimit, kKeyVersionLimit},
    {PKG_ERR_SERVICE_NOT_STARTED, "pkgmgr:require_service", nullptr},
    {PKG_ERR_BAD_PACKAGE, kKeyBroken, kKeyNotPackage},
    {PKG_ERR_DOWNGRADE, kKeyDowngrade, kKeyDowngrade},
    {PKG_ERR_DEPENDENCY, "pkgmgr:depend_packages", kKeyDepPackages},
    {PKG_ERR_DEP_HANDLE, nullptr, kKeyDepPackages},
    {PKG_ERR_ALREADY_INSTALLED, nullptr, "pkgmgr:pkgmgr_pkg_install_already"},
    {PKG_ERR_DEP_CYCLE, nullptr, "pkgmgr:depend_cycle"},
    {PKG_ERR_LOCK, nullptr, "pkgmgr:error_occupied"},
    {PKG_ERR_INSTALL, nullptr, "pkgmgr:pkgmgr_file_install_failed"},
    {PKG_ERR_UPGRADE, "pkgmgr:pkgmgr_pkg_cannot_upgrade", "pkgmgr:upgrade_fail"},
    {PKG_ERR_NO_SPACE, "pkgmgr:error_sys_no_space", "error:error_space_not_enough"},
    {PKG_ERR_PLATFORM, "pkgmgr:pkgmgr_pkg_not_support_platform", nullptr},
    {PKG_ERR_PORT_CONFLICT, "pkgmgr:port_conflict", nullptr},
    {PKG_ERR_CONFLICT, "pkgmgr:conflict_packages", nullptr},
    {PKG_ERR_VOLUME_CREATING, kKeySpaceNotReady, "error:volume_creating"},
    {PKG_ERR_SIGN_NOT_MAKER, "pkgmgr:pkgmgr_not_zarn_publish", nullptr},
    {PKG_ERR_SIGN_UNKNOWN_PUBLISHER, "pkgmgr:pkgmgr_unknown_publisher", nullptr},
    {PKG_ERR_SIGN_NONE, "pkgmgr:pkgmgr_no_signature", nullptr},
    {PKG_ERR_SIGN_EXPIRED, "pkgmgr:pkgmgr_cert_expired", nullptr},
    {PKG_ERR_SIGN_BROKEN, kKeyBroken, nullptr},
    {PKG_ERR_NO_WORKING_VOLUME, kKeySpaceNotReady, "error:volume_no_volumes"},
    {PKG_ERR_OS_TOO_NEW, "pkgmgr:pkgmgr_pkg_required_older_version", nullptr},
    {PKG_ERR_OS_TOO_OLD, "pkgmgr:pkgmgr_pkg_required_newer_version", nullptr},
};

const MessageKeyRow* FindRow(PKG_ERRCODE code) {
    for (const MessageKeyRow& row : kMessageKeys) {
        if (row.code == code) {
            return &row;
        }
    }
    return nullptr;
}

// The file check's key of a code, or the default.
const char* FileCheckKey(PKG_ERRCODE code) {
    const MessageKeyRow* row = FindRow(code);
    return row != nullptr && row->fileCheck != nullptr ? row->fileCheck : PKG_MSG_DEFAULT;
}

}  // namespace

Json::Value PMSFileCheckMessage(PKG_ERRCODE code, const Json::Value& detail,
                                const std::string& displayName) {
    Json::Value msg(Json::arrayValue);
    if (code == PKG_ERR_SUCCESS || code == PKG_ERR_SIGN_OK) {
        return msg;
    }
    switch (code) {
        case PKG_ERR_VERSION_LIMIT:
            msg.append(FileCheckKey(code));
            msg.append(displayName);
            msg.append(MemberText(detail, "curVersion"));
            msg.append(MemberText(detail, "insVersion"));
            break;
        case PKG_ERR_SERVICE_NOT_STARTED: {
            const Json::Value services =
                detail.isObject() ? detail["serviceNoStarted"] : Json::Value();
            bool ssh = false;
            std::string first;
            if (services.isArray()) {
                for (const auto& s : services) {
                    if (!s.isString()) {
                        continue;
                    }
                    ssh = ssh || s.asString() == "ssh-shell";
                    if (first.empty()) {
                        first = s.asString();
                    }
                }
            }
            if (ssh) {
                msg.append("tree:require_sshd");
            } else {
                msg.append(FileCheckKey(code));
                msg.append(first);
            }
            break;
        }
        case PKG_ERR_DOWNGRADE:
            msg.append(FileCheckKey(code));
            msg.append(MemberText(detail, "curVersion"));
            msg.append(MemberText(detail, "insVersion"));
            break;
        case PKG_ERR_DEPENDENCY: {
            const Json::Value packages = detail.isObject() ? detail["packages"] : Json::Value();
            const Json::Value unstarted =
                detail.isObject() ? detail["unStartPkgList"] : Json::Value();
            if (IsFilled(packages) && IsFilled(unstarted)) {
                msg.append("pkgmgr:depend_uninst_unstart");
                msg.append(JoinMemberNames(packages));
                msg.append(ListText(unstarted));
            } else if (IsFilled(unstarted)) {
                msg.append("pkgmgr:depend_unstart");
                msg.append(ListText(unstarted));
            } else {
                msg.append(FileCheckKey(code));
                msg.append(JoinMemberNames(packages));
            }
            break;
        }
        case PKG_ERR_PLATFORM: {
            std::string product;
            if (VLIBCFileGetKeyValue("/etc.defaults/zarninfo.conf", "product", product) <= 0) {
                ZLOGERR("Failed to get product");
                break;
            }
            msg.append(FileCheckKey(code));
            msg.append(product);
            break;
        }
        case PKG_ERR_PORT_CONFLICT: {
            char port[8];
            std::snprintf(port, sizeof(port), "%s", detail.isString() ? detail.asCString() : "");
            msg.append(FileCheckKey(code));
            msg.append(port);
            break;
        }
        case PKG_ERR_CONFLICT:
            msg.append(FileCheckKey(code));
            msg.append(ListText(detail.isObject() ? detail["instPackageList"] : Json::Value()));
            break;
        case PKG_ERR_OS_TOO_NEW:
            msg.append(FileCheckKey(code));
            msg.append(OSBoundText(detail, 99999));
            break;
        case PKG_ERR_OS_TOO_OLD:
            msg.append(FileCheckKey(code));
            msg.append(OSBoundText(detail, 0));
            break;
        default:
            msg.append(FileCheckKey(code));
            break;
    }
    return msg;
}

std::string PMSServerInstallMessageKey(PKG_ERRCODE code) {
    const MessageKeyRow* row = FindRow(code);
    return row != nullptr && row->server != nullptr ? row->server : PKG_MSG_DEFAULT;
}

std::string PMSMessageKey(PKG_ERRCODE code) {
    const MessageKeyRow* row = FindRow(code);
    if (row != nullptr && row->server != nullptr) {
        return row->server;
    }
    return FileCheckKey(code);
}

}  // namespace ZARNPackageTool
