#include "resource/state_files.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "resource/resource_errors.h"

namespace ZARNPackageTool {
namespace Resource {

namespace {

std::string ConfDir(const std::string& name, const std::string& prefix) {
    return (prefix.empty() ? "/var/packages/" + name : prefix) + "/conf";
}

bool ReadMember(const std::string& path, const std::string& type, Json::Value& out) {
    if (path.empty() || type.empty()) {
        ZLOGERR("Bad arguments: path=[%s] type=[%s]", path.c_str(), type.c_str());
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    Json::Value content;
    if (!ReadJsonFile(path, content)) {
        return false;
    }
    if (!content.isObject() || !content.isMember(type)) {
        VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
        return false;
    }
    out = content[type];
    return true;
}

// Within one process only: the upgrade that backs up is the one that restores.
std::string BackupPath(const std::string& name) {
    const std::string dir = "/var/tmp";
    if (ZARNFSMkdirP(dir, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0777) != 0) {
        ZLOGERR("Failed to create temp dir %s (%m)", dir.c_str());
        VLIBCErrSet(ZARN_ERR_TEMP_DIR);
        return "";
    }
    if (!ZARNChmod(dir, 0777)) {
        ZLOGERR("chmod error: %m");
    }
    return dir + "/resource." + name + "." + std::to_string(getpid());
}

}  // namespace

std::string ResourcePath(const std::string& name, const std::string& prefix) {
    return ConfDir(name, prefix) + "/resource";
}

std::string OwnPath(const std::string& name, const std::string& prefix) {
    return ConfDir(name, prefix) + "/resource.own";
}

bool CreateFolder(const std::string& name, const std::string& prefix) {
    const std::string folder = ConfDir(name, prefix);
    if (ZARNFSMkdirP(folder, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) != 0) {
        ZLOGERR("Failed to crate %s (%m)", folder.c_str());
        return false;
    }
    if (!ZARNChmod(folder, 0755)) {
        ZARNSyslog(LOG_EMERG, "%s:%d chmod error: %m", __FILE__, __LINE__);
    }
    return true;
}

bool ReadJsonFile(const std::string& path, Json::Value& out) {
    if (!IsFileExists(path)) {
        VLIBCErrSet(ZARN_ERR_NO_FILE);
        return false;
    }
    if (!Json::fromFile(out, path)) {
        ZLOGERR("Failed to read %s (%m)", path.c_str());
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    return true;
}

bool WriteJsonFile(const std::string& path, Json::Value& value) {
    if (!Json::toFile(value, path)) {
        ZLOGERR("Failed to write %s (%m)", path.c_str());
        return false;
    }
    if (!ZARNChmod(path, 0600)) {
        ZLOGERR("chmod error: %m");
    }
    if (!FsyncFiles(std::vector<std::string>{path})) {
        ZLOGERR("Failed to fsync file, path=[%s]", path.c_str());
    }
    return true;
}

bool GetRequestObject(const std::string& name, const std::string& type, Json::Value& out) {
    return ReadMember(name.empty() ? "" : ResourcePath(name, ""), type, out);
}

bool GetOwnObject(const std::string& name, const std::string& type, Json::Value& out) {
    return ReadMember(name.empty() ? "" : OwnPath(name, ""), type, out);
}

bool ReplaceOwnObject(const std::string& name, const std::string& type, const Json::Value& value) {
    if (name.empty() || type.empty()) {
        ZLOGERR("Bad arguments: name=[%s] type=[%s]", name.c_str(), type.c_str());
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    const std::string path = OwnPath(name, "");
    Json::Value own(Json::objectValue);
    if (!ReadJsonFile(path, own) && VLIBCErrGet() != ZARN_ERR_NO_FILE) {
        return false;
    }
    if (!own.isObject()) {
        ZLOGERR("invalid jOwn, not an object");
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    own[type] = value;
    return CreateFolder(name, "") && WriteJsonFile(path, own);
}

bool BackupResourceFile(const std::string& name) {
    const std::string backup = BackupPath(name);
    if (backup.empty()) {
        return false;
    }
    const std::string own = OwnPath(name, "");
    if (!ZARNRename(own, backup) && errno != ENOENT) {
        ZLOGERR("Failed to backup %s to %s (%m)", own.c_str(), backup.c_str());
        VLIBCErrSet(ZARN_ERR_BACKUP);
        return false;
    }
    return true;
}

bool RestoreResourceFile(const std::string& name, const std::string& prefix) {
    const std::string backup = BackupPath(name);
    if (backup.empty()) {
        return false;
    }
    Json::Value own;
    if (!ReadJsonFile(backup, own)) {
        return VLIBCErrGet() == ZARN_ERR_NO_FILE;
    }
    return CreateFolder(name, prefix) && WriteJsonFile(OwnPath(name, prefix), own);
}

bool RestoreServiceCfgWith(const std::string& name, ServiceCfgStep step) {
    if (name.empty() || step == nullptr) {
        ZLOGERR("Bad arguments: name=[%s]", name.c_str());
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    Json::Value request(Json::objectValue);
    if (!GetRequestObject(name, "service-cfg", request)) {
        const int code = VLIBCErrGet();
        if (code != ZARN_ERR_NO_FILE && code != ZARN_ERR_KEY_NOT_FOUND) {
            ZLOGERR("Failed to read the service-cfg request of %s %s", name.c_str(),
                    ZARNLastErrorSuffix().c_str());
            return false;
        }
        request = Json::Value(Json::objectValue);
    }
    Json::Value own(Json::objectValue);
    if (!step(name, request, own, false)) {
        ZLOGERR("Failed to restore the jobs of %s %s", name.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    return ReplaceOwnObject(name, "service-cfg", own);
}

}  // namespace Resource
}  // namespace ZARNPackageTool
