#include <algorithm>

#include "control/restart_services.h"
#include "core/helpers.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
#include "lifecycle/pipeline_steps.h"
#include "lifecycle/script_log.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/locks.h"
#include "platform/log.h"
#include "platform/services.h"
#include "privilege/privilege.h"
#include "resource/resource.h"
#include "resource/state_files.h"
#include "service/jobs.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kOsUpgradePackages = "/.ZarnUpgradePackages";
constexpr int kBootStepUp = 4;

// Appends the names of `more` that `list` lacks.
void AddOnce(std::vector<std::string>& list, const std::vector<std::string>& more) {
    for (const std::string& name : more) {
        if (std::find(list.begin(), list.end(), name) == list.end()) {
            list.push_back(name);
        }
    }
}

}  // namespace

bool PackageManager::upgrade_package(const std::string& packageFile, const std::string& volume,
                                     const std::string& appstoreDir, const std::string& tmpDir,
                                     const Json::Value* wizardValues, const char* language,
                                     const char* userName, bool ignoreDependencies,
                                     INST_RUN_OPTION option) {
    PipelineRun run(*this, PKG_INSTALLATION_UPGRADE, tmpDir, packageFile, volume, wizardValues,
                    language, userName);
    Common& common = run.common;
    const std::string& extractDir = common.extractDir;
    PackageInfo fresh;
    PackageInfo old;
    std::vector<std::string> list;
    std::string tmpFolder;
    bool wasRunning = false;
    // Each step that fails returns at once; what follows the steps runs on every path.
    [&] {
        if (!PMSOpenPipeline(*this, common, fresh)) {
            return;
        }
        if (!getPackageInfo(fresh.name, old, nullptr, ~0ULL)) {
            ZLOGERR("Previous %s not installed, upgrade not possible", fresh.name.c_str());
            return;
        }
        const std::string& name = fresh.name;
        const PackageInfoExtraPrivate& extra = *fresh.extra.get();
        if (PackageBasicInfo(name, fresh.version)
                .compare(PackageBasicInfo(name, old.version), PKG_VER_LT)) {
            insertMapParam("oldver", fresh.version);
            insertMapParam("curver", old.version);
            ZLOGERR("Can't downgrade %s", name.c_str());
            setResult(PKG_ERR_DOWNGRADE);
            return;
        }
        common.logFile = getFixedLogFilePath(name);
        ZARNUnlink(PMSGetProgressPath(name));
        if (!IsFileExists(PKG_UPGRADE_BOOTUP_FLAG)) {
            if (areDependencyPkgStarting(name)) {
                setResult(PKG_ERR_LOCK);
                return;
            }
            getDependencyOrder(name.c_str(), list, false);
            PackageManager probe;
            const bool clean = PMSCheckBrokenReplaced(probe, fresh, language);
            Json::Value stopList;
            getDepPkgListStop(list, name, language, stopList);
            const bool dependantsStop = stopList.isArray() && !stopList.empty();
            if (!ignoreDependencies && (!clean || dependantsStop)) {
                for (const auto& param : probe.getMapParams()) {
                    insertMapParam(param.first, param.second);
                }
                std::vector<std::string> shown;
                for (const Json::Value& entry : stopList) {
                    shown.push_back(entry["name"].asString());
                }
                const std::string names = joinStringArray(shown, ", ");
                ZLOGERR(
                    "Can't upgrade %s: it breaks or replaces installed packages, or running "
                    "ones need it (%s)",
                    name.c_str(), names.c_str());
                insertMapParam("deppkg", names);
                setResult(PKG_ERR_DEP_HANDLE);
                return;
            }
            if (ignoreDependencies && list.size() == 1) {
                list.clear();
            }
        } else {
            list = {name};
            std::string names;
            if (!areDependentPackageStop(name, language, names)) {
                ZLOGERR("Warring: %s is dependent on %s", names.c_str(), name.c_str());
            }
        }
        if (!stopPackages(extra.install_break_packages, language, userName)) {
            ZLOGERR("Failed to stop to-be-broken packages");
        }
        if (!stopPackages(extra.install_replace_packages, language, userName)) {
            ZLOGERR("Failed to stop to-be-replace packages");
        }
        for (const DepPkgVector* stopped :
             {&extra.install_break_packages, &extra.install_replace_packages}) {
            for (const PackageBasicInfo& entry : *stopped) {
                std::vector<std::string> dependants;
                if (!getDependencyOrder(entry.name.c_str(), dependants, false)) {
                    ZLOGERR("Failed to get dependency order for %s", entry.name.c_str());
                }
                AddOnce(list, dependants);
            }
        }
        if (ZARNPathExists(PMSRegistryDir(name) + "/enabled")) {
            wasRunning = true;
        } else {
            PackageManager().getServiceStatus(old.name, wasRunning, true);
            if (!wasRunning && !ZARNPathExists(kOsUpgradePackages) &&
                ZARNSystemGetBootStep() == kBootStepUp &&
                VLIBServiceIsEnabled(Service::PkgctlName(name)) == 1) {
                wasRunning = true;
            }
        }
        if (wasRunning) {
            run.restartMask |= findRestartServices(list);
            serviceControl(PKG_INSTALLATION_UPGRADE, old.name, false, language, userName, &list,
                           true, false);
            if (getResult() == PKG_ERR_PRESTOP) {
                // The old version refused to stop: it stays as it was, running.
                return;
            }
        }
        if (!ExLock(PKG_LOCK_WAIT_SECONDS)) {
            ZLOGERR("Failed to lock, %s", name.c_str());
            setResult(PKG_ERR_LOCK);
            return;
        }
        Privilege::ReviseFileAttr(name, extractDir, false);
        tmpFolder = Privilege::GetTmpFolderPath(old.name, volume.c_str());
        if (!tmpFolder.empty() && !Privilege::CreateTmpFolder(old.name, tmpFolder)) {
            tmpFolder.clear();
        }
        // The old version's data survive in the temporary folder through its own scripts.
        if (!runInstallScript("preupgrade", old, common, run.resp, old.version)) {
            setResult(PKG_ERR_SYSTEM);
            return;
        }
        run.restartMask |= old.instuninst_restart_services;
        if (!uninstall(old, common.wizardValues, language, PKG_INSTALLATION_UPGRADE, nullptr)) {
            ZLOGERR("Failed to remove package %s", old.name.c_str());
        }
        if (!ExLock(PKG_LOCK_WAIT_SECONDS)) {
            ZLOGERR("Failed to lock, %s", name.c_str());
            setResult(PKG_ERR_LOCK);
            return;
        }
        if (PMSUsesReplaceMechanism(fresh)) {
            DepPkgVector replaced = extra.install_replace_packages;
            if (!runInstallScript("prereplace", old, common, run.resp, old.version) ||
                !uninstallReplacedPkgs(replaced, language, userName)) {
                ZLOGERR("Failed to remove replace package for %s", name.c_str());
                setResult(PKG_ERR_SYSTEM);
                return;
            }
        }
        Resource::InitRequiredFields(name, extractDir);
        Resource::RestoreResourceFile(name, extractDir);
        if (!PMSPreinstAndPlace(*this, run, fresh, appstoreDir + "/" + name, old.version,
                                PKG_ERR_UPGRADE)) {
            return;
        }
        const bool postAcquired =
            PMSAcquireStep(*this, Resource::TIMING_POSTINST, fresh, PKG_INSTALLATION_UPGRADE,
                           run.resp, common.wizardValues, "");
        run.restartMask |= fresh.instuninst_restart_services;
        if (!PMSRunPostScripts(fresh, common, run.resp, old.version)) {
            setResult(PKG_ERR_SYSTEM);
            return;
        }
        if (!postAcquired) {
            setResult(PKG_ERR_UPGRADE);
            return;
        }
        *getPackageInfoData() = fresh;
        // The queries on the way leave their answers here; a success shows the preset.
        setResult(run.preset);
        run.success = PMSFinishInstall(*this, fresh, language, userName);
    }();
    InstallationHandlerPost(wasRunning, run.success, userName, language,
                            run.success ? option : INST_RUN_NO_START, PKG_INSTALLATION_UPGRADE,
                            fresh, list, run.restartMask);
    if (!tmpFolder.empty()) {
        PMSRunTool(fresh, PKG_INSTALLATION_UPGRADE, "/bin/rm", {"-rf", tmpFolder});
    }
    if (!fresh.name.empty()) {
        const std::string line = "upgrade " + old.name + " from " + old.version + " to " +
                                 fresh.version + " " + (run.success ? "successfully" : "failed");
        PMSWriteSysLog(line.c_str());
    }
    PMSCleanExtractDir(*this, fresh, PKG_INSTALLATION_UPGRADE, extractDir);
    if (!fresh.name.empty()) {
        PMSCheckServiesStatus(fresh, &old, PKG_INSTALLATION_UPGRADE, -1);
    }
    return run.success;
}

}  // namespace ZARNPackageTool
