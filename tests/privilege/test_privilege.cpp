#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>

#include <string>
#include <vector>

#include "pkgutils/relpath.h"
#include "platform/accounts.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/process.h"
#include "privilege/privilege.h"
#include "privilege/revise_executable.h"
#include "privilege/revise_tool.h"
#include "privilege/walker.h"
#include "support/temproot.h"

using namespace ZARNPackageTool::Privilege;
using ZARNPackageTool::Util::ReplaceVariables;

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(Json::fromString(value, text)) << text;
    return value;
}

std::string Fields(const Config& c) {
    return std::to_string(c.present) + " " + c.username + " " + c.groupname + " " +
           c.joinGroupname + " " + std::to_string(c.defaultIdentity);
}

}  // namespace

class PrivilegeTest : public TempRootTest {
protected:
    // A package being installed: staging folder with its payload, scripts and conf.
    const std::string staging = "/volume1/@tmp/pkginstall";

    void writeConf(const std::string& dir, const std::string& text) {
        writeFile(dir + "/conf/privilege", text);
    }
    // The exit code and output of `id -u` run with the identity SetIdentity gives, or "refused".
    std::string idUnder(const std::string& name, const std::string& action,
                        const std::string& dir = "") {
        ZARNUtils::ProcessRunner runner({"/usr/bin/id", "-u"});
        if (!SetIdentity(runner, name, action, dir)) {
            return "refused";
        }
        runner.captureOutput();
        const int rc = runner.run();
        return std::to_string(rc) + " " + runner.getStdout();
    }
};

TEST_F(PrivilegeTest, TranslateAndDefaultIdentity) {
    // Each word as the identity and as the default of a conf.
    const std::pair<const char*, int> words[] = {
        {"root", IDENTITY_ROOT}, {"system", IDENTITY_SYSTEM}, {"package", IDENTITY_PACKAGE},
        {"Root", IDENTITY_NONE}, {"", IDENTITY_NONE},         {"admin", IDENTITY_NONE}};
    for (const auto& [word, identity] : words) {
        VLIBCErrSet(ZARN_ERR_NONE);
        EXPECT_EQ(TranslateIdentity(word), identity) << word;
        EXPECT_EQ(VLIBCErrGet(), identity == IDENTITY_NONE ? 0x0d00 : 0) << word;
        EXPECT_EQ(
            GetDefaultIdentity(Parse(std::string(R"({"defaults": {"run-as": ")") + word + "\"}}")),
            identity)
            << word;
    }
    // Without a usable default the package's own identity applies.
    for (const char* conf :
         {"{}", "[]", R"({"defaults": "root"})", R"({"defaults": {"run-as": 3}})"}) {
        EXPECT_EQ(GetDefaultIdentity(Parse(conf)), IDENTITY_PACKAGE) << conf;
    }
}

