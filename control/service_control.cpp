#include "control/service_control.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "control/notify.h"
#include "control/restart_services.h"
#include "control/tasks.h"
#include "core/paths.h"
#include "core/registry.h"
#include "core/version.h"
#include "lifecycle/script_env.h"
#include "lifecycle/script_log.h"
#include "package/app_privilege.h"
#include "platform/fileattr.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/locks.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/sysroot.h"
#include "platform/volumes.h"
#include "privilege/privilege.h"
#include "resource/resource.h"
#include "resource/state_files.h"
#include "service/extra_env.h"
#include "service/jobs.h"

namespace ZARNPackageTool {

namespace {

constexpr mode_t kTraversableMode = 0755;

std::string EnabledFlagPath(const std::string& name) {
    return PMSRegistryDir(name) + "/enabled";
}

bool HasEnabledFlag(const std::string& name) {
    return PMSCheckEnabledFile(PMSRegistryDir(name).c_str());
}

void UnlinkDesktopEntry(const PackageInfo& info) {
    if (!info.kosuidir.empty()) {
        Service::UnlinkIfPresent(PMSDesktopEntryPath(info.kosuidir));
    }
}

const char* ActionWord(bool start) {
    return start ? "start" : "stop";
}

// The system log line that closes an action on one package.
void WriteEndLine(PKG_INSTALLATION_TYPE type, const PackageInfo& info, const std::string& name,
                  bool start, bool ok, int result) {
    char line[4352];
    snprintf(line, sizeof(line), "%s %s: %s version %s %s, result %d",
             parseInstallTypeToStr(type).c_str(), name.c_str(), ActionWord(start),
             info.version.c_str(), ok ? "successfully" : "failed", result);
    PMSWriteSysLog(line);
}

// Services of packages run as other accounts, so a folder on the way to a payload must stay
// traversable for them.
void EnsureTraversable(const std::string& dir) {
    struct stat st;
    if (!ZARNStat(dir, st)) {
        ZLOGERR("failed to stat %s [%m]", dir.c_str());
    } else if ((st.st_mode & 0777) == kTraversableMode) {
        return;
    } else {
        ZLOGERR("%s's mode(%3o) doesn't match %3o", dir.c_str(), st.st_mode & 0777,
                kTraversableMode);
    }
    ZLOGERR("chmod %s to 0755", dir.c_str());
    if (!ZARNChmod(dir, kTraversableMode)) {
        ZLOGERR("chmod failed for %s (%m)", dir.c_str());
    }
}

void FixPackageDirModes(const PackageInfo& info) {
    std::string volume;
    if (!PMSGetPackageVol(info.name, volume)) {
        ZLOGERR("failed to get pkg volume for %s", info.name.c_str());
        return;
    }
    if (info.install_type == "system") {
        EnsureTraversable(volume);
    }
    const std::string appstore = volume + "/@appstore";
    if (ZARNACLIsSupport(appstore, -1, 2) == 1) {
        ZLOGERR("%s is ACL mode, changing it to Linux mode", appstore.c_str());
        if (!ZARNChmod(appstore, kTraversableMode)) {
            ZLOGERR("chmod failed for %s (%m)", appstore.c_str());
        }
    }
    EnsureTraversable(appstore);
}

// The display name that the administrators know a package by.
std::string ShownName(const std::string& name) {
    PackageManager query;
    PackageInfo info;
    if (query.getPackageInfo(name, info, nullptr, PKG_MASK_DISPLAYNAME) &&
        !info.displayname.empty()) {
        return info.displayname;
    }
    return name;
}

// When a package that should run can't start, what runs on top of it stops too, and the flag
// goes, so that the next boot doesn't try again.
void StopDependantsAfterFailedStart(const std::string& name, const char* language,
                                    const char* userName, bool notify) {
    PackageManager pm;
    if (!HasEnabledFlag(name)) {
        return;
    }
    std::vector<std::string> list;
    if (!pm.getDependencyOrder(name.c_str(), list, true)) {
        list.assign(1, name);
    }
    Service::UnlinkIfPresent(EnabledFlagPath(name));
    pm.serviceControl(PKG_INSTALLATION_STOP, name, false, language, userName, &list, true, true);
    if (!notify || list.size() <= 1) {
        return;
    }
    std::vector<std::string> names;
    for (const auto& p : list) {
        if (p != name) {
            names.push_back(ShownName(p));
        }
    }
    PMSNotifyAdministrators(
        {"pkgmgr:dep_start_failed", ShownName(name), joinStringArray(names, ", ")});
}

// A hook of the package's control script: "prestart", "prestop". The exit status, or -1 when it
// did not run; `identityFailed` tells whether the identity was the cause.
int RunHook(const PackageInfo& info, const std::string& script, const char* action,
            PKG_INSTALLATION_TYPE type, const char* language, const std::string& messageFile,
            const char* userName, bool identityMayFail, bool& identityFailed) {
    identityFailed = false;
    ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(script), action});
    runner.setArgv0("start-stop-status");
    if (!Privilege::SetIdentity(runner, info.name, "start-stop-status", "")) {
        ZLOGERR("Failed to set identity to %s for %s %s", "start-stop-status", info.name.c_str(),
                ZARNLastErrorSuffix().c_str());
        if (!identityMayFail) {
            identityFailed = true;
            return -1;
        }
        ZLOGWARN(
            "Ignore set identify error since it is upgrade/repair or we cannot fix it forcely");
    }
    PMSPrepareScriptEnv(info, runner, language, &messageFile, type, nullptr, nullptr, nullptr,
                        userName);
    return PMSRunAndWriteScriptLog(info, type, runner, PKG_RUN_MODE_SCRIPT);
}

