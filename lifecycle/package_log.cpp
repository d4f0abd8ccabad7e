#include "core/control_script.h"
#include "core/packagemanager.h"
#include "platform/log.h"

namespace ZARNPackageTool {

std::string PackageManager::getPackageLog(const std::string& name, bool quiet) {
    PackageInfo info;
    const std::string script = getServiceScript(name, info);
    if (script.empty()) {
        return "";
    }
    bool identityFailed = false;
    std::string text;
    const int ret = PMSRunControlScript(name, script, info, "log", text, identityFailed);
    if (identityFailed) {
        ZLOGERR("Failed to set identity for %s %s", name.c_str(), ZARNLastErrorSuffix().c_str());
        setResult(PKG_ERR_BAD_PACKAGE);
        return "";
    }
    if (ret != 0) {
        if (!quiet) {
            ZLOGERR("Failed to query package status, %s", name.c_str());
            setResult(PKG_ERR_SYSTEM);
        }
        return "";
    }
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
