#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/packageinfo.h"

namespace ZARNPackageTool {

// Load masks of the registry scans behind the dependency checks and orders. The ordering scan
// reads only what it needs (name, version, display name, startable, dependencies) because it
// runs over every installed package on each start and stop.
constexpr unsigned long long kDepMaskCtlStop = 0x400;
constexpr unsigned long long kDepMaskDepPackages = 0x1000000;
constexpr unsigned long long kDepMaskStartDepServices = 0x2000000;
constexpr unsigned long long kDepMaskIcons = 0x8000000;
constexpr unsigned long long kDepMaskDisplayName = 0x10000000;
constexpr unsigned long long kDepMaskInstallDepServices = 0x40000000;
constexpr unsigned long long kDepMaskOrder =
    kDepMaskDepPackages | kDepMaskDisplayName | kDepMaskCtlStop;
constexpr unsigned long long kDepMaskBreak = PKG_MASK_BREAKERS;
// One of the high bits that select install_conflict_packages and conf/PKG_CONX.
constexpr unsigned long long kDepMaskConflicts = 0x80000000ULL | kDepMaskDisplayName;
// Everything but the icons, whose base64 text is the bulk of an INFO file.
constexpr unsigned long long kDepMaskChecks = PKG_MASK_ALL & ~kDepMaskIcons;

// Whether `installed` stands in the relation that `constraint` asks for (same name, operator
// and version of the constraint).
bool PMSDepSatisfied(const std::string& name, const std::string& version,
                     const PackageBasicInfo& constraint);

// The installed records, each once, in registry order.
std::vector<PackageInfo> ScanInstalled(const char* language, unsigned long long mask);

// The text form of one constraint: "name", or "name" operator version.
std::string PMSDepConstraintText(const PackageBasicInfo& constraint);

}  // namespace ZARNPackageTool
