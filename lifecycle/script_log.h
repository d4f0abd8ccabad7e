#pragma once

#include <string>

#include "core/export.h"
#include "core/packageinfo.h"

namespace ZARNUtils {
class ProcessRunner;
}

namespace ZARNPackageTool {

constexpr const char* PKG_SYSTEM_LOG = "/var/log/zarnpkg.log";
constexpr const char* PKG_LOG_DIR = "/var/log/packages";

// Mode values of the runs: package scripts and plain commands.
constexpr int PKG_RUN_MODE_SCRIPT = 144;
constexpr int PKG_RUN_MODE_COMMAND = -1;

// "%Y/%m/%d %H:%M:%S", a tab and the text; the stamp is empty when the time can't be had.
ZARNPKG_API std::string ToStringWithCurrentTime(const std::string& text);
// Appends a stamped line to /var/log/zarnpkg.log; null or empty text does nothing.
ZARNPKG_API void PMSWriteSysLog(const char* text);
// The whole text of a message file, trimmed; empty when it can't be read.
ZARNPKG_API std::string PMSReadPackageLog(const std::string& path);
// The package log of a package (logical path).
ZARNPKG_API std::string PMSPackageLogPath(const std::string& name);

// Runs a prepared runner with its output going to the package log, between a Begin and an End
// line in both the package log and the system log. Returns the exit status (-1: did not run).
ZARNPKG_API int PMSRunAndWriteScriptLog(const PackageInfo& info, PKG_INSTALLATION_TYPE type,
                                        ZARNUtils::ProcessRunner& runner, int mode);

}  // namespace ZARNPackageTool
