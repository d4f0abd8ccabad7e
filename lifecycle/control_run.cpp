#include "core/control_script.h"

#include "lifecycle/script_env.h"
#include "platform/sysroot.h"
#include "privilege/privilege.h"

namespace ZARNPackageTool {

std::unique_ptr<ZARNUtils::ProcessRunner> PMSControlScriptRunner(const std::string& name,
                                                                 const std::string& script,
                                                                 const PackageInfo& info,
                                                                 const char* action) {
    auto runner = std::make_unique<ZARNUtils::ProcessRunner>(
        std::vector<std::string>{ZARNPhysicalPath(script), action});
    runner->setArgv0("start-stop-status");
    runner->captureOutput();
    PMSPrepareScriptEnv(info, *runner, nullptr, nullptr, PKG_INSTALLATION_NONE, nullptr, nullptr,
                        nullptr, nullptr);
    if (!Privilege::SetIdentity(*runner, name, action, "")) {
        return nullptr;
    }
    return runner;
}

int PMSRunControlScript(const std::string& name, const std::string& script, const PackageInfo& info,
                        const char* action, std::string& output, bool& identityFailed) {
    const auto runner = PMSControlScriptRunner(name, script, info, action);
    identityFailed = runner == nullptr;
    if (identityFailed) {
        return -1;
    }
    const int status = runner->run();
    output = runner->getCapturedOutput();
    return status;
}

}  // namespace ZARNPackageTool
