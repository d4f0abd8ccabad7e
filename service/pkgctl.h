#pragma once

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {
namespace Service {

// What the generated job of a package asks of zarnpkgctl: "start", "stop", "setup" and
// "teardown" run the package's start-stop-status with that word, the script environment, the
// action, language and user left by DumpExtraEnv, and the package's identity for
// "start-stop-status"; "swap-on" has nothing to do on this host. Returns the script's exit
// status (0 when the package has no script), or 1 when it could not run.
ZARNPKG_API int PkgctlRun(const std::string& action, const std::string& package);
// True for the actions that PkgctlRun knows.
ZARNPKG_API bool PkgctlIsAction(const std::string& action);

}  // namespace Service
}  // namespace ZARNPackageTool