TEST_F(PrivilegeTest, ConfPathUserNameAndConfig) {
    std::string path;
    VLIBCErrSet(ZARN_ERR_NONE);
    EXPECT_EQ(FailedWith(GetConfPath("pkga", path)), 0xd900);
    // Without conf/privilege there is no account name, not even the package's.
    EXPECT_EQ(GetUserName("pkga", ""), "");
    EXPECT_EQ(VLIBCErrGet(), 0xd900);
    Config config;
    EXPECT_TRUE(ReadConfig("pkga", "", config));
    EXPECT_FALSE(config.present);

    writeConf("/var/packages/pkga", "{}");
    EXPECT_EQ(OutIf(GetConfPath("pkga", path), path), "/var/packages/pkga/conf/privilege");
    ASSERT_TRUE(ReadConfig("pkga", "", config));
    EXPECT_EQ(Fields(config), "1 pkga pkga  " + std::to_string(IDENTITY_PACKAGE));

    // Empty or non-string names fall back to the package name without an error.
    writeConf(staging, R"({"username": "", "groupname": 7, "join-groupname": "users",
                          "defaults": {"run-as": "system"}})");
    EXPECT_EQ(GetUserName("pkgb", staging), "pkgb");
    ASSERT_TRUE(ReadConfig("pkgb", staging, config));
    EXPECT_EQ(Fields(config), "1 pkgb pkgb users " + std::to_string(IDENTITY_SYSTEM));
    writeConf(staging, R"({"username": "svc-user"})");
    EXPECT_EQ(GetUserName("pkgb", staging), "svc-user");

    // A file that is no JSON.
    writeConf(staging, "{ not json");
    EXPECT_EQ(GetUserName("pkgb", staging), "");
    EXPECT_EQ(VLIBCErrGet(), 0x0a00);
    EXPECT_TRUE(logged("Failed to read " + staging + "/conf/privilege ("));
    EXPECT_FALSE(ReadConfig("pkgb", staging, config));

    EXPECT_EQ(GetUserName("", ""), "");
    EXPECT_EQ(VLIBCErrGet(), 0x0d00);
    EXPECT_FALSE(GetConfPathFrom("", path));

    // What a package may bring in place of the file is never read: a pipe, a link to the
    // machine's device (which resolves inside the root, to nothing), a file far larger than any
    // real one.
    ASSERT_TRUE(ZARNUnlink(staging + "/conf/privilege"));
    ASSERT_EQ(mkfifo(phys(staging + "/conf/privilege").c_str(), 0644), 0);
    EXPECT_EQ(GetUserName("pkgb", staging), "");
    EXPECT_EQ(VLIBCErrGet(), 0x0a00);
    ASSERT_TRUE(ZARNUnlink(staging + "/conf/privilege"));
    ASSERT_EQ(symlink("/dev/zero", phys(staging + "/conf/privilege").c_str()), 0);
    EXPECT_EQ(GetUserName("pkgb", staging), "");
    ASSERT_TRUE(ZARNUnlink(staging + "/conf/privilege"));
    writeConf(staging, std::string(5 * 1024 * 1024, ' ') + R"({"username": "big"})");
    EXPECT_EQ(GetUserName("pkgb", staging), "");
    EXPECT_EQ(VLIBCErrGet(), 0x0a00);
}

TEST_F(PrivilegeTest, TraverseAndCtrlScriptWalker) {
    CtrlScriptWalker walker("a");
    VLIBCErrSet(ZARN_ERR_NONE);
    EXPECT_EQ(FailedWith(TraversePrivilege(Parse("{}"), "", walker)), 0x0d00);
    const std::string scripts = R"({"ctrl-script": [
        {"action": "preinst", "run-as": "root"},
        {"action": "status", "run-as": "system"},
        {"action": "status", "run-as": "package"},
        {"action": "log", "run-as": "nobody"},
        {"action": "broken"},
        {"action": "postinst", "run-as": "package"}]})";
    const std::string failed = "failed ";
    // Missing lists and lists of the wrong type are no failure; elements that are not objects
    // are skipped without a word; the first match wins; a failing or damaged element ahead of
    // the match ends the search.
    const struct {
        std::string conf;
        const char* action;
        std::string result;  // the identity found, or "failed" with the error
    } cases[] = {{"[]", "a", "0"},
                 {"{}", "a", "0"},
                 {R"({"ctrl-script": {"action": "a", "run-as": "root"}})", "a", "0"},
                 {R"({"ctrl-script": [1, "x", {"action": "a", "run-as": "root"}]})", "a", "3"},
                 {R"({"ctrl-script": [{"action": "a", "run-as": "nobody"},
                             {"action": "a", "run-as": "root"}]})",
                  "a", failed + std::to_string(0x0d00)},
                 {scripts, "status", std::to_string(IDENTITY_SYSTEM)},
                 {scripts, "preinst", std::to_string(IDENTITY_ROOT)},
                 {scripts, "log", failed + std::to_string(0x0d00)},
                 {scripts, "postinst", failed + std::to_string(0x4000)},
                 {scripts, "PreInst", failed + std::to_string(0x4000)}};
    for (const auto& c : cases) {
        CtrlScriptWalker script(c.action);
        VLIBCErrSet(ZARN_ERR_NONE);
        EXPECT_EQ(TraversePrivilege(Parse(c.conf), "ctrl-script", script)
                      ? std::to_string(script.GetIdentity())
                      : failed + std::to_string(VLIBCErrGet()),
                  c.result)
            << c.action << " in " << c.conf;
    }
}

