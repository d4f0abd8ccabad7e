#pragma once

#include <string>

#include "core/export.h"

namespace ZARN {
namespace PkgUtils {

// True when `relpath` names something inside `root` by its words alone: not empty, not
// absolute, no ".." component, no NUL. Links are not looked at.
ZARNPKG_API bool IsLegalRelPath(const std::string& root, const std::string& relpath);

// The full (logical) path of `relpath` under `root`, with the links of the existing part
// resolved. False, with the error slot set, for a path that is not legal or whose links lead
// outside `root`; a missing tail is joined as it stands, so that opening it reports it missing.
ZARNPKG_API bool ResolveRelPath(const std::string& root, const std::string& relpath,
                                std::string& fullpath);

}  // namespace PkgUtils
}  // namespace ZARN