// The checks that a start must pass before anything of the package runs; false with the
// result set and, where the package was meant to run, its state brought in line.
bool StartGateOpen(PackageManager& pm, PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                   const char* language, const char* userName, MSG_TYPE msg) {
    const std::string& name = info.name;
    const bool system = type == PKG_INSTALLATION_NONE;
    const std::set<std::string> missing =
        pm.checkServiceStarted(info.extra.get()->start_dep_service_set);
    if (!missing.empty()) {
        Json::Value names(Json::arrayValue);
        for (const auto& service : missing) {
            names.append(service);
        }
        pm.setResult(PKG_ERR_SERVICE_NOT_STARTED, names);
        ZLOGERR("Fail to start %s, services are not enabled: %s", name.c_str(),
                joinStringArray(std::vector<std::string>(missing.begin(), missing.end()), ", ")
                    .c_str());
        if (HasEnabledFlag(name)) {
            if (VLIBCIsDockHost()) {
                UnlinkDesktopEntry(info);
            } else {
                pm.removePkgResources(PKG_INSTALLATION_STOP, info, msg);
            }
        }
        return false;
    }
    if (!pm.CanPackageStartInThisFirmware(info)) {
        ZLOGERR("Cannot start package [%s], version %s in this KOS version", name.c_str(),
                info.version.c_str());
        if (system) {
            StopDependantsAfterFailedStart(name, language, userName, true);
            NotifyStoppedByFirmware(name);
        }
        return false;
    }
    if (!PMSCheckPackageArchModelMatched(info)) {
        ZLOGERR("Cannot start package [%s], version %s", name.c_str(), info.version.c_str());
        if (system) {
            StopDependantsAfterFailedStart(name, language, userName, true);
        }
        return false;
    }
    if (info.install_type != "system") {
        std::string volume;
        if (PMSGetPackageTarget(name).empty() || !PMSGetPackageVol(name, volume) ||
            !PMSCheckVolStatus(volume.c_str(), 0)) {
            ZLOGERR("Volume is not working. Can't start [%s], version %s", name.c_str(),
                    info.version.c_str());
            pm.setResult(PKG_ERR_NO_WORKING_VOLUME);
            return false;
        }
    }
    if (pm.IsBrokenByOtherPkg(PackageBasicInfo(name, info.version), nullptr, nullptr)) {
        ZLOGERR("Cannot start package [%s], version %s. Broken by other packages.", name.c_str(),
                info.version.c_str());
        return false;
    }
    return true;
}

