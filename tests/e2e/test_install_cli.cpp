#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "platform/accounts.h"
#include "platform/files.h"
#include "service/extra_env.h"
#include "support/cli_runner.h"
#include "support/job_root.h"
#include "support/qar_builder.h"

namespace {

// Every script of a test package: it notes its run and the wizard value it saw in the root's
// /tmp/runs, fails when named by /tmp/fail, and, when named by /tmp/pause, tells the test by
// /tmp/ready and waits while that file names it.
constexpr const char* kScript =
    "#!/bin/sh\n"
    "me=$(basename \"$0\")\n"
    "echo \"$me $ZARNPKG_PKGNAME ${answer:-none}\" >>\"$ZARNPKG_ROOT/tmp/runs\"\n"
    "paused() { [ \"$(cat \"$ZARNPKG_ROOT/tmp/pause\" 2>/dev/null)\" = \"$me\" ]; }\n"
    "paused && : >\"$ZARNPKG_ROOT/tmp/ready\"\n"
    "while paused; do sleep 0.05; done\n"
    "[ \"$(cat \"$ZARNPKG_ROOT/tmp/fail\" 2>/dev/null)\" = \"$me\" ] && exit 1\n"
    "case \"$1\" in status) exit 3 ;; esac\n"
    "exit 0\n";

class InstallCliTest : public JobRootTest {
protected:
    // A test that stops half way leaves no example service running behind it.
    void TearDown() override {
        for (const char* name : {"heartbeat", "greeter"}) {
            const std::string pid =
                readFile(std::string("/volume1/@appstore/") + name + "/" + name + ".pid");
            if (!pid.empty()) {
                kill(std::stoi(pid), SIGTERM);
            }
        }
        JobRootTest::TearDown();
    }
    CliRun zarn(const std::vector<std::string>& args) { return RunZarnpkg(root(), args); }

