#pragma once

#include "core/export.h"

namespace ZARNPackageTool {

// Whether the md5 of `file` (by /usr/bin/openssl md5) equals `md5` exactly.
ZARNPKG_API bool PMSCompareCheckSum(const char* file, const char* md5);

}  // namespace ZARNPackageTool
