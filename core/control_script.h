#pragma once

#include <string>

#include "core/packageinfo.h"

namespace ZARNPackageTool {

// Runs an installed package's `script` ("start-stop-status") with the argument `action`, the
// script environment and the package's identity for that action, and captures its output.
// The lifecycle, which owns scripts and identities, defines it; the status query calls it.
// The exit status, or -1 when nothing ran; `identityFailed` then tells whether the identity was
// the cause.
int PMSRunControlScript(const std::string& name, const std::string& script, const PackageInfo& info,
                        const char* action, std::string& output, bool& identityFailed);

}  // namespace ZARNPackageTool
