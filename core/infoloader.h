#pragma once

#include <string>

#include "core/packageinfo.h"

namespace ZARNPackageTool {

// The INFO loader with the language already worked out: `langGiven` tells whether the caller
// named the language (which decides whether "description_enu" is read as the English text).
// Scans resolve the system language once and pass it here as not given. With `missing` given,
// `dir` is known to be a folder, `info` is a fresh record, and *missing tells a folder without
// INFO from a bad INFO.
bool PMSLoadPKGInfoFileImpl(const std::string& dir, PackageInfo& info, const char* lang,
                            bool langGiven, unsigned long long mask, bool* missing);

// Key "language" of /etc/zarninfo.conf, or "".
ZARNPKG_API std::string PMSSystemLanguage();

}  // namespace ZARNPackageTool
