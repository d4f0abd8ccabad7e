#pragma once

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {

// Gives the right to open a newly installed package's desktop applications (`apps`, blank
// separated) to the administrators, and to `user` (may be null) when that user is one of them.
// `lang` null is "enu". Nothing here fails an install: a failed grant is only logged.
ZARNPKG_API void PMSSetAppPrivilege(const char* user, const std::string& apps, const char* lang);

}  // namespace ZARNPackageTool
