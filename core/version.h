#pragma once

#include <set>
#include <string>
#include <vector>

#include "core/export.h"
#include "core/packageinfo.h"

namespace ZARNPackageTool {

// Pads `version` with ".0" so that it has as many dots as `other`, keeping its own suffix.
ZARNPKG_API bool NormalizeVersion(const char* version, const char* other, char** out,
                                  int* capacity);
ZARNPKG_API bool NormalizeVersion(std::string version, std::string other, std::string& out);

// Sign of (a - b) over versions compared number by number after normalising both; a missing
// position counts 0. Returns false when normalising fails.
bool PMSVersionSign(const std::string& a, const std::string& b, int& sign);
// Whether a sign of (a - b) as above satisfies "a op b"; PKG_VER_ANY and unknown operators
// always do.
bool PMSVersionSignMeets(int sign, PKG_VERSION_COMPOP op);

// The running OS: the compiled-in major, minor and build, and the sub-build of
// /etc.defaults/VERSION.
ZARNPKG_API int PMSGetOSSubBuild();
// Sign of the running OS minus the bound; a bound of all zeros gives 0.
ZARNPKG_API int PMSCompareOSWithBound(const OSVersionNumbers& bound, int nano);

ZARNPKG_API bool PMSCheckPackageVersionVaild(PackageInfo& info);
ZARNPKG_API int PMSComparePackageAndOSVersion(PackageInfo& info);

// Architecture identifiers: 0 unknown to the table (or unavailable), 1 an unknown machine,
// 1000 and above groups.
constexpr unsigned long PKG_ARCH_UNAVAILABLE = 0;
constexpr unsigned long PKG_ARCH_UNKNOWN = 1;
constexpr unsigned long PKG_ARCH_GROUP_NOARCH = 1000;
ZARNPKG_API unsigned long PMSMapSystemArch(const char* name);
ZARNPKG_API std::string PMSGetSystemArchString();
ZARNPKG_API unsigned long PMSGetSystemArch();
ZARNPKG_API const ArchIdSet& PMSGetArchGroup(unsigned long group);
ZARNPKG_API void PMSArchSetInsert(const std::vector<std::string>& names, ArchIdSet& out);
ZARNPKG_API bool PMSCheckArchMatched(unsigned long arch, const std::vector<std::string>& names,
                                     const ArchIdSet& ids);
ZARNPKG_API bool PMSCheckPackageArchMatched(const PackageInfo& info);
ZARNPKG_API bool PMSCheckPackageArchMatched(const std::vector<std::string>& names);
ZARNPKG_API bool PMSCheckPackageModelMatched(const PackageInfo& info);
ZARNPKG_API bool PMSCheckPackageArchModelMatched(const PackageInfo& info);

// The firmware limit list: 0 allowed, -1 failure, -2 refused by version, -3 "system", -4 "non".
constexpr const char* PKG_LIMIT_FILE = "/etc.defaults/zarnpackageslimit.conf";
ZARNPKG_API int PMSThirdPartyCheckLimit(const char* name, const char* version, std::string& limit);
ZARNPKG_API int PMSThirdPartyCheckLimit(const char* name, const char* version);

// Names that may be offered even when marked not installable.
ZARNPKG_API bool PMSIsInInstallAllowList(const std::string& name);

}  // namespace ZARNPackageTool
