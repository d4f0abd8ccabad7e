#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"
#include "core/packageinfo.h"

namespace ZARNUtils {
class ProcessRunner;
}

namespace ZARNPackageTool {

// Text of an action type for the logs; anything unknown is a system trigger.
ZARNPKG_API std::string parseInstallTypeToStr(PKG_INSTALLATION_TYPE type);

// The value of ZARNPKG_PKG_STATUS for an action type; empty for a type without one.
ZARNPKG_API std::string PMSGetPkgStatusText(PKG_INSTALLATION_TYPE type);

// The file through which a script reports its progress (logical path).
ZARNPKG_API std::string PMSGetProgressPath(const std::string& name);

// What a pipeline fixes once and hands to every script it runs.
struct Common {
    std::string extractDir;   // where the archive was unpacked (<tmp>/pkginstall), logical
    std::string packageFile;  // the QAR file being installed, logical
    std::string volume;       // target volume, e.g. /volume1
    Json::Value* wizardValues = nullptr;
    const char* language = nullptr;
    const char* userName = nullptr;
    PKG_INSTALLATION_TYPE type = PKG_INSTALLATION_NONE;
    std::string logFile;  // message file of the action, logical
};

// Writes the package variables into the caller's own process environment, for callers that run
// a package script by themselves. Paths are given as the machine sees them.
ZARNPKG_API void PMSPrepareEnv(const PackageInfo& info, const char* language, const char* volume,
                               const char* packageFile);

// Fills the environment of one runner for a package script. Names that the action leaves
// without a value are removed from the process environment and from the child's, so that
// nothing of an earlier action is inherited. Paths reach the script as the machine sees them,
// with ZARNPKG_ROOT naming the system root when it is not "/".
ZARNPKG_API void PMSPrepareScriptEnv(const PackageInfo& info, ZARNUtils::ProcessRunner& runner,
                                     const char* language, const std::string* logFile,
                                     PKG_INSTALLATION_TYPE type, const Json::Value* wizardValues,
                                     const char* volume, const char* packageFile,
                                     const char* userName);

// Removes every package variable and the last wizard values from the process environment.
ZARNPKG_API void CleanAllEnv();

// The wizard values that the last preparation gave (an object, empty after CleanAllEnv).
ZARNPKG_API const Json::Value& PMSGetWizardEnv();

// True when `name` can be the name of an environment variable: not empty, no "=", no NUL.
ZARNPKG_API bool PMSIsValidEnvName(const std::string& name);

// Prepares the runner of a wizard script for an action of type 1 (install), 2 (upgrade: the
// installed record is used and ZARNPKG_OLD_PKGVER set) or 4 (uninstall: no package file). The
// script writes its answer into `logFile`. False for any other type or when an upgrade finds
// no installed record.
ZARNPKG_API bool PMSPrepareWizardScriptEnv(PKG_INSTALLATION_TYPE type, const PackageInfo& info,
                                           ZARNUtils::ProcessRunner& runner,
                                           const std::string& logFile, const char* language,
                                           const char* volume, const char* packageFile,
                                           const char* userName, const Json::Value* wizardValues);

}  // namespace ZARNPackageTool
