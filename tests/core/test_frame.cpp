#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "core/errcode.h"
#include "core/packagemanager.h"
#include "platform/files.h"
#include "platform/json.h"
#include "support/huge_alloc.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

TEST(Frame, ResultsParametersAndHelpers) {
    PackageManager pm;
    // The first value of a key is kept; a missing one reads as "".
    pm.insertMapParam("k", "first");
    pm.insertMapParam("k", "second");
    EXPECT_EQ(pm.getMapParam("k") + pm.getMapParam("nothing"), "first");
    EXPECT_EQ(pm.getJsonParam("nothing"), Json::Value(""));
    // A result without data clears the data of the one before.
    Json::Value out = "stale";
    pm.setResult(PKG_ERR_DOWNGRADE, Json::Value("x"));
    EXPECT_EQ(pm.getResult(out), PKG_ERR_DOWNGRADE);
    EXPECT_EQ(out, Json::Value("x"));
    pm.setResult(PKG_ERR_CONFLICT);
    EXPECT_EQ(pm.getResult(out), PKG_ERR_CONFLICT);
    EXPECT_TRUE(out.isNull());
    EXPECT_FALSE(pm.move("a", "b"));
    EXPECT_EQ(pm.getResult(), PKG_ERR_SYSTEM);
    EXPECT_EQ(pm.getLogFilePath(), "");
    EXPECT_EQ(pm.getFixedLogFilePath("demo"), "/tmp/zarnpkgmgr.log-demo");
    EXPECT_EQ(pm.getLogFilePath(), "/tmp/zarnpkgmgr.log-demo");

    EXPECT_TRUE(PMSExplodeString("", ":").empty());
    EXPECT_EQ(joinStringArray({"a", "b", "c"}, ", ") + joinStringArray({}, ", "), "a, b, c");
    // Numbers and flags join in their text form.
    Json::Value arr;
    ASSERT_TRUE(Json::fromString(arr, R"(["x", "y", 7, true])"));
    std::string joined;
    joinJsonArray(arr, "|", joined);
    EXPECT_EQ(joined, "x|y|7|true");
    EXPECT_EQ(djb2("a"), 5381u * 33 + 'a');
}

// The message of a code for the detail given as JSON text, as compact JSON.
std::string Message(PKG_ERRCODE code, const std::string& detail, const char* name = "") {
    Json::Value value;
    EXPECT_TRUE(detail.empty() || Json::fromString(value, detail)) << detail;
    return Json::toCompactString(PMSFileCheckMessage(code, value, name));
}

TEST(Frame, MessageKeyMappings) {
    const std::string versions = R"({"curVersion": "2.0", "insVersion": "1.0"})";
    const struct {
        PKG_ERRCODE code;
        std::string detail;
        const char* message;
    } cases[] = {
        {PKG_ERR_DOWNGRADE, versions, R"(["pkgmgr:downgrade_version","2.0","1.0"])"},
        {PKG_ERR_VERSION_LIMIT, versions,
         R"(["pkgmgr:pkg_install_version_less_than_limit","Demo","2.0","1.0"])"},
        {PKG_ERR_SERVICE_NOT_STARTED, R"({"serviceNoStarted": ["pgsql"]})",
         R"(["pkgmgr:require_service","pgsql"])"},
        {PKG_ERR_SERVICE_NOT_STARTED, R"({"serviceNoStarted": ["pgsql", "ssh-shell"]})",
         R"(["tree:require_sshd"])"},
        {PKG_ERR_DEPENDENCY, R"({"packages": {"a": "", "b": ""}})",
         R"(["pkgmgr:depend_packages","a, b"])"},
        {PKG_ERR_DEPENDENCY, R"({"packages": {"a": "", "b": ""}, "unStartPkgList": "c"})",
         R"(["pkgmgr:depend_uninst_unstart","a, b","c"])"},
        {PKG_ERR_DEPENDENCY, R"({"unStartPkgList": "c"})", R"(["pkgmgr:depend_unstart","c"])"},
        {PKG_ERR_PORT_CONFLICT, R"("123456789")", R"(["pkgmgr:port_conflict","1234567"])"},
        {PKG_ERR_OS_TOO_NEW, R"({"major": 6, "minor": 2, "build": 42, "nano": 99999})",
         R"(["pkgmgr:pkgmgr_pkg_required_older_version","6.2-0042"])"},
        {PKG_ERR_OS_TOO_NEW, R"({"major": 6, "minor": 2, "build": 42, "nano": 3})",
         R"j(["pkgmgr:pkgmgr_pkg_required_older_version","6.2-0042 (update 3)"])j"},
        {PKG_ERR_OS_TOO_OLD, R"("6.3-7-0")",
         R"(["pkgmgr:pkgmgr_pkg_required_newer_version","6.3-0007"])"},
        {PKG_ERR_OS_TOO_OLD, R"("6.2-25556-3")",
         R"j(["pkgmgr:pkgmgr_pkg_required_newer_version","6.2-25556 (update 3)"])j"},
        // Members of the wrong type or range give numbers of 0, never an exception.
        {PKG_ERR_OS_TOO_NEW, R"({"major": "6", "minor": [], "build": 1e30, "nano": 1099511627776})",
         R"(["pkgmgr:pkgmgr_pkg_required_older_version","0.0-0000"])"},
        {PKG_ERR_BROKEN, "", R"(["pkgmgr:pkgmgr_file_not_package"])"},
        {PKG_ERR_SIGN_NOT_MAKER, "", R"(["pkgmgr:pkgmgr_not_zarn_publish"])"},
        {PKG_ERR_SUCCESS, "", "[]"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Message(c.code, c.detail, "Demo"), c.message) << c.code << " " << c.detail;
    }
    EXPECT_EQ(Message(PKG_ERR_DOWNGRADE, R"({"curVersion": {"x": 1}})")
                  .rfind(R"(["pkgmgr:downgrade_version",)", 0),
              0u);
    for (unsigned int code : {0x100u, 0x110u, 0x130u, 0x137u, 0x50u}) {
        EXPECT_EQ(Message(static_cast<PKG_ERRCODE>(code), ""),
                  std::string("[\"") + PKG_MSG_DEFAULT + "\"]")
            << code;
    }

    EXPECT_EQ(PMSServerInstallMessageKey(PKG_ERR_BAD_PACKAGE), "pkgmgr:pkgmgr_file_not_package");
    EXPECT_EQ(PMSServerInstallMessageKey(PKG_ERR_START), PKG_MSG_DEFAULT);

    // The key a caller shows: the server install's column first, then the file check's, then
    // the default.
    const struct {
        unsigned int code;
        const char* key;
    } keys[] = {
        {0x113, "pkgmgr:error_occupied"},              // server column only
        {0x105, "pkgmgr:pkgmgr_file_not_package"},     // server before file check's broken_package
        {0x115, "pkgmgr:upgrade_fail"},                // server before file check's cannot_upgrade
        {0x117, "error:error_space_not_enough"},       // server before file check's no_space
        {0x104, "pkgmgr:require_service"},             // file check, the plain variant
        {0x10c, "pkgmgr:error_upgrade_dep_packages"},  // server before depend_packages
        {0x121, "pkgmgr:pkgmgr_unknown_publisher"},    // file check column only
        {0x12f, "pkgmgr:pkgmgr_pkg_required_newer_version"},
        {0x110, "error:error_error_system"},  // neither column
        {0x50, "error:error_error_system"},   // a status script's exit code
    };
    for (const auto& c : keys) {
        EXPECT_EQ(PMSMessageKey(static_cast<PKG_ERRCODE>(c.code)), c.key) << std::hex << c.code;
    }
}

