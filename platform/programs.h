#pragma once

#include <string>

#include "platform/export.h"

// The machine's path of one of its own tools named as the appliance names it ("/sbin/lslocks"):
// the path itself when it exists, else the same name in the usual program folders.
ZARNHOST_API std::string ZARNMachineProgram(const std::string& path);
