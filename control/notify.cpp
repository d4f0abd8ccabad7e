#include "control/notify.h"

#include "core/helpers.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/sysroot.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kNotifyTool = "/usr/zarn/bin/zarnkosnotify";

}  // namespace

bool PMSNotifyAdministrators(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {ZARNPhysicalPath(kNotifyTool),
                                     "-c",
                                     "ZARN.WUI.PkgManApp.Instance",
                                     "-t",
                                     "false",
                                     "@administrators",
                                     "tree:leaf_packagemanage"};
    argv.insert(argv.end(), words.begin(), words.end());
    ZARNUtils::ProcessRunner runner(argv);
    runner.captureOutput();
    // The tool is the root's own: it finds the root in the environment that SetSystemRoot keeps.
    const int ret = runner.run();
    if (ret != 0) {
        ZLOGERR("Failed to run %s %s, ret=%d", kNotifyTool, joinStringArray(words, " ").c_str(),
                ret);
        return false;
    }
    return true;
}

}  // namespace ZARNPackageTool