TEST_F(PrivilegeTest, SetIdentityLeavesRunnerWhenNothingApplies) {
    const std::string self = "0 " + std::to_string(geteuid()) + "\n";
    EXPECT_EQ(idUnder("pkga", "status"), self);  // no conf/privilege
    // "root" for the action, and an unknown default word with no matching entry.
    writeConf("/var/packages/pkga",
              R"({"defaults": {"run-as": "admin"},
                  "ctrl-script": [{"action": "preinst", "run-as": "root"}]})");
    EXPECT_EQ(idUnder("pkga", "preinst"), self);
    EXPECT_EQ(idUnder("pkga", "status"), self);

    VLIBCErrSet(ZARN_ERR_NONE);
    EXPECT_EQ(idUnder("", "status"), "refused");
    EXPECT_EQ(VLIBCErrGet(), 0x0d00);
    writeConf(staging, R"({"ctrl-script": [{"action": "status", "run-as": "everyone"}]})");
    EXPECT_EQ(idUnder("pkga", "status", staging), "refused");
    EXPECT_TRUE(logged("Failed to traverse " + staging + "/conf/privilege [0x0D00"));
    writeConf(staging, "[1, 2");
    EXPECT_EQ(idUnder("pkga", "status", staging), "refused");

    // The package's account was never made: the identity is taken as written, and the script
    // must not run as the caller instead.
    writeConf("/var/packages/ghost", R"({"username": "ghostuser"})");
    EXPECT_EQ(idUnder("ghost", "status"), "-1 ");
}

TEST_F(PrivilegeTest, ClearSetUGidBit) {
    writeFile("/tmp/script", "#!/bin/sh\n");
    for (const auto& [before, after] : {std::pair<mode_t, mode_t>{06755, 0755}, {01640, 01640}}) {
        ASSERT_TRUE(ZARNChmod("/tmp/script", before));
        ASSERT_TRUE(ClearSetUGidBit("/tmp/script"));
        EXPECT_EQ(modeOf("/tmp/script"), after);
    }
    VLIBCErrSet(ZARN_ERR_NONE);
    EXPECT_EQ(FailedWith(ClearSetUGidBit("/tmp/missing")), 0x0700);
    EXPECT_EQ(FailedWith(ClearSetUGidBit("/tmp")), 0xd900);
    // A link is never followed to the file it names.
    writeFile("/etc/target", "x");
    ASSERT_TRUE(ZARNChmod("/etc/target", 04755));
    ASSERT_TRUE(ZARNSymlink("/etc/target", "/tmp/link"));
    EXPECT_EQ(FailedWith(ClearSetUGidBit("/tmp/link")), 0x0900);
    EXPECT_EQ(modeOf("/etc/target"), 04755u);
}