void AddWorkerMessages(PackageManager& pm, const Json::Value& messages) {
    if (messages.isArray() && !messages.empty()) {
        pm.insertJsonParam("worker_msg", messages);
    }
}

}  // namespace

void NotifyStoppedByFirmware(const std::string& name) {
    PMSNotifyAdministrators({"pkgmgr:fail_start_kos_version", ShownName(name)});
}

bool PackageManager::serviceControl(const std::string& name, bool start, const char* language) {
    return serviceControl(start ? PKG_INSTALLATION_START : PKG_INSTALLATION_STOP, name, start,
                          language, nullptr, nullptr, true, true);
}

bool PackageManager::serviceControl(PKG_INSTALLATION_TYPE type, const std::string& name, bool start,
                                    const char* language, const char* userName,
                                    std::vector<std::string>* packages, bool withDependencies,
                                    bool restartServices) {
    std::unique_ptr<KOS::Task> task = createStartStopTask(name, start);
    setResult(start ? PKG_ERR_START : PKG_ERR_STOP);
    bool ok = false;
    std::vector<std::string> list;
    if (!ExLock(PKG_LOCK_WAIT_SECONDS)) {
        ZLOGERR("Failed to lock, %s", name.c_str());
        setResult(PKG_ERR_LOCK);
    } else {
        if (!withDependencies) {
            list.assign(1, name);
        } else if (packages != nullptr && !packages->empty()) {
            list = *packages;
        } else {
            PackageManager order;
            if (!order.getDependencyOrder(name.c_str(), list, false, false) ||
                std::find(list.begin(), list.end(), name) == list.end()) {
                list.push_back(name);
            }
        }
        // The order is a stop order, dependants first; a start brings dependencies up first.
        // The restart mask reads the named package, last in the stop order, from the record.
        const std::vector<std::string> stopOrder = list;
        if (start) {
            std::reverse(list.begin(), list.end());
        }
        char line[4352];
        snprintf(line, sizeof(line), "%s %s: begin to %s packages %s",
                 parseInstallTypeToStr(type).c_str(), name.c_str(), ActionWord(start),
                 joinStringArray(list, ",").c_str());
        PMSWriteSysLog(line);

        PackageInfo named;
        if (getInstallPackageInfo(name, named, nullptr, PKG_MASK_ALL)) {
            *getPackageInfoData() = named;
        }
        const PKG_INSTALLATION_TYPE reloadType =
            start ? PKG_INSTALLATION_START : PKG_INSTALLATION_STOP;
        bool fixed = true;
        if (start) {
            fixed = fixPkgServiceStatus(type, name, language, userName);
            // A stop on the way gives the lock up at its end; the start goes on under it.
            if (fixed && !ExLock(PKG_LOCK_WAIT_SECONDS)) {
                ZLOGERR("Failed to lock, %s", name.c_str());
                setResult(PKG_ERR_LOCK);
                fixed = false;
            }
        }
        if (fixed) {
            const bool system = type == PKG_INSTALLATION_NONE || type == PKG_INSTALLATION_UPGRADE;
            for (const auto& p : list) {
                if (p == name) {
                    // The caller's message file and parameters belong to the named package.
                    const MSG_TYPE msg =
                        type == PKG_INSTALLATION_NONE ? MSG_TYPE_NOTIFY : MSG_TYPE_WORKER;
                    ok = serviceControlAction(type, p, start, language, userName, msg);
                } else {
                    PackageManager action;
                    const PKG_INSTALLATION_TYPE other = system ? PKG_INSTALLATION_NONE : reloadType;
                    ok = action.serviceControlAction(other, p, start, language, userName,
                                                     MSG_TYPE_NOTIFY);
                    if (!ok) {
                        Json::Value data;
                        const PKG_ERRCODE code = action.getResult(data);
                        setResult(code, data);
                        for (const auto& [key, value] : action.getMapParams()) {
                            insertMapParam(key, value);
                        }
                    }
                }
                if (!ok) {
                    break;
                }
            }
        }
        if (ok) {
            setResult(PKG_ERR_SUCCESS);
        }
        // The stop half of a restart leaves the reload to the start that follows.
        const bool reload = restartServices && (ok || (!fixed && start)) &&
                            !(type == PKG_INSTALLATION_RESTART && !start);
        if (reload && !RestartServices(reloadType, findRestartServices(stopOrder))) {
            ok = false;
        }
    }
    if (task) {
        task->remove();
    }
    // An upgrade goes on under the lock after stopping the old version.
    if (type != PKG_INSTALLATION_UPGRADE) {
        UnLock();
    }
    return ok;
}

