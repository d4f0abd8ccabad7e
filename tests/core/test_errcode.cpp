#include <gtest/gtest.h>

#include "core/errcode.h"

using namespace ZARNPackageTool;

// The key a caller shows: the server install's column first, then the file check's, then the
// default.
TEST(MessageKey, ServerColumnThenFileCheckThenDefault) {
    const struct {
        unsigned int code;
        const char* key;
    } cases[] = {
        {0xff, "pkgmgr:pkgmgr_pkg_not_available"},     // server column only
        {0x112, "pkgmgr:depend_cycle"},                // server column only
        {0x105, "pkgmgr:pkgmgr_file_not_package"},     // server before file check's broken_package
        {0x115, "pkgmgr:upgrade_fail"},                // server before file check's cannot_upgrade
        {0x117, "error:error_space_not_enough"},       // server before file check's no_space
        {0x96, "pkgmgr:pkgmgr_file_not_package"},      // file check column only
        {0x104, "pkgmgr:require_service"},             // file check, the plain variant
        {0x10c, "pkgmgr:error_upgrade_dep_packages"},  // server before depend_packages
        {0x121, "pkgmgr:pkgmgr_unknown_publisher"},    // file check column only
        {0x12f, "pkgmgr:pkgmgr_pkg_required_newer_version"},
        {0x107, "error:error_error_system"},
        {0x110, "error:error_error_system"},  // neither column
        {0x50, "error:error_error_system"},   // a status script's exit code
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PMSMessageKey(static_cast<PKG_ERRCODE>(c.code)), c.key) << std::hex << c.code;
    }
}