TEST_F(PrivilegeTest, ReviseFileAttrWithoutConf) {
    for (const char* script : {"preinst", "start-stop-status", "other"}) {
        writeFile(staging + "/scripts/" + script, "#!/bin/sh\n");
        ASSERT_TRUE(ZARNChmod(staging + "/scripts/" + script, 06755));
    }
    ASSERT_TRUE(ReviseFileAttr("pkga", staging, false));
    EXPECT_EQ(modeOf(staging + "/scripts/preinst"), 0755u);
    EXPECT_EQ(modeOf(staging + "/scripts/start-stop-status"), 0755u);
    // Only the seven control scripts are looked at.
    EXPECT_EQ(modeOf(staging + "/scripts/other"), 06755u);

    // A script that is a dangling link has no bits to clear and is passed over, and so is one
    // that leads to a file of the package.
    ASSERT_TRUE(ZARNSymlink("missing-script", staging + "/scripts/postuninst"));
    writeFile(staging + "/package/bin/helper", "x");
    ASSERT_TRUE(ZARNChmod(staging + "/package/bin/helper", 04755));
    ASSERT_TRUE(ZARNSymlink("../package/bin/helper", staging + "/scripts/preuninst"));
    EXPECT_TRUE(ReviseFileAttr("pkga", staging, false)) << logText();
    EXPECT_EQ(modeOf(staging + "/package/bin/helper"), 04755u);

    VLIBCErrSet(ZARN_ERR_NONE);
    EXPECT_EQ(FailedWith(ReviseFileAttr("", staging, false)), 0x0d00);

    // A script that is a link leading out of the package stops everything.
    writeFile("/etc/outside", "x");
    ASSERT_TRUE(ZARNChmod("/etc/outside", 04755));
    ASSERT_TRUE(ZARNSymlink("/etc/outside", staging + "/scripts/postinst"));
    EXPECT_FALSE(ReviseFileAttr("pkga", staging, false));
    EXPECT_TRUE(logged("Failed to revise scripts of pkga [0x"));
    EXPECT_EQ(modeOf("/etc/outside"), 04755u);
}

TEST_F(PrivilegeTest, ReviseFileAttrRefusesBadConfigBeforeAccounts) {
    const std::string passwdBefore = readFile("/etc/passwd");
    const std::string groupBefore = readFile("/etc/group");
    ASSERT_FALSE(passwdBefore.empty());
    const std::pair<const char*, const char*> refused[] = {
        {"this is not json", "Failed to read /volume1/@tmp/pkginstall/conf/privilege"},
        {R"({"username": "root"})", "User root is reservered for system"},
        {R"({"username": "daemon"})", "User daemon is reservered for system"},
        {R"({"username": "admin"})", "User admin is reservered"},
        {R"({"username": "nobody"})", "User nobody is reservered"},
        {R"({"groupname": "users"})", "Group users is reservered"},
        {R"({"username": "pkga", "groupname": "administrators"})",
         "Group administrators is reservered for system"},
        {R"({"groupname": "system"})", "Group system is reservered"}};
    for (const auto& [conf, line] : refused) {
        writeConf(staging, conf);
        EXPECT_FALSE(ReviseFileAttr("pkga", staging, false)) << conf;
        EXPECT_TRUE(logged(line)) << conf;
    }
    // Nothing was changed on the accounts.
    EXPECT_EQ(readFile("/etc/passwd"), passwdBefore);
    EXPECT_EQ(readFile("/etc/group"), groupBefore);
}

