#pragma once

#include <string>

#include "core/export.h"

namespace ZARNPackageTool {

// Bits of the control scripts present in a folder.
enum PKG_SCRIPT_BIT : unsigned int {
    PKG_SCRIPT_START_STOP_STATUS = 0x1,
    PKG_SCRIPT_PREINST = 0x2,
    PKG_SCRIPT_POSTINST = 0x4,
    PKG_SCRIPT_PREUNINST = 0x8,
    PKG_SCRIPT_POSTUNINST = 0x10,
    PKG_SCRIPT_PREUPGRADE = 0x20,
    PKG_SCRIPT_POSTUPGRADE = 0x40,
};

// The mask of the scripts of `dir`; a script without the owner-execute bit is repaired to 0700.
ZARNPKG_API unsigned int PMGetScriptMask(const std::string& dir);

}  // namespace ZARNPackageTool
