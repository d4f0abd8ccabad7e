#pragma once

#include <string>
#include <vector>

#include "core/export.h"
#include "core/packageinfo.h"

namespace ZARNPackageTool {

// The wizard files that may serve an action, relative to a package folder, in the order they
// are tried: "<base>_<lang>.sh", "<base>.sh", "<base>_<lang>", "<base>". Without a language the
// language forms are left out.
ZARNPKG_API std::vector<std::string> PMSUIFileCandidates(PKG_INSTALLATION_TYPE type,
                                                         const char* lang);

}  // namespace ZARNPackageTool
