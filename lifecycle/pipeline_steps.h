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

// Unpacks the QAR into `extractDir` (the control files there, the payload in its package/
// folder) and loads its INFO into `info`. The archive and its payload are vetted before they
// are written, and the unpacked payload again before anything of it runs: 0, or the result
// code of the failure (logged).
PKG_ERRCODE PMSUnpackPackage(const std::string& packageFile, const std::string& extractDir,
                             PackageInfo& info);

// A script may have damaged the unpacked control files: INFO is read again, from a fresh
// extraction of INFO and conf/ when it is missing, empty or (with `loadFirst`) unreadable.
bool PMSRecheckExtractedInfo(const std::string& packageFile, const std::string& extractDir,
                             PackageInfo& info, bool loadFirst);

// Stores the package's icons in its unpacked INFO as base64 text.
bool PMSEmbedIcons(const std::string& extractDir, const std::string& name);

// Replaces the target by the unpacked payload.
bool PMSMovePayload(const PackageInfo& info, PKG_INSTALLATION_TYPE type,
                    const std::string& extractDir, const std::string& target);

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

// The names of a list of records, joined by ", ".
std::string PMSJoinNames(const std::vector<PackageInfo>& records);

}  // namespace ZARNPackageTool
