#include "lifecycle/pipeline_steps.h"

#include <fcntl.h>

#include "core/helpers.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
#include "lifecycle/script_log.h"
#include "package/archive.h"
#include "package/payload_vet.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/keyfile.h"
#include "platform/locks.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/sysroot.h"
#include "privilege/privilege.h"
#include "resource/resource.h"

namespace ZARNPackageTool {

namespace {

// Runs one of the machine's tools quietly, outside the package log; false, logged, on failure.
bool RunQuiet(const std::vector<std::string>& argv, const char* what) {
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    if (runner.run() != 0) {
        ZLOGERR("%s, %s: %s", what, runner.toString().c_str(),
                runner.getCapturedOutputErr().c_str());
        return false;
    }
    return true;
}

std::string Base64(const std::string& data) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    for (size_t i = 0; i < data.size(); i += 3) {
        const size_t left = data.size() - i;
        unsigned int word = static_cast<unsigned char>(data[i]) << 16;
        word |= left > 1 ? static_cast<unsigned char>(data[i + 1]) << 8 : 0;
        word |= left > 2 ? static_cast<unsigned char>(data[i + 2]) : 0;
        out += kAlphabet[(word >> 18) & 63];
        out += kAlphabet[(word >> 12) & 63];
        out += left > 1 ? kAlphabet[(word >> 6) & 63] : '=';
        out += left > 2 ? kAlphabet[word & 63] : '=';
    }
    return out;
}

// A script may have damaged the unpacked control files: INFO is read again, from a fresh
// extraction of INFO and conf/ when it is missing, empty or (in an install) unreadable.
bool RecheckExtractedInfo(const std::string& packageFile, const std::string& extractDir,
                          PackageInfo& info, bool loadFirst) {
    struct stat st;
    const bool present = ZARNStat(extractDir + "/INFO", st) && st.st_size > 0;
    if (present && (!loadFirst || PMSLoadPKGInfoFile(extractDir, info, nullptr, ~0ULL))) {
        return true;
    }
    ZLOGERR("Failed to validate package INFO in %s", extractDir.c_str());
    RunQuiet({ZARNMachineProgram("/bin/tar"), "xf", PMSProgramPath(packageFile), "-C",
              PMSProgramPath(extractDir), "INFO", "conf", "--no-same-owner"},
             "tar");
    if (!PMSLoadPKGInfoFile(extractDir, info, nullptr, ~0ULL)) {
        ZLOGERR("Failed to validate package INFO");
        return false;
    }
    return true;
}

// Stores the package's icons in its unpacked INFO as base64 text.
bool EmbedIcons(const std::string& extractDir, const std::string& name) {
    struct Icon {
        const char* file;
        const char* key;
        const char* size;
    };
    for (const Icon& icon : {Icon{"PACKAGE_ICON.PNG", "package_icon", "72x72"},
                             Icon{"PACKAGE_ICON_256.PNG", "package_icon_256", "256x256"}}) {
        const std::string path = extractDir + "/" + icon.file;
        if (!ZARNPathExists(path)) {
            continue;
        }
        std::string data;
        if (!ZARNFileRead(path, data)) {
            ZLOGERR("Failed to encode package %s icon, %s for %s", icon.size, icon.file,
                    name.c_str());
            return false;
        }
        if (!VLIBCFileSetKeyValue(extractDir + "/INFO", icon.key, Base64(data))) {
            ZLOGERR("Failed to save %s icon data for %s", icon.size, name.c_str());
            return false;
        }
    }
    return true;
}

// Replaces the target by the unpacked payload.
bool MovePayload(const PackageInfo& info, PKG_INSTALLATION_TYPE type, const std::string& extractDir,
                 const std::string& target) {
    if (!PMSRunTool(info, type, "/bin/rm", {"-rf", target})) {
        ZLOGERR("Failed to remove [%s]", target.c_str());
        return false;
    }
    if (!PMSRunTool(info, type, "/bin/mv", {"-f", extractDir + "/package", target})) {
        ZLOGERR("Failed to move package files [%s]", target.c_str());
        return false;
    }
    return true;
}

// Unpacks and vets; 0, or the result code of the failure (logged).
PKG_ERRCODE UnpackPackage(const std::string& packageFile, const std::string& extractDir,
                          PackageInfo& info) {
    const std::string tar = ZARNMachineProgram("/bin/tar");
    RunQuiet({ZARNMachineProgram("/bin/rm"), "-rf", PMSProgramPath(extractDir)}, "rm");
    if (!RunQuiet({ZARNMachineProgram("/bin/mkdir"), "-p", PMSProgramPath(extractDir + "/package")},
                  "mkdir")) {
        ZLOGERR("Failed to create install dir %s", extractDir.c_str());
        return PKG_ERR_SYSTEM;
    }
    std::vector<TarMember> members;
    std::string why;
    if (!PMSQarListVetted(packageFile, members, why) ||
        !RunQuiet({tar, "xf", PMSProgramPath(packageFile), "-C", PMSProgramPath(extractDir),
                   "--no-same-owner"},
                  "tar")) {
        ZLOGERR("Failed to extract package, %s", packageFile.c_str());
        return PKG_ERR_BAD_PACKAGE;
    }
    const std::string tgz = extractDir + "/package.tgz";
    if (!ZARNIsRegularFile(tgz)) {
        ZLOGERR("Failed to locate %s/package.tgz", extractDir.c_str());
        return PKG_ERR_BAD_PACKAGE;
    }
    if (!PMSLoadPKGInfoFile(extractDir, info, nullptr, ~0ULL)) {
        ZLOGERR("Failed to validate package INFO in %s", extractDir.c_str());
        return PKG_ERR_BAD_PACKAGE;
    }
    // The payload unpacks into the extract folder while its headers are vetted on the other
    // core: nothing of it runs or moves before both are done, and a refusal stops the
    // unpacking at once (the runner kills its child).
    ZARNUtils::ProcessRunner untar({tar, "xzf", PMSProgramPath(tgz), "-C",
                                    PMSProgramPath(extractDir + "/package"), "--no-same-owner"});
    unsigned long long total = 0;
    if (untar.startReading() < 0 || !PMSPayloadVet(tgz, ~0ULL, total, why) || untar.finish() != 0) {
        ZLOGERR("Failed to unpack package.tgz, %s", why.c_str());
        return PKG_ERR_BAD_PACKAGE;
    }
    // Before anything of the payload runs or moves.
    if (!PMSVetUnpackedPackage(extractDir, why)) {
        return PKG_ERR_BAD_PACKAGE;
    }
    return PKG_ERR_SUCCESS;
}

}  // namespace

