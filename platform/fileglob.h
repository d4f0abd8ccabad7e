#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// Expands a logical pattern inside the system root with glob(3) and the given flags; the
// matches (and, with GLOB_NOCHECK, the unmatched pattern) come back as logical paths. The
// result is that of glob(3): 0, GLOB_NOMATCH, GLOB_ABORTED or GLOB_NOSPACE.
ZARNHOST_API int ZARNGlob(const std::string& pattern, int flags, std::vector<std::string>& out);