bool PackageManager::serviceControlAction(PKG_INSTALLATION_TYPE type, const std::string& name,
                                          bool start, const char* language, const char* userName,
                                          MSG_TYPE msg) {
    setResult(start ? PKG_ERR_START : PKG_ERR_STOP);
    PackageInfo info;
    std::string script = getServiceScript(name, info);
    if (!start && script.empty() && getResult() != PKG_ERR_NOT_INSTALLED) {
        // A broken package must still be stoppable.
        script = PMSRegistryDir(name) + "/scripts/start-stop-status";
    }
    char line[4352];
    snprintf(line, sizeof(line), "%s %s: begin to %s version %s",
             parseInstallTypeToStr(type).c_str(), name.c_str(), ActionWord(start),
             info.version.c_str());
    PMSWriteSysLog(line);

    const std::string dir = PMSRegistryDir(name);
    const std::string enabledPath = EnabledFlagPath(name);
    bool ok = false;
    do {
        // A package that isn't there has nothing to check and nothing to run.
        if (getResult() == PKG_ERR_NOT_INSTALLED) {
            break;
        }
        if (start && !StartGateOpen(*this, type, info, language, userName, msg)) {
            break;
        }
        if (script.empty()) {
            if (getResult() == PKG_ERR_BROKEN) {
                ZLOGERR("Package target path broken, %s", name.c_str());
            }
            break;
        }
        std::string messageFile = getLogFilePath();
        if (messageFile.empty()) {
            messageFile = getFixedLogFilePath(name);
        }
        // What goes to the administrators is what this action said, not an earlier one.
        if (msg == MSG_TYPE_NOTIFY) {
            Service::UnlinkIfPresent(messageFile);
        }
        if (type != PKG_INSTALLATION_NONE) {
            const bool identityMayFail =
                !start && (type == PKG_INSTALLATION_UPGRADE || type == PKG_INSTALLATION_UNINSTALL);
            bool identityFailed = false;
            const int ret = RunHook(info, script, start ? "prestart" : "prestop", type, language,
                                    messageFile, userName, identityMayFail, identityFailed);
            if (ret != 0) {
                setResult(identityFailed ? PKG_ERR_SYSTEM
                          : start        ? PKG_ERR_PRESTART
                                         : PKG_ERR_PRESTOP);
                break;
            }
            if (start) {
                ZARN::PkgUtils::WorkerResp resp;
                if (!Resource::Acquire(Resource::TIMING_ENABLE, info, type, resp, nullptr, "")) {
                    ZLOGERR("Failed to acquire resource before start %s %s", name.c_str(),
                            ZARNLastErrorSuffix().c_str());
                    if (msg == MSG_TYPE_WORKER) {
                        AddWorkerMessages(*this, resp.GetErrJsonArray());
                    }
                    break;
                }
            } else {
                Service::UnlinkIfPresent(enabledPath);
            }
        }
        if (start && !ZARNFileWrite(enabledPath, "", 0644)) {
            ZLOGERR("Failed to create %s %s", enabledPath.c_str(), ZARNLastErrorSuffix().c_str());
        }
        Service::DumpExtraEnv(name, type, language, userName);
        const std::string service = Service::PkgctlName(name);
        int ret = 0;
        if (type == PKG_INSTALLATION_NONE) {
            ret = start ? VLIBServiceResume(service) : VLIBServicePause(service);
        } else {
            ret = start ? VLIBServiceStart(service) : VLIBServiceStop(service);
        }
        if (ret != 0) {
            ZLOGERR("Failed to %s %s (err=%d) %s", ActionWord(start), service.c_str(), ret,
                    ZARNLastErrorSuffix().c_str());
            if (start && HasEnabledFlag(name)) {
                StopDependantsAfterFailedStart(name, language, userName, msg != MSG_TYPE_NONE);
            }
            if (msg == MSG_TYPE_WORKER) {
                Json::Value messages;
                const std::string path =
                    std::string(start ? "/tmp/workermsg-acquire-" : "/tmp/workermsg-release-") +
                    name;
                if (Resource::ReadJsonFile(path, messages)) {
                    AddWorkerMessages(*this, messages);
                }
            }
            break;
        }
        if (start) {
            PMSSetAppPrivilege(userName, info.kosappname, language);
            Service::UnlinkIfPresent(dir + "/stoppedByDepLimit");
        } else {
            removePkgResources(type, info, msg);
        }
        if (msg == MSG_TYPE_NOTIFY) {
            const std::string text = PMSReadPackageLog(messageFile);
            if (!text.empty()) {
                const std::string& shown = info.displayname.empty() ? name : info.displayname;
                PMSNotifyAdministrators({"-e", shown + ": " + text});
            }
        }
        setResult(PKG_ERR_SUCCESS);
        ok = true;
    } while (false);

    FixPackageDirModes(info);
    WriteEndLine(type, info, name, start, ok, getResult());
    PMSCheckServiesStatus(info, nullptr, type, start ? 1 : 0);
    CleanAllEnv();
    return ok;
}

