#pragma once

#include <string>

#include "core/export.h"

namespace ZARN {
namespace PkgUtils {

// Copies a configuration file of a package (logical paths) to `dst` with `mode`, by a temporary
// file beside `dst` and a rename. With `overwrite` false an existing `dst` is left alone and the
// result is false with error 0x800.
ZARNPKG_API bool InstallConfigFile(const std::string& src, const std::string& dst,
                                   unsigned int mode, bool overwrite);

// Installs an executable (mode 0755) the same way.
ZARNPKG_API bool InstallExecutable(const std::string& src, const std::string& dst, bool overwrite);

}  // namespace PkgUtils
}  // namespace ZARN
