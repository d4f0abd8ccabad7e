#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// The service manager's configuration of the standalone host: one JSON file per service under
// /usr/zarn/etc/zarnservice.d, whose "init_job_map"."upstart" names the service's init jobs,
// and the run key of each service in its runtime record under /run/zarnservice/service.

// Where a service's configuration and runtime record live (logical paths).
ZARNHOST_API std::string ZARNServicecfgPath(const std::string& service);
ZARNHOST_API std::string ZARNServicecfgRuntimePath(const std::string& service);

// 0 when the file is a service configuration the manager accepts: an object whose
// "init_job_map"."upstart" is an array of job names and whose "auto_start" and "is_package",
// when present, are "yes" or "no". Negative (last error set) otherwise.
ZARNHOST_API int VLIBServicecfgValidate(const std::string& path);

// Run keys: 1 for an enabled service, 2 for a disabled one.
constexpr int ZARN_RUNKEY_ENABLED = 1;
constexpr int ZARN_RUNKEY_DISABLED = 2;
// Records the run key of a service. 0, or negative (last error set).
ZARNHOST_API int VLIBServicecfgRunKeySet(const std::string& service, int key);
// The run key of a service, 0 when none was set, negative when the record can't be read.
ZARNHOST_API int VLIBServicecfgRunKeyGet(const std::string& service);

// What VLIBServicecfgInfoGet looks up.
constexpr int ZARN_SERVICECFG_INIT_JOBS = 4;
// Fills `out` with the init jobs of a service (`what` ZARN_SERVICECFG_INIT_JOBS): those of its
// configuration, or, for a host service without one, the service itself when a job file of that
// name exists. 0, or negative (last error set) for another `what` or an unreadable file.
ZARNHOST_API int VLIBServicecfgInfoGet(const std::string& service, int what,
                                       std::vector<std::string>& out);