bool PMSRunTool(const PackageInfo& info, PKG_INSTALLATION_TYPE type, const char* program,
                std::vector<std::string> args) {
    std::vector<std::string> argv = {ZARNMachineProgram(program)};
    for (std::string& arg : args) {
        argv.push_back(arg[0] == '/' ? PMSProgramPath(arg) : arg);
    }
    ZARNUtils::ProcessRunner runner(argv);
    if (PMSRunAndWriteScriptLog(info, type, runner, PKG_RUN_MODE_COMMAND) != 0) {
        ZLOGERR("Failed to run %s", runner.toString().c_str());
        return false;
    }
    return true;
}

bool PMSOpenPipeline(PackageManager& pm, const Common& common, PackageInfo& info) {
    if (!PackageManager::ExLock(PKG_LOCK_WAIT_SECONDS)) {
        pm.setResult(PKG_ERR_LOCK);
        return false;
    }
    const PKG_ERRCODE unpacked = UnpackPackage(common.packageFile, common.extractDir, info);
    if (unpacked != PKG_ERR_SUCCESS) {
        pm.setResult(unpacked);
        return false;
    }
    if (!PMSCheckPackageArchModelMatched(info)) {
        ZLOGERR("Unsupported system arch");
        pm.setResult(PKG_ERR_ARCH_MODEL);
        return false;
    }
    if (!pm.CanPackageStartInThisFirmware(info)) {
        ZLOGERR("Cannot start package [%s], version %s in this KOS version", info.name.c_str(),
                info.version.c_str());
        return false;
    }
    return true;
}

