#include "core/control_script.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/log.h"
#include "platform/services.h"
#include "platform/volumes.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kControlScript = "start-stop-status";
// Exit code of a status query that reports the package broken.
constexpr int kScriptBroken = 150;

std::string JobName(const std::string& name) {
    return "pkgctl-" + name;
}

// A volume works when the host knows it and its file system isn't marked crashed.
bool VolumeWorks(const std::string& volume) {
    ZARNFSInfo fs;
    int ret = FSInfoGet(volume.c_str(), &fs);
    bool works = ret >= 1 && (fs.status & ZARN_FS_STATUS_NOT_WORKING) == 0;
    FSInfoFree(&fs);
    return works;
}

}  // namespace

std::string PackageManager::getServiceScript(const std::string& name, PackageInfo& info) {
    return serviceScript(name, nullptr, info);
}

std::string PackageManager::serviceScript(const std::string& name, const PackageInfo* loaded,
                                          PackageInfo& info) {
    const std::string dir = PMSRegistryDir(name);
    const std::string script = dir + "/scripts/" + kControlScript;
    if (!PMSCheckPackage(name)) {
        setResult(PKG_ERR_NOT_INSTALLED);
        return "";
    }
    if (loaded == nullptr && !PMSLoadPKGInfoFile(dir, info, nullptr, PKG_MASK_ALL)) {
        setResult(PKG_ERR_BROKEN);
        return "";
    }
    if (!ZARNIsDir(dir + "/target")) {
        setResult(PKG_ERR_BROKEN);
        return "";
    }
    const std::string volume = PMSGetPackageTargetVolByPath(dir.c_str());
    if (volume != "not_volume_path" && !VolumeWorks(volume)) {
        setResult(PKG_ERR_BROKEN);
        return "";
    }
    if (!IsFileExists(script)) {
        setResult(PKG_ERR_NO_SCRIPT);
        return "";
    }
    if (!PMSCheckIsExec(script)) {
        ZLOGERR("%s can't run", script.c_str());
        setResult(PKG_ERR_BROKEN);
        return "";
    }
    return script;
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool useScript,
                                      bool strict) {
    return serviceStatus(name, nullptr, running, useScript, strict);
}

bool PackageManager::serviceStatus(const std::string& name, const PackageInfo* loaded,
                                   bool& running, bool useScript, bool strict) {
    setResult(PKG_ERR_SYSTEM);
    running = false;
    const std::string dir = PMSRegistryDir(name);
    const std::string job = JobName(name);
    int jobState = 0;
    bool jobStateRead = false;
    PackageInfo read;
    const PackageInfo& info = loaded != nullptr ? *loaded : read;
    int process = 0;
    int phase = 0;

    const std::string script = serviceScript(name, loaded, read);
    if (script.empty()) {
        goto tail;
    }
    if (!PMSCheckPackageArchModelMatched(info)) {
        setResult(PKG_ERR_ARCH_MODEL);
        goto tail;
    }
    if (!CanPackageStartInThisFirmware(info)) {
        goto tail;
    }
    if (isBrokenByInstalled(PackageBasicInfo(info.name, info.version))) {
        setResult(PKG_ERR_BROKEN_BY_OTHER);
        goto tail;
    }
    if (IsFileExists(dir + "/installing")) {
        setResult(PKG_ERR_BROKEN);
        goto tail;
    }
    if (IsFileExists(dir + "/stoppedByDepLimit")) {
        setResult(PKG_ERR_STOPPED_BY_DEP_LIMIT);
        goto tail;
    }
    if (VLIBServicectlStatus(job, process, phase) == 0 && process == 0 &&
        phase == ZARN_JOB_PHASE_FAILED) {
        setResult(PKG_ERR_JOB_ERROR);
        goto tail;
    }
    if (!useScript) {
        running = true;
    } else {
        bool identityFailed = false;
        std::string output;
        const int ret = PMSRunControlScript(name, script, info, "status", output, identityFailed);
        if (identityFailed) {
            ZLOGERR("Failed to set identity for %s %s", name.c_str(),
                    ZARNLastErrorSuffix().c_str());
            setResult(PKG_ERR_BAD_PACKAGE);
            goto tail;
        }
        if (ret < 0) {
            ZLOGERR("Failed to query package status, %s", name.c_str());
            setResult(PKG_ERR_SYSTEM);
            goto tail;
        }
        if (ret == kScriptBroken) {
            ZLOGERR("Package is broken, %s, [%d]", name.c_str(), ret);
        }
        setResult(static_cast<PKG_ERRCODE>(ret));
        running = ret == 0;
    }
    if (info.startable) {
        if (!info.kosuidir.empty() && !ZARNPathExists(PMSDesktopEntryPath(info.kosuidir))) {
            running = false;
        }
        if (!PMSCheckEnabledFile(dir.c_str())) {
            running = false;
        }
    }
    if (VLIBServiceStatusGet(job, jobState) < 0) {
        ZLOGERR("Failed to get status of %s %s", job.c_str(), ZARNLastErrorSuffix().c_str());
        goto tail;
    }
    jobStateRead = true;
    if (strict && jobState == 1 && !running) {
        ZLOGERR("Package %s stops but service %s start", name.c_str(), job.c_str());
        setResult(PKG_ERR_STOPPED_BUT_RUNNING);
        goto tail;
    }
    running = running && jobState == 1;
    return true;

tail:
    if (strict && getResult() != PKG_ERR_NOT_INSTALLED &&
        getResult() != PKG_ERR_STOPPED_BUT_RUNNING) {
        if (!jobStateRead) {
            jobStateRead = VLIBServiceStatusGet(job, jobState) >= 0;
        }
        if (jobStateRead && jobState == 1) {
            setResult(PKG_ERR_STOPPED_BUT_RUNNING);
        }
    }
    return false;
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool useScript) {
    return getServiceStatus(name, running, useScript, false);
}