    // A package with every script, a payload file and `info` lines; returns the QAR's path.
    std::string build(const std::string& name, const std::string& version,
                      const std::vector<std::pair<std::string, std::string>>& info = {}) {
        std::map<std::string, std::string> other;
        for (const char* s : {"preinst", "postinst", "preuninst", "postuninst", "preupgrade",
                              "postupgrade", "start-stop-status"}) {
            other[std::string("scripts/") + s] = kScript;
        }
        const std::string qar = "/tmp/" + name + "-" + version + ".qar";
        std::string err;
        EXPECT_TRUE(qartest::BuildQar(qar, qartest::BasicInfo(name, version, info),
                                      {{"data.txt", version}}, other, err))
            << err;
        return phys(qar);
    }
    std::string pack(const std::string& example) {
        const std::string qar = root() + "/tmp/" + example + ".qar";
        EXPECT_EQ(zarn({"pack", ZARN_SOURCE_DIR "/examples/" + example, "-o", qar}).status, 0);
        return qar;
    }
    int status(const std::string& name) {
        const Json::Value out = ParseJson(zarn({"--json", "status", name}).out);
        return out["success"].asBool() ? out["status"].asInt() : out["code"].asInt();
    }
    // Starts zarnpkg in the background with the arguments.
    pid_t spawn(const std::vector<std::string>& args) {
        const pid_t pid = fork();
        if (pid == 0) {
            std::vector<std::string> all = {ZARN_BINARY_DIR "/zarnpkg", "--root", root()};
            all.insert(all.end(), args.begin(), args.end());
            std::vector<char*> argv;
            for (std::string& a : all) {
                argv.push_back(a.data());
            }
            argv.push_back(nullptr);
            freopen("/dev/null", "w", stdout);
            freopen("/dev/null", "w", stderr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        return pid;
    }
    bool waitForFile(const std::string& logical) {
        for (int i = 0; i < 300 && !ZARNPathExists(logical); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return ZARNPathExists(logical);
    }
    // Whether the process is gone within two seconds; one that has exited counts as gone before
    // its parent reaps it.
    static bool gone(const std::string& pid) {
        for (int i = 0; i < 40; ++i) {
            std::ifstream stat("/proc/" + pid + "/stat");
            std::string field, comm, state;
            if (!(stat >> field >> comm >> state) || state == "Z") {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    static int exitOf(pid_t pid) {
        int st = 0;
        waitpid(pid, &st, 0);
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
};

// The road of real example packages: install and start, a dependant, a wizard value, a refused
// removal, an upgrade in place while running, a refused downgrade, the removal of all.
TEST_F(InstallCliTest, ExamplesTravelTheWholeRoad) {
    const std::string heartbeat = pack("heartbeat");
    const std::string greeter = pack("greeter");
    const std::string wizard = pack("wizard-demo");
    ASSERT_EQ(zarn({"install", heartbeat, "--start"}).status, 0) << logText();
    EXPECT_EQ(status("heartbeat"), 0);
    // Its payload belongs to its own account, and the first install set the update notice.
    uid_t uid = 0;
    gid_t gid = 0;
    ASSERT_EQ(ZARNUserGetUGID("heartbeat", &uid, &gid), 0);
    struct stat st;
    ASSERT_TRUE(ZARNStat("/volume1/@appstore/heartbeat/bin/heartbeat.sh", st));
    EXPECT_EQ(st.st_uid, uid);
    EXPECT_NE(readFile("/etc/zarninfo.conf").find("upgrade_pkg_kos_notification"),
              std::string::npos);
    const std::string pid = readFile("/volume1/@appstore/heartbeat/heartbeat.pid");
    EXPECT_EQ(kill(std::stoi(pid), 0), 0);
    // The loop runs as the package's account, started by the job runner, which took the extra
    // environment the start left for it.
    ASSERT_TRUE(waitForFile("/volume1/@appstore/heartbeat/heartbeat"));
    ASSERT_TRUE(ZARNStat("/volume1/@appstore/heartbeat/heartbeat", st));
    EXPECT_EQ(st.st_uid, uid);
    EXPECT_FALSE(ZARNPathExists(ZARNPackageTool::Service::ExtraEnvPath("heartbeat")));
    EXPECT_NE(readFile("/var/log/zarnhost/events.log")
                  .find("initctl emit zarn.pkgctl.started NAME=heartbeat"),
              std::string::npos);
    ASSERT_EQ(zarn({"install", greeter, "--start"}).status, 0) << logText();
    EXPECT_EQ(status("greeter"), 0);
    CliRun r = zarn({"install", wizard, "--wizard", R"({"wizard_owner": "Ada"})"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readFile("/volume1/@appstore/wizard-demo/owner"), "Ada\n");
    // Its control files moved into the registry, with the links to its payload and settings.
    EXPECT_TRUE(ZARNIsRegularFile("/var/packages/wizard-demo/WIZARD_UIFILES/install_uifile"));
    std::string link;
    EXPECT_TRUE(ZARNReadLink("/var/packages/wizard-demo/target", link));
    EXPECT_EQ(link, "/volume1/@appstore/wizard-demo");
    EXPECT_TRUE(ZARNReadLink("/var/packages/wizard-demo/etc", link));
    EXPECT_EQ(link, "/usr/zarn/etc/packages/wizard-demo");
    EXPECT_TRUE(ZARNIsDir("/var/packages/wizard-demo/etc"));

    r = zarn({"--json", "uninstall", "heartbeat"});
    EXPECT_EQ(r.status, 1);
    const Json::Value refused = ParseJson(r.out);
    EXPECT_EQ(refused["code"].asInt(), 0x10c);
    EXPECT_EQ(refused["params"]["deppkg"].asString(), "Greeter");

    // An upgrade in place keeps the running package running, with a new process.
    qartest::Run({"/bin/cp", "-a", ZARN_SOURCE_DIR "/examples/heartbeat", phys("/tmp/hb")});
    writeFile("/tmp/hb/INFO",
              "package=\"heartbeat\"\nversion=\"1.1.0-0001\"\narch=\"noarch\"\n"
              "displayname=\"Heartbeat\"\ndescription=\"d\"\nmaintainer=\"m\"\n");
    const std::string newer = root() + "/tmp/hb2.qar";
    ASSERT_EQ(zarn({"pack", phys("/tmp/hb"), "-o", newer}).status, 0);
    const Json::Value held = ParseJson(zarn({"--json", "install", newer}).out);
    EXPECT_EQ(held["code"].asInt(), 0x10d);  // greeter runs on it
    EXPECT_EQ(held["params"]["deppkg"].asString(), "Greeter");
    ASSERT_EQ(zarn({"install", newer, "--ignore-deps"}).status, 0) << logText();
    EXPECT_EQ(status("greeter"), 0);
    EXPECT_EQ(status("heartbeat"), 0);
    EXPECT_NE(readFile("/volume1/@appstore/heartbeat/heartbeat.pid"), pid);
    EXPECT_TRUE(gone(pid));

    r = zarn({"--json", "install", heartbeat});
    const Json::Value downgrade = ParseJson(r.out);
    EXPECT_EQ(downgrade["code"].asInt(), 0x10b);
    EXPECT_EQ(downgrade["params"]["oldver"].asString(), "1.0.0-0001");
    EXPECT_EQ(downgrade["params"]["curver"].asString(), "1.1.0-0001");

    const std::string beat = readFile("/volume1/@appstore/heartbeat/heartbeat.pid");
    for (const char* name : {"greeter", "heartbeat", "wizard-demo"}) {
        EXPECT_EQ(zarn({"uninstall", name}).status, 0) << name << logText();
        EXPECT_FALSE(ZARNPathExists(std::string("/var/packages/") + name));
        EXPECT_FALSE(ZARNPathExists(std::string("/volume1/@appstore/") + name));
    }
    EXPECT_TRUE(gone(beat));
    EXPECT_FALSE(ZARNPathExists("/etc/init/pkgctl-heartbeat.conf"));
    EXPECT_NE(readFile("/var/log/zarnhost/events.log")
                  .find("initctl emit zarn.pkgctl.stopping NAME=heartbeat"),
              std::string::npos);
}

// A failing script at each step leaves what the failure tables say, and wizard values reach
// the scripts of their own action only.
TEST_F(InstallCliTest, FailingScriptsAndWizardValues) {
    const std::string v1 = build("pkg", "1.0");
    struct Case {
        const char* failing;
        std::vector<std::string> action;
        int code;
        int statusAfter;
    };
    const Case cases[] = {
        {"preinst", {"install", v1}, 0x107, 0xff},
        {"postinst", {"install", v1}, 0x107, 0x96},
        {"", {"install", v1, "--wizard", R"({"answer": "yes"})"}, 0, 3},
        {"preuninst", {"uninstall", "pkg"}, 0x107, 3},
        {"", {"uninstall", "pkg"}, 0, 0xff},
    };
    for (const Case& c : cases) {
        writeFile("/tmp/fail", c.failing);
        writeFile("/tmp/runs", "");
        const CliRun r = zarn(WithJson(c.action));
        EXPECT_EQ(r.status, c.code == 0 ? 0 : 1) << c.failing << r.out;
        if (c.code != 0) {
            EXPECT_EQ(ParseJson(r.out)["code"].asInt(), c.code) << c.failing;
        }
        EXPECT_EQ(status("pkg"), c.statusAfter) << c.failing << logText();
    }
    // The last removal ran without the answer of the install before it.
    EXPECT_EQ(CountOf(readFile("/tmp/runs"), "none"), 2u) << readFile("/tmp/runs");
    EXPECT_EQ(CountOf(readFile("/tmp/runs"), "yes"), 0u);
    EXPECT_NE(readFile("/var/log/packages/pkg.log").find("preuninst"), std::string::npos);
}

// A payload with a FIFO is damage to the check and refused by the install before anything of it
// runs, naming the member.
TEST_F(InstallCliTest, HostilePayloadIsRefused) {
    writeFile("/tmp/payload.tar", qartest::RawTar({{"bin/pipe", "", '6'}, {"ok.txt", "x"}}));
    ASSERT_EQ(qartest::Run({"/bin/gzip", "-kf", phys("/tmp/payload.tar")}), 0);
    std::string err;
    ASSERT_TRUE(qartest::TarFromMap("/tmp/hostile.qar",
                                    {{"INFO", qartest::BasicInfo("hostile", "1.0")},
                                     {"package.tgz", readFile("/tmp/payload.tar.gz")},
                                     {"scripts/preinst", kScript}},
                                    false, err))
        << err;
    const Json::Value check = ParseJson(zarn({"--json", "check", phys("/tmp/hostile.qar")}).out);
    EXPECT_EQ(check["code"].asInt(), 0x105) << check;
    EXPECT_NE(check["params"]["refused"].asString().find("FIFO bin/pipe"), std::string::npos);
    writeFile("/tmp/runs", "");
    const CliRun r = zarn({"--json", "install", phys("/tmp/hostile.qar")});
    EXPECT_EQ(ParseJson(r.out)["code"].asInt(), 0x105) << r.out;
    EXPECT_NE(logText().find("bin/pipe"), std::string::npos) << logText();
    EXPECT_EQ(readFile("/tmp/runs"), "");
    EXPECT_FALSE(ZARNPathExists("/volume1/@appstore/hostile"));
}

// kill -9 at each pause that a script offers: the package is then absent or broken, and the
// next install of the same file repairs it into a working package.
TEST_F(InstallCliTest, KilledAtEachPauseIsRepairedByTheNextInstall) {
    const std::string v1 = build("crash", "1.0");
    const std::string v2 = build("crash", "2.0");
    struct Case {
        const char* pause;
        bool installedBefore;
        std::string file;
        int statusAfterKill;
    };
    const Case cases[] = {
        {"preinst", false, v1, 0xff},    {"postinst", false, v1, 0x96}, {"preupgrade", true, v2, 3},
        {"postupgrade", true, v2, 0x96}, {"preuninst", true, "", 3},
    };
    for (const Case& c : cases) {
        zarn({"uninstall", "crash", "--force"});
        if (c.installedBefore) {
            ASSERT_EQ(zarn({"install", v1}).status, 0) << logText();
        }
        writeFile("/tmp/pause", c.pause);
        ZARNUnlink("/tmp/ready");
        const pid_t pid =
            c.file.empty() ? spawn({"uninstall", "crash"}) : spawn({"install", c.file});
        ASSERT_TRUE(waitForFile("/tmp/ready")) << c.pause;
        kill(pid, SIGKILL);
        exitOf(pid);
        writeFile("/tmp/pause", "");
        EXPECT_EQ(status("crash"), c.statusAfterKill) << c.pause;
        const std::string file = c.file.empty() ? v1 : c.file;
        EXPECT_EQ(zarn({"install", file, "--start"}).status, 0) << c.pause << logText();
        EXPECT_EQ(status("crash"), 3) << c.pause;  // stopped: its script reports no process
        EXPECT_TRUE(ZARNPathExists("/var/packages/crash/target/data.txt")) << c.pause;
    }
}

// Two installs at once both succeed, one after the other on the lock; a third that can't have
// the lock within the host's limit fails with 0x113 and changes nothing.
TEST_F(InstallCliTest, ConcurrentInstallsSerializeOnTheLock) {
    const std::string a = build("aaa", "1.0");
    const std::string b = build("bbb", "1.0");
    const std::string c = build("ccc", "1.0");
    writeFile("/etc/zarnhost/locks.json", R"({"max_wait_seconds": 1})");
    writeFile("/tmp/pause", "preinst");
    const pid_t first = spawn({"install", a});
    ASSERT_TRUE(waitForFile("/tmp/ready"));
    const CliRun third = zarn({"--json", "install", c});
    EXPECT_EQ(ParseJson(third.out)["code"].asInt(), 0x113) << third.out;
    EXPECT_FALSE(ZARNPathExists("/var/packages/ccc"));
    EXPECT_FALSE(ZARNPathExists("/volume1/@appstore/ccc"));

    ZARNUnlink("/etc/zarnhost/locks.json");
    writeFile("/tmp/runs", "");
    const pid_t second = spawn({"install", b});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(ZARNPathExists("/var/packages/bbb"));  // waits for the lock
    writeFile("/tmp/pause", "");
    EXPECT_EQ(exitOf(first), 0);
    EXPECT_EQ(exitOf(second), 0);
    EXPECT_EQ(status("aaa"), 3);
    EXPECT_EQ(status("bbb"), 3);
    // The second began only when the first was done.
    const std::string runs = readFile("/tmp/runs");
    EXPECT_LT(runs.find("postinst aaa"), runs.find("preinst bbb")) << runs;
}

}  // namespace
