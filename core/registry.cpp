#include "core/registry.h"

#include <unistd.h>

#include "platform/files.h"
#include "platform/locks.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kSystemInstallPath = "/usr/local/packages";

}  // namespace

std::string PMSRegistryDir(const std::string& name) {
    return std::string(PKG_REGISTRY_DIR) + "/" + name;
}

std::string PMSDesktopEntryPath(const std::string& uidir) {
    return "/usr/zarn/zarnman/webman/3rdparty/" + uidir;
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
    return dir == nullptr ? "" : PMSGetPackageTargetVol(ZARNFolder(dir));
}

std::string PMSGetPackageTargetVol(const ZARNFolder& folder) {
    std::string target;
    if (!folder.readLink("target", target) || target.empty()) {
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
    Fd fd = ZARNLockFileOpen(path);
    if (!fd.valid() || !ZARNFlock(fd.get(), exclusive, -1)) {
        return -1;
    }
    return fd.release();
}

void PMSUnlockFile(int fd) {
    // Closing the descriptor releases its lock.
    Fd owned(fd);
}

}  // namespace ZARNPackageTool
