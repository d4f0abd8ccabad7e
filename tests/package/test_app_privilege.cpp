#include <gtest/gtest.h>

#include <string>

#include "package/app_privilege.h"
#include "platform/apppriv.h"
#include "platform/json.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

namespace {

class AppPrivilege : public TempRootTest {
protected:
    void SetUp() override {
        TempRootTest::SetUp();
        std::string passwd = readFile("/etc/passwd");
        passwd +=
            "alice:x:1030:100::/nonexistent:/sbin/nologin\n"
            "bob:x:1031:100::/nonexistent:/sbin/nologin\n"
            "carol:x:1032:100::/nonexistent:/sbin/nologin\n"
            "Admin2:x:1033:100::/nonexistent:/sbin/nologin\n";
        writeFile("/etc/passwd", passwd);
        std::string group = readFile("/etc/group");
        const std::string from = "administrators:x:101:admin";
        size_t at = group.find(from);
        ASSERT_NE(at, std::string::npos);
        group.replace(at, from.size(), from + ",alice,bob,ZarnwickCMS");
        writeFile("/etc/group", group);
        writeFile("/usr/zarn/zarnman/webman/3rdparty/demo/config", R"({
            ".url": {
                "App.Plain": {"grantPrivilege": "local"},
                "App.Advanced": {"grantPrivilege": "all", "advanceGrantPrivilege": true},
                "App.None": {"grantPrivilege": "none", "configablePrivilege": true},
                "App.Fixed": {"grantPrivilege": "all", "configablePrivilege": false},
                "App.Odd": {"grantPrivilege": "all", "configablePrivilege": "yes"}
            }})");
    }
    Json::Value store() {
        Json::Value v;
        Json::fromString(v, readFile(ZARN_APP_PRIVILEGE_FILE));
        return v;
    }
    static bool holds(const Json::Value& list, const std::string& who) {
        for (const auto& v : list) {
            if (v.asString() == who) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(AppPrivilege, AdministratorsGetTheApplications) {
    PMSSetAppPrivilege("carol", "App.Plain App.Advanced App.None App.Fixed App.Odd App.Unknown",
                       nullptr);
    Json::Value s = store();
    const Json::Value& plain = s["users"]["App.Plain"];
    EXPECT_TRUE(holds(plain, "alice"));
    EXPECT_TRUE(holds(plain, "bob"));
    EXPECT_FALSE(holds(plain, "admin"));
    EXPECT_FALSE(holds(plain, "ZarnwickCMS"));
    EXPECT_FALSE(holds(plain, "carol")) << "carol is no administrator";
    EXPECT_TRUE(holds(s["groups"]["App.Advanced"], "administrators"));
    EXPECT_FALSE(s["users"].isMember("App.Advanced"));
    EXPECT_FALSE(s["users"].isMember("App.None"));
    EXPECT_FALSE(s["users"].isMember("App.Fixed"));
    EXPECT_FALSE(s["users"].isMember("App.Odd"));
    EXPECT_FALSE(s["users"].isMember("App.Unknown"));
    const std::string events = readFile(ZARN_EVENTS_LOG);
    EXPECT_NE(events.find("app privilege: user alice may open App.Plain"), std::string::npos);
    EXPECT_NE(events.find("app privilege: group administrators may open App.Advanced"),
              std::string::npos);
}

TEST_F(AppPrivilege, TheInstallingUser) {
    // An administrator who installs gets even the advanced application for himself.
    PMSSetAppPrivilege("alice", "App.Advanced", "enu");
    EXPECT_TRUE(holds(store()["users"]["App.Advanced"], "alice"));

    // The built-in account, in any letter case, gets nothing of its own.
    PMSSetAppPrivilege("ADMIN", "App.Advanced", "enu");
    EXPECT_FALSE(holds(store()["users"]["App.Advanced"], "ADMIN"));
    EXPECT_FALSE(holds(store()["users"]["App.Advanced"], "admin"));

    // Nothing to grant: no store is written at all.
    ASSERT_EQ(VLIBAppPrivUserAddOne("bob", "Other"), 0);
    ASSERT_EQ(VLIBAppPrivUserAddOne("bob", "Other"), 0);
    EXPECT_EQ(store()["users"]["Other"].size(), 1u) << "a grant is kept once";
    const std::string before = readFile(ZARN_APP_PRIVILEGE_FILE);
    PMSSetAppPrivilege("alice", "", nullptr);
    PMSSetAppPrivilege("alice", "App.None", nullptr);
    EXPECT_EQ(readFile(ZARN_APP_PRIVILEGE_FILE), before);
    EXPECT_EQ(VLIBGroupIsAdminGroupMem("alice", 0), 1);
    EXPECT_EQ(VLIBGroupIsAdminGroupMem("carol", 0), 0);
}

TEST_F(AppPrivilege, MarksAcrossGroupsAndDamagedStore) {
    // One group marks the application as advanced without a grant of its own; another records
    // it: the grant goes to the group, not to each administrator.
    writeFile("/usr/zarn/zarnman/webman/3rdparty/split/config", R"({
        ".a": {"App.Split": {"grantPrivilege": "all", "configablePrivilege": false,
                             "advanceGrantPrivilege": true}},
        ".b": {"App.Split": {"grantPrivilege": "local"}}})");
    PMSSetAppPrivilege(nullptr, "App.Split", nullptr);
    Json::Value s = store();
    EXPECT_TRUE(holds(s["groups"]["App.Split"], "administrators"));
    EXPECT_FALSE(s["users"].isMember("App.Split"));

    // A store whose lists are of the wrong type is refused, not overwritten.
    writeFile(ZARN_APP_PRIVILEGE_FILE, R"({"users": 5, "groups": ["x"]})");
    EXPECT_LT(VLIBAppPrivUserAddOne("bob", "App.Plain"), 0);
    EXPECT_LT(VLIBAppPrivGroupAddOne("administrators", "App.Plain"), 0);
    PMSSetAppPrivilege("alice", "App.Plain App.Advanced", nullptr);
    EXPECT_EQ(readFile(ZARN_APP_PRIVILEGE_FILE), R"({"users": 5, "groups": ["x"]})");
}

}  // namespace
