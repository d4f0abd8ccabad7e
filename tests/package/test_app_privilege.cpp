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
    // The store as compact JSON.
    std::string store() {
        Json::Value v;
        Json::fromString(v, readFile(ZARN_APP_PRIVILEGE_FILE));
        return Json::toCompactString(v);
    }
};

// Administrators (never the built-in account or a service account, nor carol, who is none) get
// the applications that grant to them; an advanced one goes to their group.
TEST_F(AppPrivilege, AdministratorsGetTheApplications) {
    PMSSetAppPrivilege("carol", "App.Plain App.Advanced App.None App.Fixed App.Odd App.Unknown",
                       nullptr);
    EXPECT_EQ(store(), R"({"groups":{"App.Advanced":["administrators"]},)"
                       R"("users":{"App.Plain":["alice","bob"]}})");
    const std::string events = readFile(ZARN_EVENTS_LOG);
    EXPECT_NE(events.find("app privilege: user alice may open App.Plain"), std::string::npos);
    EXPECT_NE(events.find("app privilege: group administrators may open App.Advanced"),
              std::string::npos);
}

TEST_F(AppPrivilege, TheInstallingUser) {
    // An administrator who installs gets even the advanced application for himself; the
    // built-in account, in any letter case, gets nothing of its own.
    PMSSetAppPrivilege("alice", "App.Advanced", "enu");
    PMSSetAppPrivilege("ADMIN", "App.Advanced", "enu");
    // A grant is kept once.
    ASSERT_EQ(VLIBAppPrivUserAddOne("bob", "Other"), 0);
    ASSERT_EQ(VLIBAppPrivUserAddOne("bob", "Other"), 0);
    const std::string before = store();
    EXPECT_EQ(before, R"({"groups":{"App.Advanced":["administrators"]},)"
                      R"("users":{"App.Advanced":["alice"],"Other":["bob"]}})");
    // Nothing to grant: the store stays as it is.
    PMSSetAppPrivilege("alice", "", nullptr);
    PMSSetAppPrivilege("alice", "App.None", nullptr);
    EXPECT_EQ(store(), before);
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
    EXPECT_EQ(store(), R"({"groups":{"App.Split":["administrators"]}})");

    // A store whose lists are of the wrong type is refused, not overwritten.
    writeFile(ZARN_APP_PRIVILEGE_FILE, R"({"users": 5, "groups": ["x"]})");
    EXPECT_LT(VLIBAppPrivUserAddOne("bob", "App.Plain"), 0);
    EXPECT_LT(VLIBAppPrivGroupAddOne("administrators", "App.Plain"), 0);
    PMSSetAppPrivilege("alice", "App.Plain App.Advanced", nullptr);
    EXPECT_EQ(readFile(ZARN_APP_PRIVILEGE_FILE), R"({"users": 5, "groups": ["x"]})");
}

}  // namespace
