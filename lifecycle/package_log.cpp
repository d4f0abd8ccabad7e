#include "core/packagemanager.h"
#include "lifecycle/script_env.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/sysroot.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {

std::string PackageManager::getPackageLog(const std::string& name, bool quiet) {
    PackageInfo info;
    const std::string script = getServiceScript(name, info);
    if (script.empty()) {
        return "";
    }
    ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(script), "log"});
    runner.setArgv0("start-stop-status");
    runner.captureOutput();
    PMSPrepareScriptEnv(info, runner, nullptr, nullptr, PKG_INSTALLATION_NONE, nullptr, nullptr,
                        nullptr, nullptr);
    if (!Privilege::SetIdentity(runner, name, "log", "")) {
        ZLOGERR("Failed to set identity for %s %s", name.c_str(), ZARNLastErrorSuffix().c_str());
        setResult(PKG_ERR_BAD_PACKAGE);
        return "";
    }
    if (runner.run() != 0) {
        if (!quiet) {
            ZLOGERR("Failed to query package status, %s", name.c_str());
            setResult(PKG_ERR_SYSTEM);
        }
        return "";
    }
    std::string text = runner.getCapturedOutput();
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    setResult(PKG_ERR_SUCCESS);
    return text;
}

std::string PackageManager::getPackageLog(const std::string& name) {
    return getPackageLog(name, false);
}

}  // namespace ZARNPackageTool
