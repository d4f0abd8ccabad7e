#pragma once

#include <json/json.h>

#include <string>

#include "core/export.h"
#include "core/packageinfo.h"

namespace ZARNPackageTool {

// The three text forms of dependency lists.

// "pkgA>=1.2:pkgB:pkgC<3": items split at ":", each at its operator searched from the end.
ZARNPKG_API void PMSExplodeDepPKGString(const char* text, DepPkgVector& out);
// conf/PKG_DEPS and conf/PKG_CONX: a section per related package. 0, or -1 on failure.
ZARNPKG_API int PMSLoadDepConfFile(const char* path, DepPkgVector& out);
// The package server's form: {name: {operator or key: version}}.
ZARNPKG_API int PMSParseDepJSON(const Json::Value& value, DepPkgVector& out);
// 0 for empty text, -1 when the text is no JSON, else PMSParseDepJSON.
ZARNPKG_API int PMSParseDepJSONString(const std::string& text, DepPkgVector& out);

// The text of an operator ("" for any version).
ZARNPKG_API const char* PMSDepOperatorText(PKG_VERSION_COMPOP op);

ZARNPKG_API DepPkgVector PMSGetBreakPkgs(const PackageInfo& info);
ZARNPKG_API DepPkgVector PMSGetReplacePkgs(const PackageInfo& info);
ZARNPKG_API DepPkgVector PMSGetReplaceForcePkgs(const PackageInfo& info);

}  // namespace ZARNPackageTool
