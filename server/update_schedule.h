#pragma once

#include "core/export.h"

namespace ZARNPackageTool {

// When the update check runs: the days of the week as bits, Sunday in bit 0.
struct ZARNSCHEDULE {
    unsigned int weekFlag = 0;
};

// The scheduler entry that runs the update check.
constexpr const char* PMS_AUTO_UPGRADE_ENTRY = "autopkgupgrade";
constexpr const char* PMS_AUTO_UPGRADE_CMD = "/usr/zarn/bin/zarnpkg chkupgradepkg";

// Saves the schedule of the update check with the desktop notice, the mail notice and the
// automatic update on (1) or off (0); -1 keeps the stored setting. The check is scheduled when
// any of them is on and removed when all are off; the given settings are stored.
ZARNPKG_API bool PMSSavaSchedule(int desktop, int mail, int autoUpdate);
// Adds the entry of the update check on the given week days; an entry in place stays as it is.
ZARNPKG_API bool PMSZARNCrondSet(const ZARNSCHEDULE* schedule);
ZARNPKG_API bool PMSZARNCrondRemove();
// With no notice setting stored yet, the defaults: desktop notice on, mail off.
ZARNPKG_API void PMSSavaDefNotify();

}  // namespace ZARNPackageTool
