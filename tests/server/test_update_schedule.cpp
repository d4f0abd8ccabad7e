#include <gtest/gtest.h>

#include <string>

#include "core/paths.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/keyfile.h"
#include "platform/scheduler.h"
#include "server/update_schedule.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;
using ZARN::ZarnCrond::ConfigManager;

namespace {

class UpdateScheduleTest : public TempRootTest {
protected:
    std::string setting(const char* key) {
        std::string value;
        VLIBCFileGetKeyValue(PMS_INFO_CONF, key, value);
        return value;
    }
    Json::Value entry() {
        Json::Value jobs;
        ConfigManager(PMS_AUTO_UPGRADE_ENTRY, false).Load(jobs);
        return jobs.empty() ? Json::Value() : jobs[0];
    }
};

TEST_F(UpdateScheduleTest, DefaultsScheduleTheCheckOnceAndKeepAnEntryInPlace) {
    PMSSavaDefNotify();
    EXPECT_EQ("yes", setting("upgrade_pkg_kos_notification"));
    EXPECT_EQ("no", setting("upgrade_pkg_email_notification"));
    Json::Value job = entry();
    EXPECT_EQ(PMS_AUTO_UPGRADE_CMD, job["cmd"].asString());
    EXPECT_EQ("root", job["user"].asString());
    const std::string crontab = job["crontab"].asString();
    EXPECT_TRUE(crontab == "~ ~ * * 1,2,3,4,6" || crontab == "~ ~ * * 0,1,2,3,5") << crontab;
    // Once a setting exists the defaults are not applied again.
    ASSERT_TRUE(PMSZARNCrondRemove());
    PMSSavaDefNotify();
    EXPECT_TRUE(entry().isNull());

    // An entry in place keeps its time and week days when the settings change.
    job["crontab"] = "5 3 * * 2";
    ASSERT_TRUE(ConfigManager(PMS_AUTO_UPGRADE_ENTRY, false).Save(job));
    EXPECT_TRUE(PMSSavaSchedule(-1, -1, 1));
    EXPECT_EQ("5 3 * * 2", entry()["crontab"].asString());
    EXPECT_EQ("yes", setting("enable_pkg_autoupdate_all"));
    EXPECT_EQ("yes", setting("upgrade_pkg_kos_notification"));
    // All off: the entry goes.
    EXPECT_TRUE(PMSSavaSchedule(0, 0, 0));
    EXPECT_TRUE(entry().isNull());
    EXPECT_EQ("no", setting("upgrade_pkg_kos_notification"));
    EXPECT_FALSE(PMSZARNCrondSet(nullptr));
    ZARNSCHEDULE none;
    EXPECT_FALSE(PMSZARNCrondSet(&none));
    EXPECT_TRUE(logged("week flag is not valid, 0"));
}

TEST_F(UpdateScheduleTest, SchedulerRefusesJobsOfBadFormat) {
    const std::string bad[] = {
        R"({"name": "a", "cmd": "/bin/true", "user": "root"})",
        R"({"name": "a", "cmd": "", "user": "root", "period": "daily"})",
        R"({"name": "a", "cmd": "/bin/true", "user": "root", "period": "crontab",
            "crontab": "* * * *"})",
        R"([{"name": "a", "cmd": "/bin/true", "user": "root", "period": "daily"}, 5])",
        R"("daily")",
    };
    ConfigManager pkg("pkga", true);
    for (const std::string& text : bad) {
        Json::Value jobs;
        ASSERT_TRUE(Json::fromString(jobs, text)) << text;
        EXPECT_FALSE(pkg.Save(jobs)) << text;
        EXPECT_FALSE(pkg.Exist()) << text;
    }
    Json::Value jobs;
    ASSERT_TRUE(Json::fromString(jobs, R"([{"name": "a", "cmd": "/bin/true", "user": "pkga",
        "period": "crontab", "crontab": "~ 2 * * 1"}])"));
    ASSERT_TRUE(pkg.Save(jobs));
    EXPECT_TRUE(ZARNIsRegularFile("/usr/zarn/etc/zarncron.d/pkga.json"));
    EXPECT_FALSE(ConfigManager("../pkga", true).Exist());
    EXPECT_TRUE(pkg.Remove());
    EXPECT_TRUE(pkg.Remove());
    EXPECT_FALSE(pkg.Exist());
}

}  // namespace
