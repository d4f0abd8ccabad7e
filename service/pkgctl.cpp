#include "service/pkgctl.h"

#include <cstdlib>

#include "core/helpers.h"
#include "core/packageinfo.h"
#include "lifecycle/script_env.h"
#include "lifecycle/script_log.h"
#include "platform/errors.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/scope_guard.h"
#include "platform/sysroot.h"
#include "privilege/privilege.h"
#include "service/extra_env.h"

namespace ZARNPackageTool {
namespace Service {

bool PkgctlIsAction(const std::string& action) {
    for (const char* known : {"start", "stop", "setup", "teardown", "swap-on"}) {
        if (action == known) {
            return true;
        }
    }
    return false;
}

int PkgctlRun(const std::string& action, const std::string& package) {
    if (!PkgctlIsAction(action) || !PMSCheckName(package.c_str(), "/")) {
        ZLOGERR("Refused zarnpkgctl %s for the package %s", action.c_str(), package.c_str());
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return 1;
    }
    if (action == "swap-on") {
        return 0;
    }
    PKG_INSTALLATION_TYPE type = PKG_INSTALLATION_NONE;
    char* language = nullptr;
    char* userName = nullptr;
    ZARNUtils::ScopeGuard release([&] {
        free(language);
        free(userName);
    });
    // Read first, so that the file of this action never reaches a later one.
    if (!LoadExtraEnv(package, &type, &language, &userName)) {
        return 1;
    }
    const std::string dir = "/var/packages/" + package;
    const std::string script = dir + "/scripts/start-stop-status";
    PackageInfo info;
    if (!PMSLoadPKGInfoFile(dir, info, language, PKG_MASK_ALL)) {
        ZLOGERR("Failed to load the record of %s %s", package.c_str(),
                ZARNLastErrorSuffix().c_str());
        return 1;
    }
    if (!PMSCheckIsExec(script)) {
        return 0;
    }
    ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(script), action});
    runner.setArgv0("start-stop-status");
    PMSPrepareScriptEnv(info, runner, language, nullptr, type, nullptr, nullptr, nullptr, userName);
    if (!Privilege::SetIdentity(runner, package, "start-stop-status", "")) {
        ZLOGERR("Failed to set identity for %s %s", package.c_str(), ZARNLastErrorSuffix().c_str());
        return 1;
    }
    // The script's output joins the package log, between the lines that name the action.
    const int status = PMSRunAndWriteScriptLog(info, type, runner, PKG_RUN_MODE_SCRIPT);
    if (status != 0) {
        ZLOGERR("Failed to run start-stop-status %s for %s, %d", action.c_str(), package.c_str(),
                status);
    }
    return status < 0 ? 1 : status;
}

}  // namespace Service
}  // namespace ZARNPackageTool
