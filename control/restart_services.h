#pragma once

#include "core/packageinfo.h"

namespace ZARNPackageTool {

// Hooks of the system, /usr/zarn/zarnpkg/*, told of every package action: each executable runs
// with ZARNPKG_PKG_STATUS (from `type`, or START / STOP by `state` for a type without a text),
// ZARNPKG_PKGNAME, ZARNPKG_PKGVER and ZARNPKG_OLD_PKGVER from `old` when it is given.
void PMSCheckServiesStatus(const PackageInfo& info, const PackageInfo* old,
                           PKG_INSTALLATION_TYPE type, int state);

}  // namespace ZARNPackageTool
