#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/accounts.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/process.h"
#include "privilege/privilege.h"
#include "support/temproot.h"

using namespace ZARNPackageTool::Privilege;

namespace {

// "uid:gid:mode" in one string, so that owner and mode compare at once.
std::string Own(unsigned uid, unsigned gid, unsigned mode) {
    char text[64];
    std::snprintf(text, sizeof(text), "%u:%u:%04o", uid, gid, mode & 07777);
    return text;
}

std::string OwnerOf(const std::string& logical) {
    struct stat st = {};
    EXPECT_TRUE(ZARNLstat(logical, st)) << logical;
    return Own(st.st_uid, st.st_gid, st.st_mode);
}

// The machine's own file (outside the root): owner, mode and change time.
std::string MachineShadow() {
    struct stat st = {};
    const int rc = lstat("/etc/shadow", &st);
    return std::to_string(rc) + " " + Own(st.st_uid, st.st_gid, st.st_mode) + " " +
           std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec);
}

using Set = std::set<std::string>;

Set Words(const std::string& text) {
    std::istringstream in(text);
    Set words;
    std::string word;
    while (in >> word) {
        words.insert(word);
    }
    return words;
}

}  // namespace

class PrivilegeRootTest : public TempRootTest {
protected:
    const std::string staging = "/volume1/@tmp/pkginstall";
    const std::string top = staging + "/package";

    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: makes accounts and changes the owners of files";
        }
        TempRootTest::SetUp();
    }

    // A fresh payload with a few files, a relative link and a set-ID script.
    void makeStaging(const std::string& conf) {
        ASSERT_TRUE(ZARNRemoveTree(staging));
        writeFile(top + "/data/file", "data");
        writeFile(top + "/bin/sysexe", "#!/bin/sh\n", 0755);
        writeFile(top + "/bin/rootexe", "#!/bin/sh\n", 0755);
        writeFile(top + "/bin/helper", "#!/bin/sh\n", 0755);
        ASSERT_TRUE(ZARNSymlink("../data/file", top + "/bin/link"));
        writeFile(staging + "/scripts/preinst", "#!/bin/sh\n", 0755);
        ASSERT_TRUE(ZARNChmod(staging + "/scripts/preinst", 06755));
        writeFile(staging + "/conf/privilege", conf);
    }

    // Runs a program with the identity SetIdentity gives for the action; its standard output.
    std::string runAs(const std::string& name, const std::string& action,
                      std::vector<std::string> argv) {
        ZARNUtils::ProcessRunner runner(std::move(argv));
        EXPECT_TRUE(SetIdentity(runner, name, action, "")) << action;
        runner.captureOutput();
        EXPECT_EQ(runner.run(), 0) << action << ": " << runner.getStderr();
        return runner.getStdout();
    }
};

