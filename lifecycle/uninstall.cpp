#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "control/restart_services.h"
#include "control/tasks.h"
#include "core/helpers.h"
#include "core/packagemanager.h"
#include "core/paths.h"
#include "core/registry.h"
#include "core/version.h"
#include "lifecycle/pipeline_steps.h"
#include "lifecycle/script_log.h"
#include "package/archive.h"
#include "platform/apppriv.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/locks.h"
#include "platform/log.h"
#include "resource/resource.h"
#include "resource/state_files.h"

namespace ZARNPackageTool {

namespace {

// Resource::Release of one moment; a failure is reported and the removal goes on.
void ReleaseStep(PackageManager& pm, Resource::TIMING timing, const PackageInfo& info,
                 PKG_INSTALLATION_TYPE type, ZARN::PkgUtils::WorkerResp& resp,
                 const Json::Value* wizardValues) {
    if (Resource::Release(timing, info, type, resp, wizardValues, "")) {
        return;
    }
    ZLOGERR("Failed to release resource %s uninstall %s [0x%04X %s:%d]",
            timing == Resource::TIMING_PREUNINST ? "before" : "after", info.name.c_str(),
            VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
    pm.insertJsonParam("worker_msg", resp.GetErrJsonArray());
    pm.setResult(PKG_ERR_RESOURCE_RELEASE);
}

// Removes the registry directory, or only what it holds when an upgrade keeps it.
bool RemoveRegistry(const PackageInfo& info, PKG_INSTALLATION_TYPE type) {
    const std::string reg = PMSRegistryDir(info.name);
    std::string image;
    if (PMSGetImageTmpPath("INST", info.name.c_str(), nullptr, image) && ZARNIsDir(image)) {
        PMSRunTool(info, type, "/bin/rm", {"-rf", image});
    }
    bool removed = true;
    if (type == PKG_INSTALLATION_UPGRADE) {
        std::vector<ZARNDirEntry> entries;
        removed = ZARNListDir(reg, entries);
        for (const ZARNDirEntry& entry : entries) {
            removed = PMSRunTool(info, type, "/bin/rm", {"-rf", reg + "/" + entry.name}) && removed;
        }
    } else {
        removed = PMSRunTool(info, type, "/bin/rm", {"-rf", reg});
    }
    if (!FsyncDirectories({"/var/packages"})) {
        ZLOGERR("Failed to fsync after package uninstalled, pkg=[%s]", info.name.c_str());
    }
    if (!removed) {
        ZLOGERR("Failed to remove files %s", reg.c_str());
    }
    return removed;
}

}  // namespace

bool PackageManager::uninstall(const std::string& name, const Json::Value* wizardValues,
                               const char* language, PKG_INSTALLATION_TYPE type, bool force,
                               const char* userName) {
    if (type == PKG_INSTALLATION_UNINSTALL && !force && !IsFileExists(PKG_UPGRADE_BOOTUP_FLAG)) {
        std::string names;
        if (!arePackagesDepended(name, language, names)) {
            insertMapParam("deppkg", names);
            setResult(PKG_ERR_DEPENDENCY);
            return false;
        }
    }
    PackageInfo record;
    PackageInfo& info = type == PKG_INSTALLATION_UNINSTALL ? *getPackageInfoData() : record;
    if (!PMSLoadPKGInfoFile(PMSRegistryDir(name), info, language, ~0ULL)) {
        ZLOGERR("Failed to load package info in %s", PMSRegistryDir(name).c_str());
        setResult(PKG_ERR_NOT_INSTALLED);
        return false;
    }
    return uninstall(info, wizardValues, language, type, userName);
}

bool PackageManager::uninstall(const PackageInfo& info, const Json::Value* wizardValues,
                               const char* language, PKG_INSTALLATION_TYPE type,
                               const char* userName) {
    if (!ExLock(PKG_LOCK_WAIT_SECONDS)) {
        setResult(PKG_ERR_LOCK);
        return false;
    }
    const std::string& name = info.name;
    const std::string reg = PMSRegistryDir(name);
    std::unique_ptr<KOS::Task> task;
    if (type == PKG_INSTALLATION_UNINSTALL) {
        task = createTask(PKG_TASK_UNINSTALL_PREFIX, name, "uninstalling");
    }
    const std::string logFile =
        getLogFilePath().empty() ? getFixedLogFilePath(name) : getLogFilePath();
    ZARN::PkgUtils::WorkerResp resp;
    bool success = false;
    bool wasRunning = false;
    // Each step that fails returns at once; what follows the steps runs on every path.
    [&] {
        if (ZARNPathExists(reg + "/enabled")) {
            const bool stopped =
                serviceControl(type, name, false, language, nullptr, nullptr, true, true);
            if (!stopped && type == PKG_INSTALLATION_UNINSTALL && getResult() == PKG_ERR_PRESTOP) {
                return;
            }
            wasRunning = true;
        }
        const int preuninst = PMSRunUninstallScript("preuninst", info, logFile, type, wizardValues,
                                                    language, userName, nullptr);
        if (preuninst != 0) {
            ZLOGERR("Failed to run preuninst for %s, [%d]", name.c_str(), preuninst);
            if (PMSCheckPackageArchModelMatched(info)) {
                if (type == PKG_INSTALLATION_UNINSTALL && wasRunning) {
                    serviceControl(PKG_INSTALLATION_UNINSTALL, name, true, language, nullptr,
                                   nullptr, true, true);
                }
                setResult(PKG_ERR_SYSTEM);
                return;
            }
            ZLOGERR("Ignoring preuninst failure for %s due to wrong arch", name.c_str());
        }
        // No way back from here: the removal completes as far as it can.
        ReleaseStep(*this, Resource::TIMING_PREUNINST, info, type, resp, wizardValues);
        std::string target;
        if (!ZARNReadLink(reg + "/target", target) || target.empty()) {
            ZLOGERR("Failed to resovle package target for %s", name.c_str());
        } else if (ZARNIsDir(target) && !PMSRunTool(info, type, "/bin/rm", {"-rf", target})) {
            ZLOGWARN("Failed to rm dir, path=[%s] package=[%s], ignored", target.c_str(),
                     name.c_str());
        }
        ReleaseStep(*this, Resource::TIMING_POSTUNINST, info, type, resp, wizardValues);
        if (type == PKG_INSTALLATION_UPGRADE) {
            Resource::BackupResourceFile(name);
        }
        const int postuninst = PMSRunUninstallScript("postuninst", info, logFile, type,
                                                     wizardValues, language, nullptr, &resp);
        if (postuninst != 0) {
            ZLOGERR("Failed to run postuninst for %s, [%d]", name.c_str(), postuninst);
        }
        success = true;
        if (ZARNIsDir(reg) && !RemoveRegistry(info, type)) {
            setResult(PKG_ERR_SYSTEM);
            success = false;
        }
    }();
    if (!info.displayname.empty() && (type & PKG_INSTALLATION_UNINSTALL) != 0) {
        ZARNLogSet1(2, success ? 1 : 3, success ? 0x13700007 : 0x13700008, info.displayname, "",
                    "");
    }
    const std::string line = parseInstallTypeToStr(type) + " " + name + ": Uninstall " +
                             info.version + " " + (success ? "successfully" : "failed");
    PMSWriteSysLog(line.c_str());
    if (type == PKG_INSTALLATION_UNINSTALL) {
        PMSCheckServiesStatus(info, nullptr, PKG_INSTALLATION_UNINSTALL, -1);
        RestartServices(PKG_INSTALLATION_UNINSTALL, info.instuninst_restart_services);
        UnLock();
    }
    CleanAllEnv();
    if (task) {
        task->remove();
    }
    return success;
}

bool PackageManager::uninstallPKGs(const std::vector<std::string>& names, bool printErrors) {
    if (!init()) {
        return false;
    }
    if (names.empty()) {
        return true;
    }
    std::vector<std::string> order;
    if (!getDependencyOrder(order)) {
        order = enumPackages(nullptr, 0);
    }
    bool all = true;
    for (const std::string& name : order) {
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            continue;
        }
        PackageManager pm;
        if (pm.uninstall(name, nullptr, nullptr, PKG_INSTALLATION_UNINSTALL, false, nullptr)) {
            continue;
        }
        all = false;
        if (printErrors) {
            printf("Failed to uninstall package: %s, %d\n", name.c_str(), pm.getResult());
        } else {
            ZLOGERR("Failed to uninstall package: %s, %d", name.c_str(), pm.getResult());
        }
    }
    return all;
}

bool PackageManager::uninstallReplacedPkgs(DepPkgVector& packages, const char* language,
                                           const char* userName) {
    bool all = true;
    const PackageInfo* self = getPackageInfoData();
    for (const PackageBasicInfo& entry : packages) {
        PackageInfo installed;
        PackageManager query;
        if (!query.getPackageInfo(entry.name, installed, language, ~0ULL) ||
            !PackageBasicInfo(installed.name, installed.version).compare(entry, entry.op)) {
            continue;
        }
        ZLOGERR("%s is being replaced by %s", entry.name.c_str(),
                self != nullptr ? self->name.c_str() : "");
        PackageManager pm;
        if (!pm.uninstall(entry.name, nullptr, language, PKG_INSTALLATION_UNINSTALL, true,
                          userName)) {
            ZLOGERR("Failed to remove package %s", entry.name.c_str());
            all = false;
        }
    }
    return all;
}

}  // namespace ZARNPackageTool
