#include <gtest/gtest.h>

#include <string>

#include "core/packagemanager.h"
#include "platform/files.h"
#include "support/job_root.h"
#include "support/qar_builder.h"

using namespace ZARNPackageTool;

namespace {

class InstallTest : public JobRootTest {
protected:
    std::string build(const std::string& version) {
        const std::string qar = "/tmp/demo-" + version + ".qar";
        std::string err;
        EXPECT_TRUE(qartest::BuildQar(qar, qartest::BasicInfo("demo", version), {{"f", version}},
                                      {{"scripts/start-stop-status", "#!/bin/sh\nexit 3\n"}}, err))
            << err;
        return qar;
    }
};

// The kind of action follows the installed state, and a good action leaves the code preset for
// its kind: 0x115 for a fresh install, 0x114 for an upgrade, 0x116 for a repair.
TEST_F(InstallTest, KindOfActionAndItsPresetCode) {
    const std::string v1 = build("1.0");
    const std::string v2 = build("2.0");
    struct Step {
        const char* what;
        std::string file;
        const char* damaged;  // a file left as by an install that died half way
        bool installed;
        PKG_ERRCODE result;
    };
    const Step steps[] = {
        {"fresh", v1, nullptr, true, PKG_ERR_UPGRADE},
        {"upgrade", v2, nullptr, true, PKG_ERR_INSTALL},
        {"same version", v2, nullptr, true, PKG_ERR_INSTALL},
        {"broken", v2, "/var/packages/demo/installing", true, PKG_ERR_REPAIR},
        // An INFO that can't be read goes; the repair finds nothing to upgrade, and the next
        // install is a fresh one.
        {"unreadable INFO", v2, "/var/packages/demo/INFO", false, PKG_ERR_NOT_INSTALLED},
        {"after it", v2, nullptr, true, PKG_ERR_UPGRADE},
    };
    for (const Step& s : steps) {
        if (s.damaged != nullptr) {
            writeFile(s.damaged, "package=\"demo\"\n");
        }
        PackageManager pm;
        const bool installed =
            pm.install(nullptr, s.file, "", INST_RUN_NO_START, nullptr, nullptr, false, false);
        EXPECT_EQ(installed, s.installed) << s.what << logText();
        EXPECT_EQ(pm.getResult(), s.result) << s.what;
        EXPECT_FALSE(ZARNPathExists("/var/packages/demo/installing")) << s.what;
        EXPECT_EQ(ZARNPathExists("/var/packages/demo/INFO"), s.installed) << s.what;
    }
    EXPECT_EQ(readFile("/var/packages/demo/target/f"), "2.0");
    // The fresh pipeline itself refuses an installed package; the front door upgrades it.
    PackageManager pm;
    EXPECT_FALSE(pm.install_package(v2, "/volume1", "/volume1/@appstore", "/volume1/@tmp",
                                    INST_RUN_NO_START, nullptr, nullptr, nullptr, false));
    EXPECT_EQ(pm.getResult(), PKG_ERR_ALREADY_INSTALLED);
    EXPECT_TRUE(ZARNPathExists("/var/packages/demo/target/f"));
    EXPECT_FALSE(pm.installQAR(nullptr, "", ""));
    ASSERT_TRUE(pm.uninstallPKGs({"demo"}, false)) << logText();
    EXPECT_FALSE(ZARNPathExists("/var/packages/demo"));
}

}  // namespace
