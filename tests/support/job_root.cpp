#include "support/job_root.h"

#include <vector>

#include "platform/files.h"
#include "service/gen_job_adapter.h"
#include "service/gen_service_cfg.h"
#include "service/jobs.h"

using namespace ZARNPackageTool;

void JobRootTest::generateJob(const std::string& name, bool enabled) {
    if (enabled) {
        enable(name);
    }
    std::vector<std::string> jobs;
    ASSERT_TRUE(Service::EnumAvailableJobs(name, jobs));
    ASSERT_TRUE(Service::InstallJobs(name, jobs, true));
    ASSERT_TRUE(Service::GenJobAdapter(name, Json::Value(), true)) << logText();
    ASSERT_TRUE(Service::GenServiceCfg(name, Json::Value(), true)) << logText();
}
