#pragma once

#include <string>
#include <vector>

namespace ZARNPackageTool {

// Sends a notification of the package manager to the administrators: runs the desktop's
// notification tool as /usr/zarn/bin/zarnkosnotify -c ZARN.WUI.PkgManApp.Instance -t false
// @administrators tree:leaf_packagemanage followed by `words` (a message key and its
// arguments, or -e and a ready text). False, logged, when the tool can't run or fails; a
// notification never fails the action that sends it.
bool PMSNotifyAdministrators(const std::vector<std::string>& words);

}  // namespace ZARNPackageTool
