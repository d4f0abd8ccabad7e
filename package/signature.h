#pragma once

#include <string>
#include <vector>

#include "core/export.h"

namespace ZARNPackageTool {

constexpr const char* PMS_TRUST_LEVEL_KEY = "pkg_source_trust_level";
constexpr const char* PMS_CODESIGN_TOOL = "/usr/zarn/bin/codesign.php";
constexpr const char* PMS_PHP = "/usr/bin/php";

// The trust level that the setting's text names: 0, 2, or 1 for anything else.
ZARNPKG_API int PMSParseTrustLevel(const std::string& text);
// Answer of the signature tool's exit code at a trust level (0x11f is the only pass).
ZARNPKG_API int PMSSignatureCodeFromExit(int exitCode, int trustLevel);
// The argv that runs the tool on `file`: the machine's php, the tool inside the root, and the
// file as an absolute machine path. False when the tool isn't installed or the working folder
// can't be had.
ZARNPKG_API bool PMSSignatureToolArgv(const char* file, std::vector<std::string>& argv);
// Runs the tool by the given argv and maps its exit status; the program is argv[0].
ZARNPKG_API int PMSRunSignatureTool(const std::vector<std::string>& argv, int trustLevel);

}  // namespace ZARNPackageTool