PipelineRun::PipelineRun(const PackageManager& pm, PKG_INSTALLATION_TYPE type,
                         const std::string& tmpDir, const std::string& packageFile,
                         const std::string& volume, const Json::Value* wizardValues,
                         const char* language, const char* userName)
    : wizard(wizardValues != nullptr ? *wizardValues : Json::Value()), preset(pm.getResult()) {
    common.extractDir = tmpDir + "/pkginstall";
    common.packageFile = packageFile;
    common.volume = volume;
    common.wizardValues = wizardValues != nullptr ? &wizard : nullptr;
    common.language = language;
    common.userName = userName;
    common.type = type;
}

PKG_ERRCODE PMSPlacePackage(PackageManager& pm, const Common& common, PackageInfo& info,
                            const std::string& target) {
    const bool install = common.type == PKG_INSTALLATION_INSTALL;
    if (!MovePayload(info, common.type, common.extractDir, target)) {
        return PKG_ERR_SYSTEM;
    }
    if (install) {
        PMSRunTool(info, common.type, "/bin/rm", {"-rf", PMSRegistryDir(info.name)});
    }
    if (!PackageManager::ExLock(PKG_LOCK_WAIT_SECONDS)) {
        ZLOGERR("Failed to lock, %s", info.name.c_str());
        return PKG_ERR_LOCK;
    }
    if (!RecheckExtractedInfo(common.packageFile, common.extractDir, info, install) ||
        !EmbedIcons(common.extractDir, info.name)) {
        return PKG_ERR_BAD_PACKAGE;
    }
    if (!pm.registerPackage(common.type, info, info.name, common.extractDir, target)) {
        ZLOGERR("Failed to register package %s", info.name.c_str());
        return PKG_ERR_SYSTEM;
    }
    return PKG_ERR_SUCCESS;
}

bool PMSPreinstAndPlace(PackageManager& pm, PipelineRun& run, PackageInfo& info,
                        const std::string& target, const std::string& oldVersion,
                        PKG_ERRCODE acquireFailure) {
    const Common& common = run.common;
    if (!PMSAcquireStep(pm, Resource::TIMING_PREINST, info, common.type, run.resp,
                        common.wizardValues, common.extractDir)) {
        pm.setResult(acquireFailure);
        return false;
    }
    if (!runInstallScript("preinst", info, common, run.resp, oldVersion)) {
        pm.setResult(PKG_ERR_SYSTEM);
        return false;
    }
    const PKG_ERRCODE placed = PMSPlacePackage(pm, common, info, target);
    if (placed != PKG_ERR_SUCCESS) {
        pm.setResult(placed);
        return false;
    }
    return true;
}

bool PMSRunPostScripts(const PackageInfo& info, const Common& common,
                       const ZARN::PkgUtils::WorkerResp& resp, const std::string& oldVersion) {
    return runInstallScript("postinst", info, common, resp, oldVersion) &&
           (!PMSUsesReplaceMechanism(info) ||
            runInstallScript("postreplace", info, common, resp, oldVersion)) &&
           (common.type != PKG_INSTALLATION_UPGRADE ||
            runInstallScript("postupgrade", info, common, resp, oldVersion));
}

bool runInstallScript(const std::string& script, const PackageInfo& info, const Common& common,
                      const ZARN::PkgUtils::WorkerResp& resp, const std::string& oldVersion) {
    const bool installed =
        script == "postinst" || script == "postupgrade" || script == "postreplace";
    const std::string base = installed ? "" : common.extractDir;
    const std::string path =
        (installed ? PMSRegistryDir(info.name) : common.extractDir) + "/scripts/" + script;
    if (!PMSCheckIsExec(path)) {
        return true;
    }
    ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(path)});
    runner.setArgv0(script);
    runner.addEnv("ZARNPKG_PKGINST_TEMP_DIR", ZARNPhysicalPath(common.extractDir + "/package"));
    if (common.type == PKG_INSTALLATION_UPGRADE) {
        runner.addEnv("ZARNPKG_OLD_PKGVER", oldVersion);
    }
    PMSPrepareScriptEnv(info, runner, common.language, &common.logFile, common.type,
                        common.wizardValues, common.volume.c_str(), common.packageFile.c_str(),
                        common.userName);
    if ((script == "preinst" || script == "postinst") && !resp.DumpEnv(runner)) {
        ZLOGERR("Failed to dump worker environments.[0x%04X %s:%d]", VLIBCErrGet(),
                VLIBCErrorGetFile(), VLIBCErrorGetLine());
    }
    if (!Privilege::SetIdentity(runner, info.name, script, base)) {
        ZLOGERR("Failed to set identity for %s [0x%04X %s:%d]", script.c_str(), VLIBCErrGet(),
                VLIBCErrorGetFile(), VLIBCErrorGetLine());
        return false;
    }
    const int status = PMSRunAndWriteScriptLog(info, common.type, runner, PKG_RUN_MODE_SCRIPT);
    if (status != 0) {
        ZLOGERR("Failed to run %s script for %s, %d", script.c_str(), info.name.c_str(), status);
        return false;
    }
    return true;
}

