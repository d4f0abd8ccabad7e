#include "core/control_script.h"

#include "lifecycle/script_env.h"
#include "platform/process.h"
#include "platform/sysroot.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {

int PMSRunControlScript(const std::string& name, const std::string& script, const PackageInfo& info,
                        const char* action, std::string& output, bool& identityFailed) {
    identityFailed = false;
    ZARNUtils::ProcessRunner runner({ZARNPhysicalPath(script), action});
    runner.setArgv0("start-stop-status");
    runner.captureOutput();
    PMSPrepareScriptEnv(info, runner, nullptr, nullptr, PKG_INSTALLATION_NONE, nullptr, nullptr,
                        nullptr, nullptr);
    if (!Privilege::SetIdentity(runner, name, action, "")) {
        identityFailed = true;
        return -1;
    }
    const int status = runner.run();
    output = runner.getCapturedOutput();
    return status;
}

}  // namespace ZARNPackageTool
