#include <gtest/gtest.h>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/json.h"
#include "platform/servicecfg.h"
#include "support/job_root.h"

namespace {

class JobRunnerTest : public JobRootTest {
protected:
    void addService(const std::string& service, const std::string& jobText) {
        writeFile(ZARNJobFilePath(service), jobText);
        writeFile(ZARNServicecfgPath(service),
                  R"({"init_job_map": {"upstart": [")" + service + R"("]}})");
    }
};

TEST(JobParse, AcceptsJobTextAndRefusesMalformedBlocks) {
    ZARNJobFile job;
    ASSERT_TRUE(
        ZARNJobParse("# c\nstart on x\nenv SELF=\"a b\"\nenv N=1\n"
                     "script\n\tend\nend script\n"
                     "pre-start script\n\techo pre\nend script\n"
                     "post-stop script\n\techo post\n  end script  \n",
                     job));
    EXPECT_EQ(job.env,
              (std::vector<std::pair<std::string, std::string>>{{"SELF", "a b"}, {"N", "1"}}));
    EXPECT_EQ(job.preStart, "\techo pre\n");
    EXPECT_TRUE(job.hasPostStop);
    EXPECT_EQ(job.postStop, "\techo post\n");
    ASSERT_TRUE(ZARNJobParse("pre-start script\nend script\n", job));
    EXPECT_FALSE(job.hasPostStop) << "a job without post-stop stops with nothing to run";
    for (const char* bad : {"pre-start script\n\ttrue\n", "post-stop script\n",
                            "pre-start script\nend script\npre-start script\nend script\n",
                            "env =x\n", "env 1A=x\n", "env NOVALUE\n", "script\n"}) {
        EXPECT_FALSE(ZARNJobParse(bad, job)) << bad;
    }
}

// A start runs the pre-start block with appliance paths leading into the root; a pause leaves
// the run key as it was.
TEST_F(JobRunnerTest, RunsBlocksInsideTheRoot) {
    addService("svc", "pre-start script\n\techo ran >/tmp/KOSTaskMgr/out\nend script\n");
    writeFile("/tmp/KOSTaskMgr/.keep", "");
    ASSERT_EQ(VLIBServiceStart("svc"), 0) << logText();
    EXPECT_EQ(readFile("/tmp/KOSTaskMgr/out"), "ran\n");
    EXPECT_EQ(VLIBServicectlIsJobRunning("svc"), 1);
    EXPECT_EQ(VLIBServicecfgRunKeyGet("svc"), ZARN_RUNKEY_ENABLED);
    ASSERT_EQ(VLIBServicePause("svc"), 0);
    EXPECT_EQ(VLIBServicectlIsJobRunning("svc"), 0);
    EXPECT_EQ(VLIBServicecfgRunKeyGet("svc"), ZARN_RUNKEY_ENABLED) << "a pause keeps the run key";
    ASSERT_EQ(VLIBServiceResume("svc"), 0);
    EXPECT_EQ(VLIBServicectlIsJobRunning("svc"), 1);

    EXPECT_LT(VLIBServiceStart("nojob"), 0);
    EXPECT_TRUE(logged("Service nojob has no job"));
}

TEST_F(JobRunnerTest, EnablesAndDisablesThroughTheOverride) {
    EXPECT_EQ(VLIBServicectlJobIsEnabled("j"), 1);
    ASSERT_EQ(VLIBServicectlJobDisable("j"), 0);
    ASSERT_EQ(VLIBServicectlJobDisable("j"), 0);
    EXPECT_EQ(readFile(ZARNJobOverridePath("j")), "manual\n");
    ASSERT_EQ(VLIBServicectlJobEnable("j"), 0);
    EXPECT_FALSE(ZARNPathExists(ZARNJobOverridePath("j")));
    writeFile(ZARNJobOverridePath("j"), "manual\nstart on x\n");
    ASSERT_EQ(VLIBServicectlJobEnable("j"), 0);
    EXPECT_EQ(readFile(ZARNJobOverridePath("j")), "start on x\n");
    EXPECT_LT(VLIBServicectlJobDisable("../j"), 0);
}

}  // namespace
