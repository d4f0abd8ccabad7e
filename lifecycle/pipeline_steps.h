#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "core/errcode.h"
#include "core/packageinfo.h"
#include "lifecycle/script_env.h"
#include "pkgutils/worker.h"
#include "resource/timing.h"

// The steps that install, upgrade and uninstall share.
namespace ZARNPackageTool {

class PackageManager;

constexpr const char* PKG_UPGRADE_BOOTUP_FLAG = "/var/.UpgradeBootup";

// Runs one of the machine's tools on logical paths through the package log; false, logged,
// when it fails.
bool PMSRunTool(const PackageInfo& info, PKG_INSTALLATION_TYPE type, const char* program,
                std::vector<std::string> args);

// The first steps of an install or upgrade: the lock; the QAR unpacked into the extract folder
// (the control files there, the payload in its package/ folder) with its INFO loaded into
// `info`, the archive and its payload vetted before they are written and the unpacked payload
// again before anything of it runs; the package's fit to this machine's architecture, model and
// OS version. False with the result set on `pm`.
bool PMSOpenPipeline(PackageManager& pm, const Common& common, PackageInfo& info);

// What one install or upgrade carries from step to step: the facts that its scripts get (with
// their own copy of the wizard answers) and the workers' answers.
struct PipelineRun {
    PipelineRun(const PackageManager& pm, PKG_INSTALLATION_TYPE type, const std::string& tmpDir,
                const std::string& packageFile, const std::string& volume,
                const Json::Value* wizardValues, const char* language, const char* userName);
    PipelineRun(const PipelineRun&) = delete;
    PipelineRun& operator=(const PipelineRun&) = delete;

    Json::Value wizard;
    Common common;  // points to `wizard`
    ZARN::PkgUtils::WorkerResp resp;
    const PKG_ERRCODE preset;  // the manager's code at the start, shown again after a success
    bool success = false;
    unsigned long long restartMask = 0;
};

// From the unpacked package to the registry: the payload replaces the target, the lock is
// taken again (scripts and stops may have let it go), the control files are checked again,
// the icons embedded and the package registered. 0, or the result code of the failure.
PKG_ERRCODE PMSPlacePackage(PackageManager& pm, const Common& common, PackageInfo& info,
                            const std::string& target);

// The resources of "preinst" (`acquireFailure` when they fail), the "preinst" script (0x107)
// and PMSPlacePackage: false with the result set on `pm`.
bool PMSPreinstAndPlace(PackageManager& pm, PipelineRun& run, PackageInfo& info,
                        const std::string& target, const std::string& oldVersion,
                        PKG_ERRCODE acquireFailure);

// "postinst", then "postreplace" with the current replace mechanism, then "postupgrade" in an
// upgrade; false at the first that fails.
bool PMSRunPostScripts(const PackageInfo& info, const Common& common,
                       const ZARN::PkgUtils::WorkerResp& resp, const std::string& oldVersion);

// Runs a lifecycle script of the package: "postinst", "postupgrade" and "postreplace" from the
// registry, the others from the extract folder. A script that isn't there succeeds.
bool runInstallScript(const std::string& script, const PackageInfo& info, const Common& common,
                      const ZARN::PkgUtils::WorkerResp& resp, const std::string& oldVersion);

// Runs an installed package's own "preuninst" or "postuninst" with the identity of the package.
// -1 when it could not run, 0 when it isn't there.
int PMSRunUninstallScript(const std::string& script, const PackageInfo& info,
                          const std::string& logFile, PKG_INSTALLATION_TYPE type,
                          const Json::Value* wizardValues, const char* language,
                          const char* userName, const ZARN::PkgUtils::WorkerResp* resp);

// Resource::Acquire for "preinst" or "postinst"; a failure is logged with the last error and
// gives the manager the workers' messages as "worker_msg".
bool PMSAcquireStep(PackageManager& pm, Resource::TIMING timing, const PackageInfo& info,
                    PKG_INSTALLATION_TYPE type, ZARN::PkgUtils::WorkerResp& resp,
                    const Json::Value* wizardValues, const std::string& prefix);

// The packages that the new one breaks or replaces and that are installed: false after setting
// "brokenPkgs" and "replacedPkgs" on the manager when there are some.
bool PMSCheckBrokenReplaced(PackageManager& pm, const PackageInfo& info, const char* language);

// The end of a good install or upgrade: post_install, the progress file and the install flag
// go, and the packages replaced by the current mechanism are removed. False when that removal
// fails.
bool PMSFinishInstall(PackageManager& pm, const PackageInfo& info, const char* language,
                      const char* userName);

// Whether the package uses the current replace mechanism (scripts "prereplace" and
// "postreplace" and removal of the replaced packages).
bool PMSUsesReplaceMechanism(const PackageInfo& info);

// Removes the extract folder unless the pipeline ended on the lock, when another process may
// be using it.
void PMSCleanExtractDir(PackageManager& pm, const PackageInfo& info, PKG_INSTALLATION_TYPE type,
                        const std::string& extractDir);

}  // namespace ZARNPackageTool
