#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <thread>

#include "platform/accounts.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/servicecfg.h"
#include "privilege/privilege.h"
#include "service/extra_env.h"
#include "support/job_root.h"
#include "support/qar_builder.h"

using namespace ZARNPackageTool;

namespace {

constexpr const char* kJob = "pkgctl-heartbeat";
constexpr const char* kBeat = "/volume1/@appstore/heartbeat/heartbeat";
constexpr const char* kPidFile = "/volume1/@appstore/heartbeat/heartbeat.pid";

// The example package whose start launches a background loop that writes a heartbeat file,
// started and stopped through its generated job by the job runner.
class HeartbeatTest : public JobRootTest {
protected:
    // Lays the example out as an installed package and does what the service-cfg resource does
    // for it.
    void install(bool ownAccount) {
        ASSERT_NO_FATAL_FAILURE(layOut(ownAccount));
        ASSERT_NO_FATAL_FAILURE(generateJob("heartbeat"));
    }
    void layOut(bool ownAccount) {
        const std::string stage = "/volume1/@tmp/heartbeat";
        makeDir("/volume1/@appstore");
        makeDir("/volume1/@tmp");
        ASSERT_EQ(
            qartest::Run({"/bin/cp", "-a", ZARN_SOURCE_DIR "/examples/heartbeat", phys(stage)}), 0);
        if (ownAccount) {
            ASSERT_TRUE(Privilege::ReviseFileAttr("heartbeat", stage, false)) << logText();
        } else {
            ASSERT_TRUE(ZARNUnlink(stage + "/conf/privilege"));
        }
        ASSERT_TRUE(ZARNRename(stage + "/package", "/volume1/@appstore/heartbeat"));
        ASSERT_TRUE(ZARNRename(stage, "/var/packages/heartbeat"));
        ASSERT_TRUE(ZARNSymlink("/volume1/@appstore/heartbeat", "/var/packages/heartbeat/target"));
    }
    static bool WaitFor(const std::function<bool()>& done) {
        for (int i = 0; i < 100; ++i) {
            if (done()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    // A process that has exited counts as gone even before its parent reaps it.
    static bool Alive(pid_t pid) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string pidField, comm, state;
        return stat >> pidField >> comm >> state && state != "Z";
    }

    void startSeeRunningStop(uid_t owner) {
        Service::DumpExtraEnv("heartbeat", PKG_INSTALLATION_START, "enu", "admin");
        ASSERT_EQ(VLIBServiceStart(kJob), 0)
            << logText() << readFile("/var/log/packages/heartbeat.log");
        EXPECT_EQ(VLIBServicectlIsJobRunning(kJob), 1);
        EXPECT_FALSE(ZARNPathExists(Service::ExtraEnvPath("heartbeat"))) << "read by zarnpkgctl";
        ASSERT_TRUE(WaitFor([&] { return !readFile(kBeat).empty(); })) << "no heartbeat";
        const std::string first = readFile(kBeat);
        EXPECT_TRUE(WaitFor([&] {
            const std::string now = readFile(kBeat);
            return !now.empty() && now != first;
        })) << "the heartbeat stopped";
        struct stat st;
        ASSERT_TRUE(ZARNStat(kBeat, st));
        EXPECT_EQ(st.st_uid, owner);
        const pid_t pid = std::stoi(readFile(kPidFile));
        EXPECT_TRUE(Alive(pid));
        EXPECT_NE(readFile("/var/log/zarnhost/events.log")
                      .find("initctl emit zarn.pkgctl.started NAME=heartbeat"),
                  std::string::npos);

        ASSERT_EQ(VLIBServiceStop(kJob), 0) << logText();
        EXPECT_EQ(VLIBServicectlIsJobRunning(kJob), 0);
        EXPECT_EQ(VLIBServicecfgRunKeyGet(kJob), ZARN_RUNKEY_DISABLED);
        EXPECT_TRUE(WaitFor([&] { return !Alive(pid); })) << "the loop outlived the stop";
        EXPECT_FALSE(ZARNPathExists(kBeat));
        EXPECT_NE(readFile("/var/log/zarnhost/events.log")
                      .find("initctl emit zarn.pkgctl.stopping NAME=heartbeat"),
                  std::string::npos);
    }
};

TEST_F(HeartbeatTest, StartsAndStopsThroughTheJobRunner) {
    install(false);
    startSeeRunningStop(0);
}

TEST_F(HeartbeatTest, RunsAsItsOwnAccountAsRoot) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "a package account needs root";
    }
    // The package's user must reach its payload inside the temporary root.
    ASSERT_TRUE(ZARNChmod("/", 0755));
    install(true);
    uid_t uid = 0;
    gid_t gid = 0;
    ASSERT_EQ(ZARNUserGetUGID("heartbeat", &uid, &gid), 0);
    ASSERT_NE(uid, 0u);
    startSeeRunningStop(uid);
}

// zarnpkgctl gives back the script's exit status, so a failing start fails the job.
TEST_F(HeartbeatTest, AFailingStartFailsTheJob) {
    addPackage("broken");
    writeFile("/var/packages/broken/scripts/start-stop-status",
              "#!/bin/sh\n[ \"$1\" = start ] && exit 7\nexit 0\n", 0755);
    generateJob("broken");
    EXPECT_LT(VLIBServiceStart("pkgctl-broken"), 0);
    int process = 1;
    int phase = 0;
    ASSERT_EQ(VLIBServicectlStatus("pkgctl-broken", process, phase), 0);
    EXPECT_EQ(phase, ZARN_JOB_PHASE_FAILED);
    const std::string tool = ZARN_BINARY_DIR "/zarnpkgctl";
    EXPECT_EQ(qartest::Run({tool, "start", "broken"}), 7);
    EXPECT_EQ(qartest::Run({tool, "stop", "broken"}), 0);
    EXPECT_EQ(qartest::Run({tool, "swap-on", "broken"}), 0);
    EXPECT_EQ(qartest::Run({tool, "restart", "broken"}), 2);
}

}  // namespace
