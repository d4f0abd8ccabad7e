#include "control/restart_services.h"

#include <cstdlib>

#include "core/packagemanager.h"
#include "lifecycle/script_env.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/service_reload.h"
#include "platform/sysroot.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kHookDir = "/usr/zarn/zarnpkg";
constexpr unsigned long kWebBit = 0x40000000;

// The order in which the daemons reload, with the INFO name that a failure reports.
struct ReloadStep {
    unsigned long bit;
    const char* name;
};
constexpr ReloadStep kReloadOrder[] = {
    {0x8000, "nfs"},    {0x1, "applenetwork"}, {0x20000, "mdns"},
    {kWebBit, "nginx"}, {0x8, "cron"},         {0x4, "samba"},
};

bool Reload(const std::string& daemon) {
    if (VLIBServiceReload(daemon) != 0) {
        ZLOGERR("VLIBServiceReload(%s) failed %s", daemon.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    return true;
}

// The web engine reads a configuration that is generated first.
bool ReloadStepDaemons(unsigned long bit) {
    if (bit == kWebBit && !zarnw3::NginxConfManager().Run(zarnw3::NginxConfManager::kRegenerate)) {
        ZLOGERR("Failed to regenerate the web engine configuration %s",
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    for (const auto& daemon : ZARNServicesOfBit(bit)) {
        if (!Reload(daemon)) {
            return false;
        }
    }
    return true;
}

void RunHooks(const PackageInfo& info, const PackageInfo* old, PKG_INSTALLATION_TYPE type,
              int state) {
    std::vector<ZARNDirEntry> entries;
    if (!ZARNListDir(kHookDir, entries)) {
        ZLOGERR("Failed to list %s %s", kHookDir, ZARNLastErrorSuffix().c_str());
        return;
    }
    std::string status = PMSGetPkgStatusText(type);
    if (status.empty()) {
        status = state == 1 ? "START" : "STOP";
    }
    for (const auto& entry : entries) {
        const std::string path = std::string(kHookDir) + "/" + entry.name;
        if (entry.type != ZARNFileType::Regular &&
            (entry.type != ZARNFileType::Unknown || !ZARNIsRegularFile(path))) {
            continue;
        }
        ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(path)});
        runner.setEnv("ZARNPKG_PKG_STATUS", status)
            .setEnv("ZARNPKG_PKGNAME", info.name)
            .setEnv("ZARNPKG_PKGVER", info.version)
            .captureOutput();
        if (old != nullptr) {
            runner.setEnv("ZARNPKG_OLD_PKGVER", old->version);
        } else {
            runner.unsetEnv("ZARNPKG_OLD_PKGVER");
        }
        const int ret = runner.run();
        if (ret != 0) {
            ZLOGERR("Hook %s failed for %s, ret=%d", path.c_str(), info.name.c_str(), ret);
        }
    }
}

}  // namespace

unsigned int PMSConvMapRestartService(const char* names) {
    if (names == nullptr) {
        return 0;
    }
    unsigned int mask = 0;
    for (const auto& name : PMSExplodeString(names, " \t")) {
        auto it = MappingPKGRestartServices.find(name);
        if (it != MappingPKGRestartServices.end()) {
            mask |= it->second.first;
        }
    }
    return mask;
}

unsigned int PackageManager::findRestartServices(const std::vector<std::string>& packages) {
    unsigned int mask = getPackageInfoData()->startstop_restart_services;
    if (packages.size() <= 1) {
        return mask;
    }
    // The last package of a list is the one the manager's record stands for.
    for (size_t i = 0; i + 1 < packages.size(); ++i) {
        std::string value;
        const std::string infoPath = "/var/packages/" + packages[i] + "/INFO";
        if (VLIBCFileGetKeyValue(infoPath, "startstop_restart_services", value) == 1) {
            mask |= PMSConvMapRestartService(value.c_str());
        }
    }
    return mask;
}

bool PackageManager::RestartServices(PKG_INSTALLATION_TYPE type, unsigned long long mask) {
    if (type == PKG_INSTALLATION_NONE) {
        return false;
    }
    if (mask == 0) {
        const PackageInfo& info = *getPackageInfoData();
        const bool control = type == PKG_INSTALLATION_START || type == PKG_INSTALLATION_STOP;
        mask = control ? info.startstop_restart_services : info.instuninst_restart_services;
    }
    return RestartServicesAction(static_cast<unsigned long>(mask));
}

bool PackageManager::RestartServicesAction(unsigned long mask) {
    if (mask == 0) {
        return true;
    }
    UnLock();
    Json::Value failed(Json::arrayValue);
    for (const auto& step : kReloadOrder) {
        if ((mask & step.bit) != 0 && !ReloadStepDaemons(step.bit)) {
            failed.append(step.name);
        }
    }
    std::vector<std::string> inError;
    if (ServiceErrorEnum(inError, mask & ~kWebBit, 0) < 0) {
        ZLOGERR("ServiceErrorEnum failed %s", ZARNLastErrorSuffix().c_str());
    }
    for (const auto& name : inError) {
        failed.append(name);
    }
    if (!failed.empty()) {
        ZLOGERR("Failed to restart related service %ld", static_cast<long>(mask));
        insertJsonParam("services", failed);
        setResult(PKG_ERR_RESTART_SERVICE);
        return false;
    }
    if ((mask & kWebBit) != 0 && ZARNFwRuleHup() < 0) {
        ZLOGERR("Failed to reload firewall rules.");
        failed.append("firewall");
        insertJsonParam("services", failed);
        setResult(PKG_ERR_RESTART_SERVICE);
        return false;
    }
    return true;
}

void PMSCheckServiesStatus(const PackageInfo& info, const PackageInfo* old,
                           PKG_INSTALLATION_TYPE type, int state) {
    // The boot's marker belongs to the boot's own run; hooks of a later action must not see it.
    unsetenv("ZARNPKG_BOOT_STATUS");
    if (ZARNIsDir(kHookDir)) {
        RunHooks(info, old, type, state);
    }
}

}  // namespace ZARNPackageTool