TEST_F(PrivilegeTest, Accounts) {
    // By an id in the system's range; -1 stands for "no id".
    EXPECT_TRUE(ZARNUserIsReserved("pkga", 999));
    EXPECT_FALSE(ZARNUserIsReserved("pkga", 1000) || ZARNUserIsReserved("pkga", -1));
    EXPECT_TRUE(ZARNGroupIsReserved("users", 100) && ZARNGroupIsReserved("system", -1));
    EXPECT_FALSE(ZARNGroupIsReserved("pkga", -1));
    ZARNGroupRecord* record = nullptr;
    ASSERT_EQ(ZARNGroupGet("administrators", &record), 0);
    const bool onlyAdmin = record->members[0] != nullptr &&
                           std::string(record->members[0]) == "admin" && !record->members[1];
    ZARNGroupFree(record);
    EXPECT_TRUE(onlyAdmin);

    // Names that the account tools could read as options are refused before any tool runs.
    EXPECT_LT(ZARNLocalAccountUserPrepareForPkg("-o", "pkga", "/var/packages/x/target"), 0);
    EXPECT_EQ(VLIBCErrGet(), 0x0d00);
    EXPECT_LT(ZARNLocalAccountUserPrepareForPkg("pkga", "a:b", "/var/packages/x/target"), 0);
    EXPECT_LT(ZARNLocalAccountUserPrepareForPkg("pkga", "pkga", "relative"), 0);

    // An id of -1 would leave a child with the caller's identity: such an account is refused.
    writeFile("/etc/passwd", readFile("/etc/passwd") +
                                 "wrapuid:x:4294967295:100::/x:/sbin/nologin\n"
                                 "wrapgid:x:1200:4294967295::/x:/sbin/nologin\n");
    ZARNRuntimeIdentity identity;
    EXPECT_LT(ZARNRuntimeIdentityGet("wrapuid", true, identity), 0);
    EXPECT_LT(ZARNRuntimeIdentityGet("wrapgid", true, identity), 0);
    writeConf("/var/packages/wrap", R"({"username": "wrapuid"})");
    EXPECT_EQ(idUnder("wrap", "status"), "-1 ");
}

TEST_F(PrivilegeTest, ResolveRelPath) {
    using ZARN::PkgUtils::IsLegalRelPath;
    using ZARN::PkgUtils::ResolveRelPath;
    const std::string top = staging + "/package";
    writeFile(top + "/bin/tool", "x", 0755);
    writeFile(staging + "/secret", "x");
    writeFile("/etc/shadow", "root:*:1::::::\n", 0600);
    ASSERT_TRUE(ZARNSymlink("tool", top + "/bin/alias"));
    ASSERT_TRUE(ZARNSymlink("/etc/shadow", top + "/bin/shadow"));
    ASSERT_TRUE(ZARNSymlink("../../secret", top + "/bin/up"));
    ASSERT_TRUE(ZARNSymlink("/etc", top + "/etcdir"));
    ASSERT_TRUE(ZARNSymlink("/etc/shadow", top + "/abs-link"));
    // A link straight to the machine's own file.
    ASSERT_EQ(symlink("/etc/passwd", phys(top + "/machine2").c_str()), 0);

    EXPECT_TRUE(IsLegalRelPath(top, "bin/tool") && IsLegalRelPath(top, "./bin//tool"));
    for (const char* bad : {"", ".", "/etc/shadow", "../../etc/shadow", "bin/../../x"}) {
        EXPECT_FALSE(IsLegalRelPath(top, bad)) << bad;
    }
    EXPECT_FALSE(IsLegalRelPath("", "bin/tool"));

    std::string full;
    EXPECT_EQ(OutIf(ResolveRelPath(top, "bin/tool", full), full), top + "/bin/tool");
    EXPECT_EQ(OutIf(ResolveRelPath(top, "bin/alias", full), full), top + "/bin/tool");
    // A missing tail is joined as it stands, for the caller's open to report.
    EXPECT_EQ(OutIf(ResolveRelPath(top, "bin/none/more", full), full), top + "/bin/none/more");
    for (const char* bad : {"../../etc/shadow", "/etc/shadow", "bin/shadow", "bin/up",
                            "etcdir/shadow", "abs-link", "bin/../../secret", "machine2"}) {
        EXPECT_FALSE(ResolveRelPath(top, bad, full)) << bad;
        EXPECT_TRUE(full.empty()) << bad;
    }
}