class FrameRoot : public TempRootTest {};

TEST_F(FrameRoot, InitRepairsTheRegistryMode) {
    ASSERT_EQ(chmod(phys("/var/packages").c_str(), 0700), 0);
    PackageManager pm;
    ASSERT_TRUE(pm.init());
    EXPECT_EQ(modeOf("/var/packages"), 0755u);
    EXPECT_TRUE(ZARNIsDir("/usr/local/etc/rc.d"));
    EXPECT_FALSE(pm.getPackageInfoData()->extra.get()->arch_ids.empty());

    // A plain file where the registry should be makes init fail with a system error.
    ASSERT_TRUE(ZARNRemoveTree("/var/packages"));
    writeFile("/var/packages", "not a folder");
    PackageManager broken;
    EXPECT_FALSE(broken.init());
    EXPECT_EQ(broken.getResult(), PKG_ERR_SYSTEM);
    EXPECT_TRUE(logged("Failed to init packages registry dir /var/packages"));
}

TEST_F(FrameRoot, FileHelpers) {
    writeFile("/tmp/f", "0123456789");
    std::string out;
    unsigned long long size = 0;
    EXPECT_EQ(OutIf(PMReadFile("/tmp/f", 4, out, &size), out), "0123");
    EXPECT_EQ(size, 4u);
    EXPECT_FALSE(PMReadFile(nullptr, 0, out, nullptr) || PMReadFile("/tmp/none", 0, out, nullptr));
    EXPECT_TRUE(logged("Stat /tmp/none error"));
    // A sparse file larger than any memory is a memory error, not a crash. (A kernel that
    // grants every allocation would let the read run on instead.)
    writeFile("/tmp/huge", "");
    if (AllocationFails(size_t(1) << 40) && truncate(phys("/tmp/huge").c_str(), 1LL << 40) == 0) {
        EXPECT_FALSE(PMReadFile("/tmp/huge", 0, out, &size));
        EXPECT_TRUE(logged("Memory error"));
    }

    writeFile("/tmp/script", "#!/bin/sh\n", 0744);
    writeFile("/tmp/empty", "", 0755);
    writeFile("/tmp/plain", "x", 0644);
    EXPECT_TRUE(PMSCheckIsExec("/tmp/script"));
    EXPECT_FALSE(PMSCheckIsExec("/tmp/empty") || PMSCheckIsExec("/tmp/plain") ||
                 PMSCheckIsExec("/tmp/none"));

    ASSERT_EQ(symlink(phys("/tmp/f").c_str(), phys("/tmp/link").c_str()), 0);
    EXPECT_EQ(PMSReadLink("/tmp/link") + "|" + PMSReadLink("/tmp/f"), "/tmp/f|");
    long seconds = 0;
    std::string path = "/tmp/f";
    EXPECT_TRUE(GetFileModifiedTime(path, seconds));
    EXPECT_GT(seconds, 0);

    addPackage("demo");
    writeFile("/volume1/@appstore/demo/ui/texts/fre/strings", "[common]\nhello=\"bonjour\"\n");
    EXPECT_EQ(PMSGetText("hello", "fre", "common", "demo"), "bonjour");
    EXPECT_EQ(
        PMSGetText("bye", "fre", "common", "demo") + PMSGetText("hello", "fre", "other", "demo"),
        "");
    EXPECT_TRUE(logged("key no found [bye]"));
    EXPECT_EQ(PackageManager::getUpdatedAt("demo"), "");
    makeDir("/var/packages/demo/etc");
    EXPECT_EQ(PackageManager::getUpdatedAt("demo").size(), 10u);
}
