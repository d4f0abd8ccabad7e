#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/export.h"

// The job runner of the standalone host. Jobs are the files /etc/init/<job>.conf of the root,
// in the init daemon's format; the runner reads their `env` lines and their `pre-start script`
// and `post-stop script` blocks. A start runs the pre-start block with /bin/sh -e, a stop the
// post-stop block; appliance paths in a block lead into the root. The state of a job lives in
// /run/zarnhost/jobs/<job>.json as {"state": 1, "process": 1, "phase": 1}; a job without a
// state file counts as stopped (state 0). A job is disabled by an override file that says
// "manual", as with the init daemon.

// Phases of a job as VLIBServicectlStatus reports them.
constexpr int ZARN_JOB_PHASE_WAITING = 0;
constexpr int ZARN_JOB_PHASE_RUNNING = 1;
constexpr int ZARN_JOB_PHASE_FAILED = 2;

// A name that can be a job or a service: not empty, no "/", no leading ".", no control
// characters.
ZARNHOST_API bool ZARNJobNameValid(const std::string& job);
// The job file and its override (logical paths).
ZARNHOST_API std::string ZARNJobFilePath(const std::string& job);
ZARNHOST_API std::string ZARNJobOverridePath(const std::string& job);

// What the runner takes from a job file.
struct ZARNJobFile {
    std::vector<std::pair<std::string, std::string>> env;
    bool hasPreStart = false;
    std::string preStart;
    bool hasPostStop = false;
    std::string postStop;
};
// Parses job text. Stanzas other than `env` and the two blocks are accepted and left alone.
// False for a block without its `end script`, a block inside another, or an `env` line
// without a NAME=VALUE.
ZARNHOST_API bool ZARNJobParse(const std::string& text, ZARNJobFile& out);
// Reads and parses a job file. False (last error set) when it is missing (0x0700), unreadable,
// larger than the runner accepts, or malformed.
ZARNHOST_API bool ZARNJobLoad(const std::string& job, ZARNJobFile& out);

// Starts a job: runs its pre-start block; the job runs when the block succeeds and has failed
// when it doesn't. A running job is left as it is. 0, or negative (last error set).
ZARNHOST_API int ZARNJobStart(const std::string& job);
// Stops a job: runs its post-stop block when the job runs. 0, or negative (last error set).
ZARNHOST_API int ZARNJobStop(const std::string& job);
// Records an event that a job emits, with its NAME=VALUE words, in the events log.
ZARNHOST_API int ZARNJobEmit(const std::string& event, const std::vector<std::string>& vars);

// Starts a service: its run key becomes "enabled" and its init jobs are started in order.
// 0, or negative (last error set) when a job fails to start or the service has no jobs.
ZARNHOST_API int VLIBServiceStart(const std::string& service);
// Stops a service: its run key becomes "disabled" and its jobs are stopped, last first.
ZARNHOST_API int VLIBServiceStop(const std::string& service);
// As start and stop, without touching the run key.
ZARNHOST_API int VLIBServiceResume(const std::string& service);
ZARNHOST_API int VLIBServicePause(const std::string& service);

// The running state of a job or host service: `state` 1 when it runs, else 0. Returns 0, or a
// negative number (last error set) when the state can't be read.
ZARNHOST_API int VLIBServiceStatusGet(const std::string& job, int& state);
// The process state of a job: `process` 1 while its process is up, else 0; `phase` as above.
// Returns 0, or a negative number (last error set) when it can't be read.
ZARNHOST_API int VLIBServicectlStatus(const std::string& job, int& process, int& phase);
// 1 when the job runs, 0 when it doesn't, negative when its state can't be read.
ZARNHOST_API int VLIBServicectlIsJobRunning(const std::string& job);
// Enables a job (removes its "manual" override) or disables it (writes one). 0 or negative.
ZARNHOST_API int VLIBServicectlJobEnable(const std::string& job);
ZARNHOST_API int VLIBServicectlJobDisable(const std::string& job);
// 1 when the job has no "manual" override, 0 when it has one.
ZARNHOST_API int VLIBServicectlJobIsEnabled(const std::string& job);

// Where the job runner keeps the state of a job (logical path).
ZARNHOST_API std::string ZARNJobStatePath(const std::string& job);
// Records the state of a job for the job runner: `process` and `phase` as above.
ZARNHOST_API bool ZARNJobStateWrite(const std::string& job, int state, int process, int phase);
