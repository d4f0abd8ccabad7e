#pragma once

#include <string>

#include "core/export.h"

namespace ZARNPackageCore {

// The system root that every path of the library lives under: "/" by default, or the value of
// ZARNPKG_ROOT. Set it before any other call. The host library holds it, so a program that sets
// it links that library too (zarnpkg.pc names both).
ZARNPKG_API void SetSystemRoot(const std::string& path);
ZARNPKG_API const std::string& GetSystemRoot();

}  // namespace ZARNPackageCore
