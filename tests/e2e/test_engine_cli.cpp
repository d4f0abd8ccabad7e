#include <gtest/gtest.h>

#include "platform/files.h"
#include "platform/jobs.h"
#include "support/cli_runner.h"
#include "support/qar_builder.h"
#include "support/service_packages.h"

namespace {

using Args = std::vector<std::string>;

class EngineCliTest : public ServicePackagesTest {};

// start, stop and restart of a dependency chain through the binary, and the words of refusals.
TEST_F(EngineCliTest, StartStopRestartAChainAndExplainRefusals) {
    writeFile("/etc/zarnhost/services.json",
              R"({"services": [{"name": "ftpd", "display_name": "FTP Service", "enabled": false},
                               {"name": "nfsd", "enabled": false},
                               {"name": "crond", "display_name": "Scheduler", "enabled": true}]})");
    addServicePackage("a");
    addServicePackage("b", "a");
    addServicePackage("veto", "", "",
                      "prestart) echo 'the disk is full' >\"$ZARNPKG_TEMP_LOGFILE\"; exit 1 ;;");
    addServicePackage("needy", "", "start_dep_services=\"ftpd nfsd crond\"\n");

    for (const Args& args : {Args{"start", "a"}, Args{"start", "b"}, Args{"restart", "a"}}) {
        const CliRun run = RunZarnpkg(root(), args);
        EXPECT_EQ(run.status, 0) << Shown(args) << run.err;
    }
    EXPECT_TRUE(processAlive("a"));
    EXPECT_TRUE(processAlive("b"));
    EXPECT_EQ(trace({"start", "stop"}), (std::vector<std::string>{"start a", "start b", "stop b",
                                                                  "stop a", "start a", "start b"}));
    const CliRun stop = RunZarnpkg(root(), WithJson({"stop", "a"}));
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(ParseJson(stop.out)["action"], "stop") << stop.out;
    EXPECT_FALSE(processAlive("a"));
    EXPECT_FALSE(processAlive("b"));

    ASSERT_TRUE(ZARNUnlink("/trace"));
    struct Refusal {
        Args args;
        const char* code;
        const char* said;
    };
    const Refusal refusals[] = {
        {{"start", "veto"},
         "0x12c",
         "the package's own script refused to start veto: the disk is full"},
        {{"start", "needy"},
         "0x104",
         "needy can't start: these host services are not enabled: FTP Service, nfsd\n"},
        {{"stop", "ghost"}, "0xff", "package ghost is not installed"},
    };
    for (const Refusal& r : refusals) {
        const CliRun run = RunZarnpkg(root(), r.args);
        EXPECT_EQ(run.status, 1) << Shown(r.args);
        EXPECT_EQ(run.err.rfind(std::string("error: ") + r.code + " ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find(r.said), std::string::npos) << run.err;
    }
    // A refused start leaves nothing running or marked to run; the veto came before any start.
    for (const char* name : {"veto", "needy"}) {
        EXPECT_FALSE(processAlive(name)) << name;
        EXPECT_FALSE(ZARNPathExists(std::string("/var/packages/") + name + "/enabled")) << name;
    }
    EXPECT_EQ(trace({"prestart", "start"}), (std::vector<std::string>{"prestart veto"}));
    const Json::Value needy = ParseJson(RunZarnpkg(root(), WithJson({"start", "needy"})).out);
    EXPECT_EQ(needy["code"], 0x104) << needy;
    EXPECT_EQ(Json::toCompactString(needy["message"]),
              R"(["pkgmgr:require_service","FTP Service","nfsd"])")
        << needy;
}

// zarnpkgctl gives back the script's exit status, so a failing start fails the job.
TEST_F(EngineCliTest, AFailingStartFailsTheJob) {
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
