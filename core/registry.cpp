#include "core/registry.h"

#include <sys/file.h>
#include <unistd.h>

#include <fcntl.h>

#include "core/packagemanager.h"
#include "platform/files.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kSystemInstallPath = "/usr/local/packages";

}  // namespace

std::string PMSRegistryDir(const std::string& name) {
    return std::string(PKG_REGISTRY_DIR) + "/" + name;
}

bool PMSCheckPackage(const std::string& name) {
    const std::string dir = PMSRegistryDir(name);
    return ZARNIsDir(dir) && IsFileExists(dir + "/INFO");
}

std::string PMSGetPackageTarget(const std::string& name) {
    const std::string link = PMSRegistryDir(name) + "/target";
    if (!ZARNIsDir(link)) {
        return "";
    }
    std::string target;
    return ZARNReadLink(link, target) ? target : "";
}

std::string PMSGetPackageTargetVolByPath(const char* dir) {
    if (dir == nullptr) {
        return "";
    }
    std::string target;
    if (!ZARNReadLink(std::string(dir) + "/target", target) || target.empty()) {
        return "";
    }
    if (target.compare(0, std::char_traits<char>::length(kSystemInstallPath), kSystemInstallPath) ==
        0) {
        return "not_volume_path";
    }
    size_t second = target.find('/', 1);
    return second == std::string::npos ? target : target.substr(0, second);
}

bool PMSCheckEnabledFile(const char* dir) {
    return dir != nullptr && IsFileExists(std::string(dir) + "/enabled");
}

int PMSLockFile(const char* path, bool exclusive) {
    if (path == nullptr) {
        return -1;
    }
    int fd = ZARNOpen(path, O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        return -1;
    }
    if (flock(fd, exclusive ? LOCK_EX : LOCK_SH) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void PMSUnlockFile(int fd) {
    if (fd < 0) {
        return;
    }
    flock(fd, LOCK_UN);
    close(fd);
}

bool PackageManager::hasEnableConf(const std::string& dir, bool& enabled) {
    enabled = IsFileExists(dir + "/enabled");
    return true;
}

bool PackageManager::isServiceEnabled(const char* name) {
    if (name == nullptr || name[0] == '\0') {
        setResult(PKG_ERR_SYSTEM);
        return false;
    }
    const std::string dir = PMSRegistryDir(name);
    if (!ZARNIsDir(dir)) {
        setResult(PKG_ERR_NOT_INSTALLED);
        return false;
    }
    if (!PMSCheckEnabledFile(dir.c_str())) {
        setResult(PKG_ERR_NOT_ENABLED);
        return false;
    }
    setResult(PKG_ERR_SUCCESS);
    return true;
}

}  // namespace ZARNPackageTool
