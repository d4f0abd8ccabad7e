#pragma once

#include <memory>
#include <string>

#include "core/packageinfo.h"
#include "platform/process.h"

namespace ZARNPackageTool {

// Runs an installed package's `script` ("start-stop-status") with the argument `action`, the
// script environment and the package's identity for that action, and captures its output.
// The lifecycle, which owns scripts and identities, defines it; the status query calls it.
// The exit status, or -1 when nothing ran; `identityFailed` then tells whether the identity was
// the cause.
int PMSRunControlScript(const std::string& name, const std::string& script, const PackageInfo& info,
                        const char* action, std::string& output, bool& identityFailed);

// The same run prepared and not started, for a caller that runs many at once: null when the
// identity could not be set (logged).
std::unique_ptr<ZARNUtils::ProcessRunner> PMSControlScriptRunner(const std::string& name,
                                                                 const std::string& script,
                                                                 const PackageInfo& info,
                                                                 const char* action);

}  // namespace ZARNPackageTool
