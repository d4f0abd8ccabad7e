#include "server/update_schedule.h"

#include <strings.h>

#include <cstdlib>
#include <string>

#include "core/paths.h"
#include "platform/keyfile.h"
#include "platform/log.h"
#include "platform/scheduler.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kDesktopKey = "upgrade_pkg_kos_notification";
constexpr const char* kMailKey = "upgrade_pkg_email_notification";
constexpr const char* kAutoUpdateKey = "enable_pkg_autoupdate_all";

// Two spreads of week days, so that appliances don't all ask the server on the same days.
constexpr unsigned int kWeekFlags[] = {94, 47};

ZARN::ZarnCrond::ConfigManager UpgradeEntry() {
    return ZARN::ZarnCrond::ConfigManager(PMS_AUTO_UPGRADE_ENTRY, false);
}

// 1 when the stored setting is "yes" in any case, else 0.
int StoredFlag(const char* key) {
    std::string value;
    return VLIBCFileGetKeyValue(PMS_INFO_CONF, key, value) > 0 &&
                   strcasecmp(value.c_str(), "yes") == 0
               ? 1
               : 0;
}

bool StoreFlag(const char* key, int flag) {
    if (flag == -1) {
        return true;
    }
    if (!VLIBCFileSetKeyValue(PMS_INFO_CONF, key, flag == 1 ? "yes" : "no")) {
        ZLOGERR("Failed to set %s in zarninfo.conf.", key);
        return false;
    }
    return true;
}

}  // namespace

bool PMSZARNCrondSet(const ZARNSCHEDULE* schedule) {
    if (schedule == nullptr || schedule->weekFlag == 0 || schedule->weekFlag > 0x7f) {
        ZLOGERR("week flag is not valid, %x", schedule == nullptr ? 0u : schedule->weekFlag);
        return false;
    }
    ZARN::ZarnCrond::ConfigManager entry = UpgradeEntry();
    if (entry.Exist()) {
        return true;
    }
    std::string days;
    for (unsigned int day = 0; day < 7; ++day) {
        if (schedule->weekFlag & (1u << day)) {
            days += (days.empty() ? "" : ",") + std::to_string(day);
        }
    }
    Json::Value job(Json::objectValue);
    job["name"] = PMS_AUTO_UPGRADE_ENTRY;
    job["cmd"] = PMS_AUTO_UPGRADE_CMD;
    job["user"] = "root";
    job["period"] = "crontab";
    job["crontab"] = "~ ~ * * " + days;
    // The check never expires, and one missed while the machine was off runs when it is back.
    job["expire"] = 0;
    job["expire_action"] = "skip";
    job["assure_execute"] = true;
    return entry.Save(job);
}

bool PMSZARNCrondRemove() {
    return UpgradeEntry().Remove();
}

bool PMSSavaSchedule(int desktop, int mail, int autoUpdate) {
    const int on[] = {desktop == -1 ? StoredFlag(kDesktopKey) : desktop,
                      mail == -1 ? StoredFlag(kMailKey) : mail,
                      autoUpdate == -1 ? StoredFlag(kAutoUpdateKey) : autoUpdate};
    bool ok = true;
    if (on[0] == 1 || on[1] == 1 || on[2] == 1) {
        ZARNSCHEDULE schedule;
        schedule.weekFlag = kWeekFlags[random() & 1];
        if (!PMSZARNCrondSet(&schedule)) {
            ZLOGERR("Failed to set auto update schedule.");
            ok = false;
        }
    } else if (!PMSZARNCrondRemove()) {
        ZLOGERR("Failed to remove auto update schedule.");
        ok = false;
    }
    // Each setting is stored on its own: one that fails doesn't undo the schedule.
    ok = StoreFlag(kDesktopKey, desktop) && ok;
    ok = StoreFlag(kMailKey, mail) && ok;
    ok = StoreFlag(kAutoUpdateKey, autoUpdate) && ok;
    return ok;
}

void PMSSavaDefNotify() {
    std::string value;
    if (VLIBCFileGetKeyValue(PMS_INFO_CONF, kMailKey, value) <= 0 &&
        VLIBCFileGetKeyValue(PMS_INFO_CONF, kDesktopKey, value) <= 0) {
        PMSSavaSchedule(1, 0, -1);
    }
}

}  // namespace ZARNPackageTool