TEST_F(PrivilegeTest, ExeAndToolWalkerRefusals) {
    const std::string top = staging + "/package";
    writeFile(top + "/bin/tool", "x", 0755);
    writeFile("/etc/shadow", "root:*:1::::::\n", 0600);
    ASSERT_TRUE(ZARNSymlink("/etc/shadow", top + "/shadowlink"));
    ExeWalker exe(top, geteuid(), getegid());
    ToolWalker tool(top, geteuid(), getegid());
    // Called on their own with something other than an object, the walkers refuse it.
    CtrlScriptWalker script("status");
    for (IWalker* walker : std::vector<IWalker*>{&exe, &tool, &script}) {
        VLIBCErrSet(ZARN_ERR_NONE);
        EXPECT_EQ(walker->walk(Parse(R"(["bin/tool"])")), WALK_FAILED);
        EXPECT_EQ(VLIBCErrGet(), 0x4000);
    }
    EXPECT_EQ(script.GetIdentity(), IDENTITY_NONE);

    auto exeResult = [&](const std::string& text) {
        VLIBCErrSet(ZARN_ERR_NONE);
        return TraversePrivilege(Parse(R"({"executable": [)" + text + "]}"), "executable", exe);
    };
    // A tool entry for `relpath` with the rest of its fields.
    auto toolResult = [&](const std::string& relpath, const std::string& rest) {
        VLIBCErrSet(ZARN_ERR_NONE);
        return TraversePrivilege(
            Parse(R"({"tool": [{"relpath": ")" + relpath + "\", " + rest + "]}"), "tool", tool);
    };
    auto perm = [](const std::string& mode) {
        return R"("user": "package", "group": "package", "permission": ")" + mode + "\"}";
    };
    const std::pair<const char*, unsigned> exeRefusals[] = {
        {R"({"relpath": "bin/tool"})", 0x4000},
        {R"({"relpath": 5, "run-as": "root"})", 0x4000},
        {R"({"relpath": "bin", "run-as": "root"})", 0xd900},
        {R"({"relpath": "bin/none", "run-as": "root"})", 0x0700},
        {R"({"relpath": "bin/tool", "run-as": "admin"})", 0x4000}};
    for (const auto& [entry, code] : exeRefusals) {
        EXPECT_EQ(FailedWith(exeResult(entry)), code) << entry;
    }
    // Numbers among the elements are skipped.
    EXPECT_TRUE(exeResult(R"(3, {"relpath": "bin/tool", "run-as": "package"})"));

    const std::pair<const char*, unsigned> toolRefusals[] = {
        {R"("user": "root", "group": "root"})", 0x4000},
        {R"("user": "system", "group": "root", "permission": "0755"})", 0xd900},
        {R"("user": "", "group": "root", "permission": "0755"})", 0x4000},
        {R"("user": "package", "group": "system", "permission": "0755"})", 0xd900}};
    for (const auto& [rest, code] : toolRefusals) {
        EXPECT_EQ(FailedWith(toolResult("bin/tool", rest)), code) << rest;
    }
    for (const char* mode : {"0789", "755", "07555", "", "+755", " 755", "8000"}) {
        EXPECT_EQ(FailedWith(toolResult("bin/tool", perm(mode))), 0x4000) << mode;
        EXPECT_EQ(modeOf(top + "/bin/tool"), 0755u) << mode;
    }
    EXPECT_TRUE(logged("Failed to revise " + top + "/bin/tool [0x4000"));
    // Both walkers open their files alike, through the package's own folder.
    EXPECT_FALSE(toolResult("shadowlink", perm("0777")));
    EXPECT_TRUE(logged("Failed to resolve shadowlink [0x"));
    EXPECT_EQ(modeOf("/etc/shadow"), 0600u);
    // A link inside the package is passed over, not followed to the file it names.
    ASSERT_TRUE(ZARNSymlink("tool", top + "/bin/alias"));
    ASSERT_TRUE(ZARNSymlink("bin", top + "/dir"));
    for (const char* relpath : {"bin/alias", "dir/tool"}) {
        EXPECT_TRUE(toolResult(relpath, perm("4777"))) << relpath;
        EXPECT_TRUE(
            exeResult(std::string(R"({"relpath": ")") + relpath + R"(", "run-as": "root"})"))
            << relpath;
        EXPECT_EQ(modeOf(top + "/bin/tool"), 0755u) << relpath;
    }
    EXPECT_TRUE(logged("Passed over bin/alias"));
    // Any four octal digits name a mode, set-ID bits included.
    for (const auto& [text, mode] :
         {std::pair<const char*, mode_t>{"0750", 0750}, {"4755", 04755}, {"7777", 07777}}) {
        EXPECT_TRUE(toolResult("bin/tool", perm(text))) << text;
        EXPECT_EQ(modeOf(top + "/bin/tool"), mode) << text;
    }
}

