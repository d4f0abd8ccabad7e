#pragma once

#include <string>

#include "core/packagemanager.h"

// The start/stop engine. Its operations are methods of PackageManager (serviceControl,
// serviceControlAction, serviceControlRestart, serviceControlByService, fixPkgServiceStatus,
// removePkgResources); what stands outside the manager is declared here.
namespace ZARNPackageTool {

// Tells the administrators that the package can't start on this version of the system.
void NotifyStoppedByFirmware(const std::string& name);

}  // namespace ZARNPackageTool
