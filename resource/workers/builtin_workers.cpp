#include "resource/workers/builtin_workers.h"

#include "resource/workers/csp_rule.h"
#include "resource/workers/service_cfg.h"
#include "resource/workers/usr_local_linker.h"

namespace ZARNPackageTool {
namespace Resource {

// Only workers whose class exists have a row (in parentheses below); the others join in this
// order as they are built:
// sdk-plugin, (service-cfg), indexdb, pam-config, syslog-config, zarnlog, userdata-collector,
// webapi-desc (twice), data-share (three times), crontab-job, port-config, pgsql-db, web-config
// (twice), feasibility-config, worker-plugin, (usr-local-linker), backup-backend, zarncrond,
// (csp-rule), sysnotify, media-index (twice), selfcheck, certificate-config, content-extractor,
// tls-profile.
const BuiltinWorkerRow g_BuiltinWorkers[] = {
    {"service-cfg", 0x12, MakeWorker<ServiceCfg>},
    {"usr-local-linker", 0x88, MakeWorker<UsrLocalLinker>},
    {"csp-rule", 0x88, MakeWorker<CspRule>},
    {nullptr, 0, nullptr},
};

}  // namespace Resource
}  // namespace ZARNPackageTool
