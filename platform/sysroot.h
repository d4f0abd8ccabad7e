#pragma once

#include <string>

#include "platform/export.h"

namespace ZARNPackageCore {

// The system root that every logical path of the library lives under; "/" by default, or the
// value of ZARNPKG_ROOT. Set it before any other call.
ZARNHOST_API void SetSystemRoot(const std::string& path);
ZARNHOST_API const std::string& GetSystemRoot();

}  // namespace ZARNPackageCore

// Logical path (as the system names it) to the path on this machine, and back. A physical path
// outside the root is returned unchanged by ZARNLogicalPath.
ZARNHOST_API std::string ZARNPhysicalPath(const std::string& logical);
ZARNHOST_API std::string ZARNLogicalPath(const std::string& physical);

// A path that a person named on a command line (physical, or relative to the working folder) as
// the library must see it: logical when it lies inside the root, relative to the working folder
// when it lies outside, so that no mapping changes it.
ZARNHOST_API std::string ZARNCommandLinePath(const std::string& path);