TEST_F(PrivilegeTest, TmpFolder) {
    VLIBCErrSet(ZARN_ERR_NONE);
    EXPECT_EQ(GetTmpFolderPath("", "/volume1"), "");
    EXPECT_EQ(VLIBCErrGet(), 0x0d00);
    EXPECT_EQ(GetTmpFolderPath("pkga", "/volume2"), "/volume2/@tmp/zarnpkg.tmp/pkga");
    EXPECT_EQ(GetTmpFolderPath("pkga", "/usr/local/packages"),
              "/usr/local/packages/@tmp/zarnpkg.tmp/pkga");
    EXPECT_EQ(GetTmpFolderPath("pkga", "/srv"), "");
    EXPECT_EQ(GetTmpFolderPath("pkga", nullptr), "");  // no target link

    addPackage("pkga");
    EXPECT_EQ(GetTmpFolderPath("pkga", nullptr), "/volume1/@tmp/zarnpkg.tmp/pkga");
    // The head of a target under /usr/local/packages is "/usr": no folder.
    addPackage("pkgb", "", "/usr/local/packages/@appstore/pkgb");
    EXPECT_EQ(GetTmpFolderPath("pkgb", nullptr), "");

    EXPECT_FALSE(CreateTmpFolder("", "/volume1/@tmp/x"));
    EXPECT_FALSE(CreateTmpFolder("pkga", ""));
    // A conf/privilege naming an account that doesn't exist.
    const std::string path = GetTmpFolderPath("pkga", nullptr);
    writeConf("/var/packages/pkga", R"({"username": "ghost"})");
    EXPECT_FALSE(CreateTmpFolder("pkga", path));
    EXPECT_TRUE(logged("Failed to get id of ghost [0x1D00"));
    writeConf("/var/packages/pkga", "nope");
    EXPECT_FALSE(CreateTmpFolder("pkga", path));
    EXPECT_TRUE(logged("Failed to get username of pkga [0x0A00"));
}

TEST_F(PrivilegeTest, ReplaceVariables) {
    Json::Value target;
    VLIBCErrSet(ZARN_ERR_NONE);
    EXPECT_EQ(FailedWith(ReplaceVariables(Parse("[]"), target)), 0x0d00);

    const Json::Value dict = Parse(
        R"({"A": true, "B": false, "name": "pkg", "port": 8080, "n": null, "o": {}, "l": [],
            "loop": "{{loop}}"})");
    target = Parse(R"({
        "flag": "{{A}}", "off": "{{B}}", "mixed": "x{{A}}", "text": "run {{name}} on {{port}}",
        "plain": "nothing", "num": 3, "nested": {"list": ["{{MISSING}}", "a", "{{name}}"]},
        "stray": "a}}b", "obj": "{{o}}", "null": null, "self": "{{loop}}/{{loop}}"})");
    ASSERT_TRUE(ReplaceVariables(dict, target));
    // A bool is not put into text, and a value holding its own marker ends up with markers and
    // goes, as do objects, nulls and stray braces.
    EXPECT_EQ(Json::toCompactString(target),
              R"({"flag":true,"nested":{"list":["a","pkg"]},"num":3,"off":false,)"
              R"("plain":"nothing","text":"run pkg on 8080"})");
    Json::Value list = Parse(R"(["{{MISSING}}", "a"])");
    ASSERT_TRUE(ReplaceVariables(Parse("{}"), list));
    EXPECT_EQ(Json::toCompactString(list), R"(["a"])");
}