TEST_F(PrivilegeRootTest, ReviseFileAttrAndScriptIdentityAsRoot) {
    const std::string conf = R"({
        "join-groupname": "users",
        "ctrl-script": [{"action": "preinst", "run-as": "root"},
                        {"action": "status", "run-as": "system"}],
        "executable": [{"relpath": "bin/sysexe", "run-as": "system"},
                       {"relpath": "bin/rootexe", "run-as": "root"}],
        "tool": [{"relpath": "bin/helper", "user": "root", "group": "package",
                  "permission": "4750"}]})";
    makeStaging(conf);
    ASSERT_TRUE(ReviseFileAttr("pkga", staging, false)) << logText();

    // The account: made in the root's files with an id outside the system's range.
    ZARNUserRecord user;
    ASSERT_EQ(ZARNUserGet("pkga", user), 0);
    gid_t groupGid = 0;
    ASSERT_EQ(ZARNGroupGetGID("pkga", &groupGid), 0);
    EXPECT_GE(user.uid, 1000u);
    EXPECT_EQ(user.gid, groupGid);
    EXPECT_GE(groupGid, 1000u);
    EXPECT_EQ(user.home, "/var/packages/pkga/target");

    // Default owner over the whole tree, links themselves included. "system" gives group 1;
    // "root" gives root; a tool keeps the owner and mode it names. Set-ID bits of the scripts
    // are gone.
    const std::string pkg = std::to_string(user.uid) + ":" + std::to_string(groupGid) + ":";
    EXPECT_EQ(OwnerOf(top + "/data/file"), pkg + "0644");
    EXPECT_EQ(OwnerOf(top + "/bin/link"), pkg + "0777");
    EXPECT_EQ(OwnerOf(top), pkg + "0755");
    EXPECT_EQ(OwnerOf(top + "/bin/sysexe"), Own(user.uid, 1, 0755));
    EXPECT_EQ(OwnerOf(top + "/bin/rootexe"), Own(0, 0, 0755));
    EXPECT_EQ(OwnerOf(top + "/bin/helper"), Own(0, groupGid, 04750));
    EXPECT_EQ(OwnerOf(staging + "/scripts/preinst"), Own(0, 0, 0755));

    // Again: the account is kept, the user is not added to the group twice.
    const std::string groupText = readFile("/etc/group");
    ASSERT_TRUE(ReviseFileAttr("pkga", staging, false)) << logText();
    EXPECT_EQ(readFile("/etc/group"), groupText);
    uid_t again = 0;
    ASSERT_EQ(ZARNUserGetUGID("pkga", &again, nullptr), 0);
    EXPECT_EQ(again, user.uid);

    // The scripts run for real under the identity of their action (user and group of the
    // "package" identity are checked where scripts run): its own group and the joined "users",
    // never root's.
    writeFile("/var/packages/pkga/conf/privilege", conf);
    const std::string uid = std::to_string(user.uid);
    const std::string gid = std::to_string(groupGid);
    EXPECT_EQ(Words(runAs("pkga", "postinst", {"/usr/bin/id", "-G"})), (Set{gid, "100"}));

    EXPECT_EQ(runAs("pkga", "status", {"/usr/bin/id", "-u"}), uid + "\n");
    EXPECT_EQ(runAs("pkga", "status", {"/usr/bin/id", "-g"}), "1\n");
    EXPECT_EQ(Words(runAs("pkga", "status", {"/usr/bin/id", "-G"})), (Set{"1", gid, "100"}));

    const Set env = Words(runAs("pkga", "postinst", {"/usr/bin/env"}));
    EXPECT_EQ(env.count("USER=pkga") + env.count("LOGNAME=pkga"), 2u);

    // The library's own process never changed identity.
    EXPECT_EQ(geteuid(), 0u);
    EXPECT_EQ(getegid(), 0u);

    // Without conf/privilege the private temporary folder belongs to root; with it, to the
    // package's account.
    const std::string rootTmp = GetTmpFolderPath("nopriv", "/volume1");
    ASSERT_TRUE(CreateTmpFolder("nopriv", rootTmp)) << logText();
    EXPECT_EQ(OwnerOf(rootTmp), Own(0, 0, 0700));
    // The folder above the private ones belongs to the system and is passable by everyone.
    EXPECT_EQ(OwnerOf("/volume1/@tmp/zarnpkg.tmp"), Own(0, 0, 0755));
    const std::string tmp = GetTmpFolderPath("pkga", "/volume1");
    ASSERT_TRUE(CreateTmpFolder("pkga", tmp)) << logText();
    EXPECT_EQ(OwnerOf(tmp), pkg + "0700");
    // The package's own scripts can keep files there.
    ASSERT_TRUE(ZARNChmod("/", 0755));
    runAs("pkga", "postinst", {"/usr/bin/touch", phys(tmp + "/kept")});
    EXPECT_EQ(OwnerOf(tmp + "/kept").substr(0, pkg.size()), pkg);
}

