#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// Host services of the standalone host, kept in /etc/zarnhost/services.json, and the jobs of
// the standalone job runner, whose state lives in /run/zarnhost/jobs/<job>.json as
// {"state": 1, "process": 1, "phase": 1}. A job without a state file is not known to the runner
// and counts as stopped (state 0).

// Names of all host services. False (last error set) when the list can't be read.
ZARNHOST_API bool VLIBServiceEnum(std::vector<std::string>& names);

// 1 when the host service is enabled, 0 when it isn't or isn't known, -1 when the list can't be
// read (last error set).
ZARNHOST_API int VLIBServiceIsEnabled(const std::string& name);
// 1 when the host service runs, 0 when it doesn't or isn't known, -1 when the list can't be read.
ZARNHOST_API int VLIBServiceIsRunning(const std::string& name);
// The display name of a host service: 0, or -1 (last error set) when the service or its display
// name is not known.
ZARNHOST_API int VLIBServicecfgDisplayNameGet(const std::string& name, std::string& displayName);

// The running state of a job or host service: `state` 1 when it runs, else 0. Returns 0, or a
// negative number (last error set) when the state can't be read.
ZARNHOST_API int VLIBServiceStatusGet(const std::string& job, int& state);
// The process state of a job: `process` 1 while its process is up, else 0; `phase` 0 waiting,
// 1 running, 2 failed. Returns 0, or a negative number (last error set) when it can't be read.
ZARNHOST_API int VLIBServicectlStatus(const std::string& job, int& process, int& phase);

// Phases of a job as VLIBServicectlStatus reports them.
constexpr int ZARN_JOB_PHASE_WAITING = 0;
constexpr int ZARN_JOB_PHASE_RUNNING = 1;
constexpr int ZARN_JOB_PHASE_FAILED = 2;

// Where the job runner keeps the state of a job (logical path).
ZARNHOST_API std::string ZARNJobStatePath(const std::string& job);
// Records the state of a job for the job runner: `process` and `phase` as above.
ZARNHOST_API bool ZARNJobStateWrite(const std::string& job, int state, int process, int phase);
