#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "control/notify.h"
#include "control/restart_services.h"
#include "control/tasks.h"
#include "core/helpers.h"
#include "core/packagemanager.h"
#include "core/paths.h"
#include "core/registry.h"
#include "core/version.h"
#include "lifecycle/pipeline_steps.h"
#include "lifecycle/script_log.h"
#include "platform/accounts.h"
#include "platform/apppriv.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/locks.h"
#include "platform/log.h"
#include "platform/scope_guard.h"
#include "platform/volumes.h"
#include "privilege/privilege.h"
#include "resource/resource.h"
#include "server/update_schedule.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kGuestGroup = "ZarnwickGuests";
constexpr const char* kDownloadTaskPrefix = "@ZARNPKG_DOWNLOAD_";

enum InstallKind { KIND_FRESH = 1, KIND_UPGRADE = 2, KIND_REPAIR = 4 };

INST_RUN_OPTION OptionOf(bool start) {
    return start ? INST_RUN_START : INST_RUN_KEEP_RUNNING;
}

// Guests may not open the applications of a new package. Never fails the install.
void DenyGuests(const PackageInfo& info) {
    ZARNGroupRecord* group = nullptr;
    if (ZARNGroupGet(kGuestGroup, &group) < 0) {
        if (VLIBCErrGet() != ZARN_ERR_GROUP_NOT_FOUND) {
            ZLOGERR("Failed to check existence of group '%s' [0x%04X %s:%d]", kGuestGroup,
                    VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
            ZLOGERR("DenyGroupAccess failed for '%s'", info.name.c_str());
        }
        return;
    }
    const bool reserved = ZARNGroupIsReserved(kGuestGroup, group->gid) == 1;
    ZARNGroupFree(group);
    if (!reserved) {
        return;
    }
    bool failed = false;
    for (const std::string& app : PMSExplodeString(info.kosappname, " ")) {
        if (!app.empty() && VLIBAppPrivGroupDenyOne(kGuestGroup, app) < 0) {
            ZLOGERR("VLIBAppPrivGroupDenyOne failed for %s[0x%04X %s:%d]", app.c_str(),
                    VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
            failed = true;
        }
    }
    if (failed) {
        ZLOGERR("DenyGroupAccess failed for '%s'", info.name.c_str());
    }
}

// After an upgrade, the dependants that the dependency limit stopped start again when all
// they need is there.
void StartStoppedByDepLimit(const PackageInfo& info, const char* language, const char* userName) {
    PackageManager pm;
    std::vector<std::string> order;
    if (!pm.getDependencyOrder(info.name.c_str(), order, true, false)) {
        return;
    }
    std::reverse(order.begin(), order.end());
    std::vector<std::string> started;
    for (const std::string& name : order) {
        PackageInfo record;
        bool running = false;
        if (!pm.getPackageInfo(name, record, language, ~0ULL)) {
            continue;
        }
        pm.getServiceStatus(name, running, true);
        Json::Value missing;
        std::string names;
        if (running || pm.getResult() != PKG_ERR_STOPPED_BY_DEP_LIMIT ||
            !pm.arePackagesInstallAndStart(record.install_dep_packages, missing, names, language)) {
            continue;
        }
        started.push_back(record.displayname.empty() ? name : record.displayname);
        pm.serviceControl(PKG_INSTALLATION_START, name, true, language, userName, nullptr, true,
                          false);
    }
    if (!started.empty()) {
        PMSNotifyAdministrators({"pkgmgr:start_stopped_by_dep_limit",
                                 info.displayname.empty() ? info.name : info.displayname,
                                 joinStringArray(started, ", ")});
    }
}

// The volume of the installed package, when it is kept for the new version.
std::string PreviousVolume(const PackageInfo& newInfo, const std::string& name) {
    std::string volume;
    if (!PMSGetPackageVol(name, volume) || volume.empty()) {
        PMSRunTool(newInfo, PKG_INSTALLATION_UPGRADE, "/bin/rm",
                   {"-rf", PMSRegistryDir(name) + "/target"});
        ZLOGERR("%s, Failed to get volume", name.c_str());
        return "";
    }
    PackageInfo old;
    PackageManager pm;
    if (newInfo.install_type == "system" &&
        (!pm.getPackageInfo(name, old, nullptr, ~0ULL) || old.install_type != "system")) {
        return "";
    }
    return volume;
}

PKG_ERRCODE TmpDirFailure() {
    return VLIBCErrGet() == ZARN_ERR_NO_SPACE ? PKG_ERR_NO_SPACE : PKG_ERR_SYSTEM;
}

void WriteInstallEvent(const PackageInfo& info, int kind, bool success, PKG_ERRCODE result) {
    if (info.displayname.empty() ||
        (kind == KIND_UPGRADE && !success && result == PKG_ERR_DOWNGRADE)) {
        return;
    }
    const unsigned int base = kind == KIND_FRESH     ? 0x13700001
                              : kind == KIND_UPGRADE ? 0x13700003
                                                     : 0x13700005;
    ZARNLogSet1(2, success ? 1 : 3, success ? base : base + 1, info.displayname, "", "");
}

}  // namespace

bool PackageManager::post_install(const PackageInfo& /*info*/) {
    PMSSavaDefNotify();
    return true;
}

bool PackageManager::install(const char* language, const std::string& packageFile,
                             const std::string& volume, bool start, const Json::Value* wizardValues,
                             const char* userName, bool verifySignature, bool ignoreDependencies) {
    return install(language, packageFile, volume, OptionOf(start), wizardValues, userName,
                   verifySignature, ignoreDependencies);
}

bool PackageManager::installQAR(const char* language, std::string packageFile,
                                const std::string& volume) {
    if (packageFile.empty() || !init()) {
        return false;
    }
    if (!install(language, packageFile, volume, INST_RUN_NO_START, nullptr, nullptr, false, true)) {
        ZLOGERR("Failed to install package: %s, [%d]", packageFile.c_str(), getResult());
        return false;
    }
    return true;
}

bool PackageManager::install(const char* language, const std::string& packageFile,
                             const std::string& volume, INST_RUN_OPTION option,
                             const Json::Value* wizardValues, const char* userName,
                             bool verifySignature, bool ignoreDependencies) {
    if (packageFile.empty()) {
        return false;
    }
    struct stat st;
    if (!ZARNStat(packageFile, st) || !S_ISREG(st.st_mode)) {
        ZLOGERR("Fail to get qar file, %s", packageFile.c_str());
        setResult(PKG_ERR_BROKEN);
        return false;
    }
    if (!init()) {
        return false;
    }
    PackageInfo info;
    if (!queryPackageFileInfo(packageFile, info, PKG_INSTALLATION_NONE, language)) {
        ZLOGERR("Fail to get package info");
        setResult(PKG_ERR_BROKEN);
        return false;
    }
    const std::string& name = info.name;
    // A download that made this file hands its task over to the install.
    KOS::TaskMgr taskMgr(PKG_TASK_OWNER);
    const std::string taskName = kDownloadTaskPrefix + name;
    std::shared_ptr<KOS::Task> downloadTask =
        taskMgr.hasTask(taskName) ? GetTaskWithTaskMgr(taskMgr, taskName.c_str()) : nullptr;
    bool adopted = false;
    if (downloadTask) {
        Json::Value data = downloadTask->getProperty("data");
        if (data.isObject() && data.get("pregen", false).asBool()) {
            data["pid"] = static_cast<int>(getpid());
            downloadTask->setProperty("data", data);
            adopted = true;
        }
    }
    int kind = KIND_FRESH;
    bool success = false;
    // Each step that fails returns at once; what follows the steps runs on every path.
    [&] {
        if (verifySignature) {
            const int verdict = verifyPackageSignature(packageFile.c_str());
            if (verdict != PKG_ERR_SIGN_OK) {
                ZLOGERR("Check codesign failed");
                setResult(static_cast<PKG_ERRCODE>(verdict));
                return;
            }
        }
        if (hasCycle(info)) {
            setResult(PKG_ERR_DEP_CYCLE);
            return;
        }
        if (!ExLock(PKG_LOCK_WAIT_SECONDS)) {
            ZLOGERR("Failed to lock, %s", name.c_str());
            setResult(PKG_ERR_LOCK);
            return;
        }
        ZARN_SCOPE_EXIT {
            UnLock();
        };
        bool running = false;
        getServiceStatus(name, running, true);
        switch (getResult()) {
            case PKG_ERR_NOT_INSTALLED:
                kind = KIND_FRESH;
                break;
            case PKG_ERR_BROKEN:
            case PKG_ERR_ARCH_MODEL:
            case PKG_ERR_VERSION_LIMIT:
            case PKG_ERR_BROKEN_BY_OTHER:
                kind = KIND_REPAIR;
                break;
            default:
                kind = KIND_UPGRADE;
        }
        const std::string regInfo = PMSRegistryDir(name) + "/INFO";
        PackageInfo installed;
        if (IsFileExists(regInfo) && !getPackageInfo(name, installed, nullptr, ~0ULL)) {
            kind = KIND_REPAIR;
            ZARNUnlink(regInfo);
        }

        std::string chosen;
        if (VLIBCIsDockHost()) {
            chosen = "/volume1";
        } else if (info.install_type == "system") {
            if (!PMSGetSystemInstallPath(chosen)) {
                return;
            }
        } else if (kind != KIND_FRESH) {
            chosen = PreviousVolume(info, name);
        }
        if (chosen.empty() && !PMSGetPackageDefVol(chosen)) {
            chosen = volume;
        }
        const unsigned long long size = info.extractsize != 0
                                            ? static_cast<unsigned long long>(info.extractsize)
                                            : static_cast<unsigned long long>(st.st_size * 1.5);
        if (chosen.empty() &&
            !PMSGetTmpDir(size, nullptr, chosen, PMSGetIntallOnColdStorage(info))) {
            ZLOGERR("No available tmp path");
            setResult(TmpDirFailure());
            return;
        }
        if (!IsRootPartitionHasEnoughSpace()) {
            setResult(PKG_ERR_NO_SPACE);
            return;
        }
        std::string finalVolume;
        if (!GetAppStoreVolume(info, chosen.c_str(), size, finalVolume)) {
            const bool retry =
                kind != KIND_FRESH && !VLIBCIsDockHost() && info.install_type != "system";
            std::string other;
            if (retry && !PMSGetTmpDir(size, chosen.c_str(), other)) {
                ZLOGERR("No available tmp path");
                setResult(TmpDirFailure());
                return;
            }
            if (!retry || !GetAppStoreVolume(info, other.c_str(), size, finalVolume)) {
                if (retry) {
                    ZLOGERR("Failed to get installation volume %s", other.c_str());
                }
                setResult(VLIBCErrGet() == ZARN_ERR_NO_SPACE ? PKG_ERR_NO_SPACE
                                                             : PKG_ERR_NO_VOLUME);
                return;
            }
        }
        const std::string appstoreDir = finalVolume + "/@appstore";
        if (ZARNFSMkdirP(appstoreDir, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) !=
            0) {
            ZLOGERR("Failed to check appstore %s", appstoreDir.c_str());
            setResult(PKG_ERR_NO_VOLUME);
            return;
        }
        std::string tmpDir;
        const bool system = info.install_type == "system";
        if ((system || !PMSGetTmpDir(0, finalVolume.c_str(), tmpDir)) &&
            !(system && CanUploadtoRoot(0, tmpDir)) && !PMSGetSystemTmpDir(0, tmpDir)) {
            ZLOGERR("Failed to check tmpdir %s", finalVolume.c_str());
            setResult(TmpDirFailure());
            return;
        }
        // The preset code stands for the kind of action unless a step sets its own.
        if (kind == KIND_REPAIR) {
            setResult(PKG_ERR_REPAIR);
            success = upgrade_package(packageFile, finalVolume, appstoreDir, tmpDir, wizardValues,
                                      language, userName, ignoreDependencies, option);
            if (!success && getResult() != PKG_ERR_DOWNGRADE) {
                ZLOGERR("Failed to repair package %s, status: %d", name.c_str(), getResult());
            }
        } else if (kind == KIND_UPGRADE) {
            setResult(PKG_ERR_INSTALL);
            success = upgrade_package(packageFile, finalVolume, appstoreDir, tmpDir, wizardValues,
                                      language, userName, ignoreDependencies, option);
        } else {
            setResult(PKG_ERR_UPGRADE);
            success = install_package(packageFile, finalVolume, appstoreDir, tmpDir, option,
                                      wizardValues, language, userName, ignoreDependencies);
        }
    }();
    WriteInstallEvent(info, kind, success, getResult());
    CleanAllEnv();
    if (adopted) {
        downloadTask->remove();
    }
    return success;
}

bool PackageManager::install_package(const std::string& packageFile, const std::string& volume,
                                     const std::string& appstoreDir, const std::string& tmpDir,
                                     INST_RUN_OPTION option, const Json::Value* wizardValues,
                                     const char* language, const char* userName,
                                     bool ignoreDependencies) {
    PipelineRun run(*this, PKG_INSTALLATION_INSTALL, tmpDir, packageFile, volume, wizardValues,
                    language, userName);
    Common& common = run.common;
    const std::string& extractDir = common.extractDir;
    PackageInfo info;
    bool postAcquired = true;
    // Each step that fails returns at once; what follows the steps runs on every path.
    [&] {
        if (!PMSOpenPipeline(*this, common, info)) {
            return;
        }
        const std::string& name = info.name;
        // Asked of a manager of its own, so that the answer doesn't take the preset's place.
        PackageManager query;
        bool running = false;
        query.getServiceStatus(name, running, true);
        if (query.getResult() != PKG_ERR_NOT_INSTALLED) {
            ZLOGERR("Package %s already installed", name.c_str());
            setResult(PKG_ERR_ALREADY_INSTALLED);
            return;
        }
        common.logFile = getFixedLogFilePath(name);
        ZARNUnlink(PMSGetProgressPath(name));
        if (!ignoreDependencies && !PMSCheckBrokenReplaced(*this, info, language)) {
            setResult(PKG_ERR_DEP_HANDLE);
            return;
        }
        const PackageInfoExtraPrivate& extra = *info.extra.get();
        if (!stopPackages(extra.install_break_packages, language, userName)) {
            ZLOGERR("Failed to stop to-be-broken packages");
        }
        if (!stopPackages(extra.install_replace_packages, language, userName)) {
            ZLOGERR("Failed to stop to-be-replaced packages");
        }
        if (PMSUsesReplaceMechanism(info)) {
            DepPkgVector replaced = extra.install_replace_packages;
            if (!runInstallScript("prereplace", info, common, run.resp, "")) {
                setResult(PKG_ERR_SYSTEM);
                return;
            }
            if (!uninstallReplacedPkgs(replaced, language, userName)) {
                ZLOGERR("Failed to remove replace package for %s", name.c_str());
                setResult(PKG_ERR_SYSTEM);
                return;
            }
        }
        Privilege::ReviseFileAttr(name, extractDir, false);
        Resource::InitRequiredFields(name, extractDir);
        if (!PMSPreinstAndPlace(*this, run, info, appstoreDir + "/" + name, "", PKG_ERR_INSTALL)) {
            return;
        }
        // A failure here fails the install only once the scripts have had their say.
        postAcquired = PMSAcquireStep(*this, Resource::TIMING_POSTINST, info,
                                      PKG_INSTALLATION_INSTALL, run.resp, common.wizardValues, "");
        DenyGuests(info);
        if (!PMSRunPostScripts(info, common, run.resp, "")) {
            setResult(PKG_ERR_SYSTEM);
            return;
        }
        if (!postAcquired) {
            setResult(PKG_ERR_INSTALL);
            return;
        }
        if (!PMSFinishInstall(*this, info, language, userName)) {
            return;
        }
        run.restartMask = findRestartServices({name}) | info.instuninst_restart_services;
        *getPackageInfoData() = info;
        // The queries on the way leave their answers here; a success shows the preset.
        setResult(run.preset);
        run.success = true;
    }();
    InstallationHandlerPost(false, run.success, userName, language,
                            run.success ? option : INST_RUN_NO_START, PKG_INSTALLATION_INSTALL,
                            info, {}, run.restartMask);
    PMSCleanExtractDir(*this, info, PKG_INSTALLATION_INSTALL, extractDir);
    if (!info.name.empty()) {
        const std::string line = "install " + info.name + " " + info.version + " " +
                                 (run.success ? "successfully" : "failed");
        PMSWriteSysLog(line.c_str());
        PMSCheckServiesStatus(info, nullptr, PKG_INSTALLATION_INSTALL, -1);
    }
    return run.success;
}

void PackageManager::InstallationHandlerPost(bool wasRunning, bool success, const char* userName,
                                             const char* language, INST_RUN_OPTION option,
                                             PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                                             std::vector<std::string> dependants,
                                             unsigned long long restartMask) {
    if (option == INST_RUN_START || (option == INST_RUN_KEEP_RUNNING && wasRunning)) {
        restartMask |= findRestartServices(dependants);
        const bool started =
            serviceControl(type, info.name, true, language, userName, &dependants, true, false);
        if (type == PKG_INSTALLATION_UPGRADE && started && success) {
            StartStoppedByDepLimit(info, language, userName);
        }
    }
    if (restartMask != 0) {
        RestartServices(type, restartMask);
    }
}

bool PackageManager::stopPackages(DepPkgVector packages, const char* language,
                                  const char* userName) {
    if (packages.empty()) {
        return true;
    }
    const PackageBasicInfoMap installed = PackageManager().enumPackageMap(~0ULL);
    for (const PackageBasicInfo& entry : packages) {
        auto found = installed.find(entry.name);
        if (found == installed.end() || !found->second.compare(entry, entry.op)) {
            continue;
        }
        PackageManager pm;
        if (!pm.isStarted(entry.name, true)) {
            continue;
        }
        const PackageInfo* self = getPackageInfoData();
        ZLOGERR("'%s' is being stopped by '%s' due to dependency issues", entry.name.c_str(),
                self != nullptr ? self->name.c_str() : "");
        if (!pm.serviceControl(PKG_INSTALLATION_NONE, entry.name, false, language, userName,
                               nullptr, true, true)) {
            return false;
        }
    }
    return true;
}

}  // namespace ZARNPackageTool
