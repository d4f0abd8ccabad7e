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
    // b leaves a message for the user whenever it starts.
    addServicePackage("b", "a", "", "prestart) echo 'b is back' >\"$ZARNPKG_TEMP_LOGFILE\" ;;");
    addServicePackage("veto", "", "",
                      "prestart) echo 'the disk is full' >\"$ZARNPKG_TEMP_LOGFILE\"; exit 1 ;;");
    addServicePackage("needy", "", "start_dep_services=\"ftpd nfsd crond\"\n");
    // Services of other accounts must get through to their payloads.
    ASSERT_TRUE(ZARNChmod("/volume1/@appstore", 0700));

    // With nothing running, a start of the dependant starts only it.
    for (const Args& args : {Args{"start", "b"}, Args{"stop", "b"}, Args{"start", "a"},
                             Args{"start", "b"}, Args{"restart", "a"}}) {
        const CliRun run = RunZarnpkg(root(), args);
        EXPECT_EQ(run.status, 0) << Shown(args) << run.err;
    }
    EXPECT_EQ(modeOf("/volume1/@appstore"), 0755u);
    EXPECT_TRUE(processAlive("a"));
    EXPECT_TRUE(processAlive("b"));
    EXPECT_EQ(trace({"start", "stop"}),
              (std::vector<std::string>{"start b", "stop b", "start a", "start b", "stop b",
                                        "stop a", "start a", "start b"}));
    // A package started on behalf of another passes its message on to the administrators.
    const std::string events = readFile("/var/log/zarnhost/events.log");
    EXPECT_EQ(CountOf(events, "-e Pkg b: b is back"), 1u) << events;
    // Each action is logged from its beginning to its result, and the package log has each
    // script the action ran, the job's own included.
    const std::string history = readFile("/var/log/zarnpkg.log");
    for (const char* line :
         {"restart a: begin to stop packages b,a", "restart a: begin to start packages a,b",
          "restart a: start version 1.0 successfully, result 0"}) {
        EXPECT_NE(history.find(line), std::string::npos) << line << "\n" << history;
    }
    const std::string log = readFile("/var/log/packages/b.log");
    for (const char* call : {"prestop", "stop", "prestart", "start"}) {
        EXPECT_NE(log.find(std::string("start-stop-status ") + call + " ret=[0]"),
                  std::string::npos)
            << call << "\n"
            << log;
    }

    // A stop runs the hooks of the dependants first and takes their flags.
    ASSERT_TRUE(ZARNUnlink("/trace"));
    const CliRun stop = RunZarnpkg(root(), WithJson({"stop", "a"}));
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(ParseJson(stop.out)["action"], "stop") << stop.out;
    EXPECT_EQ(trace({"prestop"}), Calls("prestop", {"b", "a"}));
    EXPECT_EQ(trace({"stop"}), Calls("stop", {"b", "a"}));
    for (const char* name : {"a", "b"}) {
        EXPECT_FALSE(processAlive(name)) << name;
        EXPECT_FALSE(ZARNPathExists(std::string("/var/packages/") + name + "/enabled")) << name;
    }

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