TEST_F(PrivilegeRootTest, DefaultOwnersAsRoot) {
    // "system": the package's user with group 1 over the tree.
    makeStaging(R"({"username": "svcuser", "groupname": "svcgroup",
                    "defaults": {"run-as": "system"}})");
    ASSERT_TRUE(ReviseFileAttr("pkgb", staging, false)) << logText();
    uid_t uid = 0;
    gid_t gid = 0;
    ASSERT_EQ(ZARNUserGetUGID("svcuser", &uid, &gid), 0);
    gid_t svcGid = 0;
    ASSERT_EQ(ZARNGroupGetGID("svcgroup", &svcGid), 0);
    EXPECT_EQ(gid, svcGid);
    EXPECT_LT(ZARNUserGetUGID("pkgb", nullptr, nullptr), 0);
    EXPECT_EQ(OwnerOf(top + "/data/file"), Own(uid, 1, 0644));

    // "root": the owner stays as it was.
    makeStaging(R"({"defaults": {"run-as": "root"}})");
    ASSERT_TRUE(ZARNChown(top + "/data/file", 4321, 4322));
    ASSERT_TRUE(ReviseFileAttr("pkgc", staging, false)) << logText();
    EXPECT_EQ(OwnerOf(top + "/data/file"), Own(4321, 4322, 0644));
    EXPECT_EQ(ZARNUserGetUGID("pkgc", nullptr, nullptr), 0);  // the account is made all the same

    // Ownership skipped: the account is prepared, the files stay.
    makeStaging("{}");
    ASSERT_TRUE(ReviseFileAttr("pkgd", staging, true)) << logText();
    EXPECT_EQ(ZARNUserGetUGID("pkgd", nullptr, nullptr), 0);
    EXPECT_EQ(OwnerOf(top + "/data/file"), Own(0, 0, 0644));
    EXPECT_EQ(OwnerOf(staging + "/scripts/preinst"), Own(0, 0, 0755));

    // An unknown default identity fails the owner step.
    makeStaging(R"({"defaults": {"run-as": "admin"}})");
    EXPECT_FALSE(ReviseFileAttr("pkge", staging, false));
    EXPECT_TRUE(logged("Failed to set default owner of pkge [0x4000"));
    EXPECT_EQ(OwnerOf(top + "/data/file"), Own(0, 0, 0644));

    // An existing account is adjusted to the package's group and home.
    makeStaging(R"({"username": "pkgd", "groupname": "pkgdgrp"})");
    ASSERT_TRUE(ReviseFileAttr("pkgf", staging, false)) << logText();
    ZARNUserRecord user;
    ASSERT_EQ(ZARNUserGet("pkgd", user), 0);
    gid_t newGid = 0;
    ASSERT_EQ(ZARNGroupGetGID("pkgdgrp", &newGid), 0);
    EXPECT_EQ(user.gid, newGid);
    EXPECT_EQ(user.home, "/var/packages/pkgf/target");

    // A group to join that doesn't exist.
    makeStaging(R"({"join-groupname": "nosuchgroup"})");
    EXPECT_FALSE(ReviseFileAttr("pkgg", staging, false));
    EXPECT_TRUE(logged("ZARNGroupGet [nosuchgroup] failed [0x1800"));
    EXPECT_TRUE(logged("Failed to add package user 'pkgg' to group 'nosuchgroup'"));
}

TEST_F(PrivilegeRootTest, BadInputNeverLeavesThePackageAsRoot) {
    // Files outside the package that a hostile conf/privilege aims at: one in the root and the
    // machine's own.
    writeFile("/etc/shadow", "root:*:1::::::\n", 0640);
    const std::string rootShadow = OwnerOf("/etc/shadow");
    const std::string machineBefore = MachineShadow();
    ASSERT_EQ(machineBefore.substr(0, 2), "0 ");

    const std::vector<std::string> confs = {
        R"({"tool": [{"relpath": "../../etc/shadow", "user": "package", "group": "package",
                      "permission": "0777"}]})",
        R"({"tool": [{"relpath": "shadowlink", "user": "package", "group": "package",
                      "permission": "0777"}]})",
        R"({"tool": [{"relpath": "machinelink", "user": "package", "group": "package",
                      "permission": "0777"}]})",
        R"({"executable": [{"relpath": "../../../../etc/shadow", "run-as": "package"}]})",
        R"({"executable": [{"relpath": "/etc/shadow", "run-as": "package"}]})",
        R"({"executable": [{"relpath": "shadowlink", "run-as": "package"}]})",
        R"({"executable": [{"relpath": "etcdir/shadow", "run-as": "package"}]})",
        R"({"tool": [{"relpath": "bin/helper", "user": "package", "group": "package",
                      "permission": "0789"}]})",
        R"({"tool": [{"relpath": "bin/helper", "user": "package", "group": "package",
                      "permission": 755}]})",
        R"({"executable": [{"relpath": ["bin/helper"], "run-as": "package"}]})",
    };
    for (const std::string& conf : confs) {
        makeStaging(conf);
        ASSERT_TRUE(ZARNSymlink("/etc/shadow", top + "/shadowlink"));
        ASSERT_TRUE(ZARNSymlink("/etc", top + "/etcdir"));
        ASSERT_EQ(symlink("/etc/shadow", phys(top + "/machinelink").c_str()), 0);
        EXPECT_FALSE(ReviseFileAttr("pkgbad", staging, false)) << conf;
        EXPECT_TRUE(logged("Failed to override default of pkgbad [0x")) << conf;
        // The package's own helper keeps a sane mode.
        EXPECT_EQ(modeOf(top + "/bin/helper"), 0755u) << conf;
    }
    EXPECT_EQ(OwnerOf("/etc/shadow"), rootShadow);
    EXPECT_EQ(MachineShadow(), machineBefore);
    EXPECT_TRUE(logged("Failed to resolve ../../etc/shadow [0x"));
    EXPECT_TRUE(logged("Failed to revise " + top + "/bin/helper [0x4000"));
}