void PackageManager::removePkgResources(PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                                        MSG_TYPE msg) {
    // The system's own stop (shutdown) keeps what the package holds for the next boot.
    if (type == PKG_INSTALLATION_NONE) {
        return;
    }
    UnlinkDesktopEntry(info);
    Service::UnlinkIfPresent(EnabledFlagPath(info.name));
    ZARN::PkgUtils::WorkerResp resp;
    if (!Resource::Release(Resource::TIMING_DISABLE, info, type, resp, nullptr, "")) {
        ZLOGERR("Failed to release resource after stop %s %s", info.name.c_str(),
                ZARNLastErrorSuffix().c_str());
        if (msg == MSG_TYPE_WORKER) {
            AddWorkerMessages(*this, resp.GetErrJsonArray());
        }
    }
}

bool PackageManager::serviceControlRestart(const std::string& name) {
    std::vector<std::string> list;
    PackageManager order;
    if (!order.getDependencyOrder(name.c_str(), list, false)) {
        ZLOGERR("Failed to get dependency order, pkg=[%s]", name.c_str());
        setResult(PKG_ERR_SYSTEM);
        return false;
    }
    return serviceControl(PKG_INSTALLATION_RESTART, name, false, nullptr, nullptr, &list, true,
                          true) &&
           serviceControl(PKG_INSTALLATION_RESTART, name, true, nullptr, nullptr, &list, true,
                          true);
}

