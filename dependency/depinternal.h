#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/packageinfo.h"

namespace ZARNPackageTool {

// Load masks of the registry scans behind the dependency checks and orders. The ordering scan
// reads only what it needs (name, version, display name, startable, dependencies) because it
// runs over every installed package on each start and stop.
constexpr unsigned long long kDepMaskOrder =
    PKG_MASK_DEP_PACKAGES | PKG_MASK_DISPLAYNAME | PKG_MASK_CTL_STOP;
constexpr unsigned long long kDepMaskConflicts = PKG_MASK_CONFLICTS | PKG_MASK_DISPLAYNAME;
// Everything but the icons, whose base64 text is the bulk of an INFO file.
constexpr unsigned long long kDepMaskChecks = PKG_MASK_ALL & ~PKG_MASK_ICONS;

// Whether `installed` stands in the relation that `constraint` asks for (same name, operator
// and version of the constraint).
bool PMSDepSatisfied(const std::string& name, const std::string& version,
                     const PackageBasicInfo& constraint);

// The installed records, each once, in registry order.
std::vector<PackageInfo> ScanInstalled(const char* language, unsigned long long mask);

// The text form of one constraint: "name", or "name" operator version.
std::string PMSDepConstraintText(const PackageBasicInfo& constraint);

}  // namespace ZARNPackageTool
