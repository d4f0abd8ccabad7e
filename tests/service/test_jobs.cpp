#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/servicecfg.h"
#include "service/extra_env.h"
#include "service/gen_service_cfg.h"
#include "service/jobs.h"
#include "support/job_root.h"

using namespace ZARNPackageTool;
using namespace ZARNPackageTool::Service;

namespace {

constexpr const char* kJob = "start on runlevel\npost-stop script\n\ttrue\nend script\n";
constexpr const char* kCgroups = "cgroup cpuacct \"pkgctl-p\"\ncgroup memory \"pkgctl-p\"\n";

class ServiceJobsTest : public JobRootTest {
protected:
    void addJob(const std::string& file, const std::string& text) {
        writeFile("/var/packages/p/conf/upstart/" + file, text);
    }
};

TEST_F(ServiceJobsTest, ListsOnlyPackageJobs) {
    addPackage("p");
    std::vector<std::string> jobs = {"stale"};
    ASSERT_TRUE(EnumAvailableJobs("p", jobs));
    EXPECT_TRUE(jobs.empty());
    for (const char* file :
         {"daemon.conf", "pkg-.conf", "pkg-a.b.conf", "pkg-b.conf", "pkgctl-x.conf", "pkg-c.txt"}) {
        addJob(file, kJob);
    }
    ASSERT_TRUE(EnumAvailableJobs("p", jobs));
    std::sort(jobs.begin(), jobs.end());
    EXPECT_EQ(jobs, (std::vector<std::string>{"pkg-a.b", "pkg-b"}));
    EXPECT_FALSE(EnumAvailableJobs("", jobs));
}

// Jobs are copied with their control groups and validated by initctl; a job too big for the
// runner to read, or missing, fails the call.
TEST_F(ServiceJobsTest, InstallsAndValidates) {
    addPackage("p");
    addJob("pkg-a.conf", kJob);
    addJob("pkg-b.conf", "env X=1\n");  // no post-stop: nothing to run at a stop
    addJob("pkg-c.conf", std::string(300 * 1024, '#'));
    EXPECT_EQ(FailedWith(InstallJobs("p", {"pkg-a", "pkg-b", "pkg-c"}, true)), 0x4000);
    EXPECT_TRUE(logged("Invalid job pkg-c"));
    EXPECT_EQ(FailedWith(InstallJobs("p", {"pkg-missing"}, true)), 0x3b00);

    ASSERT_TRUE(InstallJobs("p", {"pkg-a", "pkg-b", "other"}, true)) << logText();
    EXPECT_EQ(readFile("/etc/init/pkg-a.conf"), std::string(kJob) + kCgroups);
    writeFile("/etc/init/pkg-a.conf", "kept\n");
    ASSERT_TRUE(InstallJobs("p", {"pkg-a"}, false));
    EXPECT_EQ(readFile("/etc/init/pkg-a.conf"), "kept\n");

    writeFile("/etc/init/foo.conf", kJob);
    writeFile("/etc/init/pkg-a.override", "manual\n");
    UnlinkAllJobs("p", {"pkg-a", "foo", "pkg-gone"});
    for (const char* gone : {"pkg-a.conf", "pkg-a.override"}) {
        EXPECT_FALSE(ZARNPathExists(std::string("/etc/init/") + gone)) << gone;
    }
    EXPECT_TRUE(ZARNPathExists("/etc/init/foo.conf"));
    EXPECT_TRUE(ZARNPathExists("/etc/init/pkg-b.conf"));
}

TEST_F(ServiceJobsTest, FindsDependencies) {
    addPackage("p", "install_dep_packages=\"b:p:a\"\ninstall_dep_services=\"pgsql ssh\"\n");
    writeFile(ZARNServicecfgPath("pgsql"), R"({"init_job_map": {"upstart": ["pgsql", "pg2"]}})");
    writeFile("/etc/init/ssh-shell.conf", kJob);
    std::set<std::string> packages, services, jobs;
    ASSERT_TRUE(GetDependentPkg("p", packages, [](const std::string& n) { return "pkgctl-" + n; }));
    EXPECT_EQ(packages, (std::set<std::string>{"pkgctl-a", "pkgctl-b"}));
    ASSERT_TRUE(GetDependentService("p", services));
    EXPECT_EQ(services, (std::set<std::string>{"pgsql", "ssh-shell"}));
    ASSERT_TRUE(GetDependentJob("p", jobs));
    EXPECT_EQ(jobs, (std::set<std::string>{"pg2", "pgsql", "ssh-shell"}));
    writeFile(ZARNServicecfgPath("pgsql"), R"({"init_job_map": {"upstart": "pgsql"}})");
    EXPECT_FALSE(GetDependentJob("p", jobs));
    EXPECT_TRUE(logged("Failed to get dependent jobs for p"));
}

TEST_F(ServiceJobsTest, CreatesTmpFilesBesideTheTarget) {
    char buffer[64];
    ASSERT_TRUE(CreateTmpFile("/etc/init/x.conf", buffer, sizeof(buffer)));
    EXPECT_EQ(modeOf(buffer), 0600u);
    EXPECT_EQ(std::string(buffer).rfind("/etc/init/x.conf.", 0), 0u);
    EXPECT_EQ(FailedWith(CreateTmpFile("/etc/init/x.conf", buffer, 23)), 0x0100);
    EXPECT_TRUE(CreateTmpFile("/etc/init/x.conf", buffer, 24));
}

TEST_F(ServiceJobsTest, WritesTheServiceCfgAndItsRunKey) {
    addPackage("p");
    ASSERT_TRUE(GenServiceCfg("p", Json::Value(), false)) << logText();
    Json::Value cfg;
    ASSERT_TRUE(Json::fromFile(cfg, ZARNServicecfgPath("pkgctl-p")));
    EXPECT_EQ(Json::toCompactString(cfg),
              R"({"auto_start":"no","init_job_map":{"upstart":["pkgctl-p"]},"is_package":"yes"})");
    EXPECT_EQ(modeOf(ZARNServicecfgPath("pkgctl-p")), 0644u);
    EXPECT_EQ(VLIBServicecfgRunKeyGet("pkgctl-p"), 2);

    // The run key follows `enabled` anew, also when the file stays.
    writeFile(ZARNServicecfgPath("pkgctl-p"), "{}");
    enable("p");
    ASSERT_TRUE(GenServiceCfg("p", Json::Value(), false));
    EXPECT_EQ(VLIBServicecfgRunKeyGet("pkgctl-p"), 1);
    ASSERT_TRUE(GenServiceCfg("p", Json::Value(), true));
    EXPECT_EQ(VLIBServicecfgValidate(ZARNServicecfgPath("pkgctl-p")), 0);
    EXPECT_LT(VLIBServicecfgValidate("/var/packages/p/INFO"), 0);

    writeFile("/usr/zarn/etc/zarnservice.override/pkgctl-p.cfg", "{}");
    UnlinkServiceCfg("p");
    for (const std::string& path :
         {ZARNServicecfgPath("pkgctl-p"), ZARNServicecfgRuntimePath("pkgctl-p"),
          std::string("/usr/zarn/etc/zarnservice.override/pkgctl-p.cfg")}) {
        EXPECT_FALSE(ZARNPathExists(path)) << path;
    }
    EXPECT_FALSE(GenServiceCfg("", Json::Value(), true));
}

TEST_F(ServiceJobsTest, HandsTheExtraEnvironmentOverOnce) {
    DumpExtraEnv("p", PKG_INSTALLATION_START, "ger", "admin");
    PKG_INSTALLATION_TYPE type = PKG_INSTALLATION_STOP;
    char* language = nullptr;
    char* user = nullptr;
    ASSERT_TRUE(LoadExtraEnv("p", &type, &language, &user));
    EXPECT_EQ(type, PKG_INSTALLATION_START);
    EXPECT_STREQ(language, "ger");
    EXPECT_STREQ(user, "admin");
    EXPECT_EQ(FailedWith(LoadExtraEnv("p", &type, &language, nullptr)), ZARN_ERR_BAD_PARAMETERS)
        << "an out pointer in use";
    free(language);
    free(user);
    language = nullptr;
    ASSERT_TRUE(LoadExtraEnv("p", &type, &language, nullptr)) << "read once: no file is no error";
    EXPECT_EQ(type, PKG_INSTALLATION_NONE);
    EXPECT_EQ(language, nullptr);

    DumpExtraEnv("p", PKG_INSTALLATION_STOP, nullptr, nullptr);
    EXPECT_EQ(readFile(ExtraEnvPath("p")), "action=\"0x0010\"\n");
}

}  // namespace