bool PackageManager::fixPkgServiceStatus(PKG_INSTALLATION_TYPE type, const std::string& name,
                                         const char* language, const char* userName) {
    PackageInfo info;
    getPackageInfo(name, info, nullptr, PKG_MASK_ALL);
    std::string messageFile = getLogFilePath();
    if (messageFile.empty()) {
        messageFile = getFixedLogFilePath(name);
    }
    const std::string script = getServiceScript(name, info);
    const std::string service = Service::PkgctlName(name);
    bool ok = false;
    do {
        if (script.empty()) {
            if (getResult() == PKG_ERR_BROKEN) {
                ZLOGERR("Package target path broken, %s", name.c_str());
            }
            break;
        }
        int state = 0;
        if (VLIBServiceStatusGet(service, state) < 0) {
            ZLOGERR("Failed to get status of %s %s", service.c_str(),
                    ZARNLastErrorSuffix().c_str());
            break;
        }
        int rough = 0;
        PackageManager query;
        if (!query.getPkgRoughStatus(name, rough)) {
            ZLOGERR("Failed to get package %s's rough status", name.c_str());
            break;
        }
        ok = true;
        // Only a service that runs while the package doesn't count as running is out of line.
        if (state != 1 || (rough & 0x2) != 0) {
            break;
        }
        if (type != PKG_INSTALLATION_NONE && info.extra.get()->precheckstartstop) {
            bool identityFailed = false;
            if (RunHook(info, script, "prestop", type, language, messageFile, userName, false,
                        identityFailed) != 0) {
                break;
            }
        }
        PackageManager stop;
        if (!stop.serviceControl(type, name, false, nullptr, nullptr, nullptr, true, true)) {
            ZLOGERR("Failed to stop of %s %s", name.c_str(), ZARNLastErrorSuffix().c_str());
            setResult(stop.getResult());
            ok = false;
        }
    } while (false);

    FixPackageDirModes(info);
    if (!ok) {
        WriteEndLine(type, info, name, false, false, PKG_ERR_START);
    }
    PMSCheckServiesStatus(info, nullptr, type, 1);
    CleanAllEnv();
    return ok;
}

bool PackageManager::serviceControlByService(const std::set<std::string>& services, bool start,
                                             bool printProgress) {
    std::vector<PackageInfo> packages;
    getDepServicePkgs(services, packages);
    if (VLIBCFileLock(PackageLockId, PKG_LOCK_WAIT_SECONDS) != 0) {
        ZLOGERR("A package is busy");
    }
    bool ok = true;
    unsigned long long mask = 0;
    for (size_t i = 0; i < packages.size(); ++i) {
        const PackageInfo& info = packages[i];
        PackageManager action;
        if (!action.serviceControlAction(PKG_INSTALLATION_NONE, info.name, start, nullptr, nullptr,
                                         MSG_TYPE_NONE)) {
            ZLOGERR("Failed to %s %s", ActionWord(start), info.name.c_str());
            setResult(action.getResult());
            ok = false;
            break;
        }
        if (!start) {
            UnlinkDesktopEntry(info);
        }
        if (printProgress) {
            printf("%s %s successfully (%zd/%zd)\n", start ? "Start" : "Stop", info.name.c_str(),
                   i + 1, packages.size());
            fflush(stdout);
        }
        mask |= info.startstop_restart_services;
    }
    if (!RestartServices(start ? PKG_INSTALLATION_START : PKG_INSTALLATION_STOP, mask)) {
        ok = false;
    }
    VLIBCFileUnlock(PackageLockId);
    return ok;
}

bool PackageManager::serviceControlByService(const std::vector<unsigned int>& services, bool start,
                                             bool printProgress) {
    std::set<std::string> names;
    for (unsigned int bits : services) {
        Json::Value list;
        parseService(bits, list);
        for (const auto& name : list) {
            names.insert(name.asString());
        }
    }
    return serviceControlByService(names, start, printProgress);
}

}  // namespace ZARNPackageTool