int PackageManager::getPkgStatus(const std::string& name) {
    return pkgStatus(name, nullptr);
}

int PackageManager::getPkgStatus(const PackageInfo& info) {
    return pkgStatus(info.name, &info);
}

int PackageManager::pkgStatus(const std::string& name, const PackageInfo* loaded) {
    bool running = false;
    if (serviceStatus(name, loaded, running, true, false)) {
        if (running) {
            return 0;
        }
        const unsigned int code = getResult();
        if (code == 1 || code == 2 || code == PKG_ERR_BROKEN) {
            return static_cast<int>(code);
        }
        return 3;
    }
    switch (getResult()) {
        case PKG_ERR_NOT_INSTALLED:
            return 0xff;
        case PKG_ERR_BROKEN:
        case PKG_ERR_ARCH_MODEL:
        case PKG_ERR_BROKEN_BY_OTHER:
            return 0x96;
        case PKG_ERR_NO_SCRIPT:
            return 4;
        case PKG_ERR_VERSION_LIMIT:
            return 0x100;
        case PKG_ERR_LIMIT_SYSTEM:
            return 0x101;
        case PKG_ERR_LIMIT_NON:
            return 0x102;
        case PKG_ERR_SYSTEM:
            return 0x103;
        default:
            return 3;
    }
}

bool PackageManager::getPkgRoughStatus(const std::string& name, int& rough) {
    return roughStatusOf(getPkgStatus(name), name, rough);
}

bool PackageManager::roughStatusOf(int status, const std::string& name, int& rough) {
    switch (status) {
        case 0:
            rough = 3;
            return true;
        case 1:
        case 2:
        case 3:
            rough = 1;
            return true;
        case 0xff:
            rough = 0;
            return true;
        case 0x96:
        case 0x100:
        case 0x101:
        case 0x102:
            rough = 5;
            return true;
        case 0x103:
            ZLOGERR("system error, can't get status of pkg: [%s]", name.c_str());
            return false;
        default:
            ZLOGERR("unknown status: [%s]", name.c_str());
            return false;
    }
}

bool PackageManager::isStarted(const std::string& name, bool strict) {
    bool running = false;
    if (getServiceStatus(name, running, true, strict) && running) {
        return true;
    }
    const PKG_ERRCODE code = getResult();
    return code == PKG_ERR_NO_SCRIPT || code == PKG_ERR_STOPPED_BUT_RUNNING;
}

bool PackageManager::isStarted(const std::string& name) {
    return isStarted(name, false);
}

unsigned int PackageManager::checkServiceStarted(unsigned int mask) {
    unsigned int out = mask;
    if ((out & 0x8) && VLIBServiceIsEnabled("ssh-shell") != 0) {
        out &= ~0x8u;
    }
    if ((out & 0x10) && VLIBServiceIsRunning("pgsql") == 1) {
        out &= ~0x10u;
    }
    return out;
}

std::set<std::string> PackageManager::checkServiceStarted(const std::set<std::string>& services) {
    std::set<std::string> out;
    for (const auto& service : services) {
        if (VLIBServiceIsEnabled(service) == 1) {
            continue;
        }
        std::string displayName;
        if (VLIBServicecfgDisplayNameGet(service, displayName) == 0 && !displayName.empty()) {
            out.insert(displayName);
        } else {
            out.insert(service);
        }
    }
    return out;
}

}  // namespace ZARNPackageTool