int PMSRunUninstallScript(const std::string& script, const PackageInfo& info,
                          const std::string& logFile, PKG_INSTALLATION_TYPE type,
                          const Json::Value* wizardValues, const char* language,
                          const char* userName, const ZARN::PkgUtils::WorkerResp* resp) {
    const std::string path = PMSRegistryDir(info.name) + "/scripts/" + script;
    if (!PMSCheckIsExec(path)) {
        return 0;
    }
    ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(path)});
    runner.setArgv0(script);
    PMSPrepareScriptEnv(info, runner, language, &logFile, type, wizardValues, nullptr, nullptr,
                        userName);
    if (resp != nullptr) {
        resp->DumpEnv(runner);
    }
    // The package goes either way: a script that can't take its identity runs as it is.
    if (!Privilege::SetIdentity(runner, info.name, script, "")) {
        ZLOGERR("Failed to set identity to %s for %s [0x%04X %s:%d]", script.c_str(),
                info.name.c_str(), VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
        ZLOGWARN(
            "Ignore set identify error since it is upgrade/repair or we cannot fix it "
            "forcely");
    }
    return PMSRunAndWriteScriptLog(info, type, runner, PKG_RUN_MODE_SCRIPT);
}

bool PMSAcquireStep(PackageManager& pm, Resource::TIMING timing, const PackageInfo& info,
                    PKG_INSTALLATION_TYPE type, ZARN::PkgUtils::WorkerResp& resp,
                    const Json::Value* wizardValues, const std::string& prefix) {
    if (Resource::Acquire(timing, info, type, resp, wizardValues, prefix)) {
        return true;
    }
    ZLOGERR("Failed to acquire resource %s install %s [0x%04X %s:%d]",
            timing == Resource::TIMING_PREINST ? "before" : "after", info.name.c_str(),
            VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
    pm.insertJsonParam("worker_msg", resp.GetErrJsonArray());
    return false;
}

bool PMSCheckBrokenReplaced(PackageManager& pm, const PackageInfo& info, const char* language) {
    std::vector<std::string> broken;
    std::vector<std::string> replaced;
    const PackageInfoExtraPrivate& extra = *info.extra.get();
    const bool breaks = pm.areDepPkgsInstalled(extra.install_break_packages, broken, language);
    const bool replaces =
        pm.areDepPkgsInstalled(extra.install_replace_packages, replaced, language);
    if (!breaks && !replaces) {
        return true;
    }
    pm.insertMapParam("brokenPkgs", joinStringArray(broken, ", "));
    if (!replaced.empty()) {
        pm.insertMapParam("replacedPkgs", joinStringArray(replaced, ", "));
    }
    return false;
}

bool PMSUsesReplaceMechanism(const PackageInfo& info) {
    return !info.extra.get()->use_deprecated_replace_mechanism;
}

bool PMSFinishInstall(PackageManager& pm, const PackageInfo& info, const char* language,
                      const char* userName) {
    pm.post_install(info);
    ZARNUnlink(PMSGetProgressPath(info.name));
    ZARNUnlink(PMSRegistryDir(info.name) + "/installing");
    if (!PMSUsesReplaceMechanism(info)) {
        return true;
    }
    DepPkgVector replaced = info.extra.get()->install_replace_packages;
    return pm.uninstallReplacedPkgs(replaced, language, userName);
}

void PMSCleanExtractDir(PackageManager& pm, const PackageInfo& info, PKG_INSTALLATION_TYPE type,
                        const std::string& extractDir) {
    if (pm.getResult() != PKG_ERR_LOCK && ZARNIsDir(extractDir)) {
        PMSRunTool(info, type, "/bin/rm", {"-rf", extractDir});
    }
}

}  // namespace ZARNPackageTool
