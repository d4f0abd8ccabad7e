#pragma once

#include <string>

#include "core/export.h"
#include "core/packageinfo.h"

namespace ZARNPackageTool {
namespace Service {

// The action, language and user of a package's next start or stop, handed to zarnpkgctl
// through /tmp/zarnpkgctl.tmp-<package>. Written before the service call, read once.
ZARNPKG_API std::string ExtraEnvPath(const std::string& package);
// Writes the file: "action" always, "language" and "username" when given. A failed write
// leaves no file.
ZARNPKG_API void DumpExtraEnv(const std::string& package, PKG_INSTALLATION_TYPE type,
                              const char* language, const char* userName);
// Reads the file and removes it. Without a file the type becomes 0 and the result is true.
// `language` and `userName` may be null; when given they must hold null and receive copies
// that the caller frees.
ZARNPKG_API bool LoadExtraEnv(const std::string& package, PKG_INSTALLATION_TYPE* type,
                              char** language, char** userName);

}  // namespace Service
}  // namespace ZARNPackageTool
