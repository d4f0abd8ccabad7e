#include "platform/jobs.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>

#include "platform/apppriv.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/log.h"
#include "platform/process.h"
#include "platform/programs.h"
#include "platform/servicecfg.h"
#include "platform/services.h"
#include "platform/sysroot.h"
#include "platform/textsplit.h"

namespace {

constexpr const char* kJobDir = "/etc/init/";
constexpr const char* kJobStateDir = "/run/zarnhost/jobs";
constexpr const char* kJobLogDir = "/var/log/upstart";
// Job files are a few lines; anything near this size is not one.
constexpr size_t kJobFileLimit = 256 * 1024;
constexpr const char* kManual = "manual";

bool IsEnvName(const std::string& name) {
    if (name.empty() || (name[0] >= '0' && name[0] <= '9')) {
        return false;
    }
    for (char c : name) {
        if (!(c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
              (c >= '0' && c <= '9'))) {
            return false;
        }
    }
    return true;
}

bool ParseEnv(const std::string& stanza, std::pair<std::string, std::string>& out) {
    const std::string assignment = ZARNTrimText(stanza.substr(4));
    const size_t eq = assignment.find('=');
    if (eq == std::string::npos || !IsEnvName(assignment.substr(0, eq))) {
        return false;
    }
    std::string value = assignment.substr(eq + 1);
    if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0]) {
        value = value.substr(1, value.size() - 2);
    }
    out = {assignment.substr(0, eq), value};
    return true;
}

bool IsPathChar(char c) {
    return c == '/' || c == '.' || c == '_' || c == '-' || (c >= 'A' && c <= 'Z') ||
           (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// The appliance's own paths in a job's script lead into the root, where its tools are linked.
// The root's path goes into shell text, so only a plain one is accepted.
bool MapAppliancePaths(const std::string& script, std::string& out) {
    std::string root = ZARNPackageCore::GetSystemRoot();
    if (root == "/") {
        out = script;
        return true;
    }
    while (!root.empty() && root.back() == '/') {
        root.pop_back();
    }
    for (char c : root) {
        if (!IsPathChar(c) && c != '+' && c != '@' && c != ',' && c != ':') {
            ZLOGERR("Refused to run jobs under the root %s: its path needs shell quoting",
                    root.c_str());
            VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
            return false;
        }
    }
    static const std::string kPrefixes[] = {"/usr/zarn/", "/sbin/initctl", "/tmp/KOSTaskMgr/"};
    out.clear();
    for (size_t i = 0; i < script.size(); ++i) {
        if (i == 0 || !IsPathChar(script[i - 1])) {
            for (const std::string& prefix : kPrefixes) {
                if (script.compare(i, prefix.size(), prefix) == 0) {
                    out += root;
                    break;
                }
            }
        }
        out += script[i];
    }
    return true;
}

// Runs one script block of a job with /bin/sh -e, as the init daemon does, so that the first
// failing command fails the block. Its output goes to the job's console log.
int RunBlock(const std::string& job, const ZARNJobFile& file, const std::string& script) {
    std::string mapped;
    if (!MapAppliancePaths(script, mapped)) {
        return -1;
    }
    ZARNUtils::ProcessRunner runner({ZARNMachineProgram("/bin/sh"), "-e", "-c", mapped});
    runner.clearEnv();
    runner.setEnv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin");
    for (const auto& var : file.env) {
        runner.setEnv(var.first, var.second);
    }
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root != "/") {
        runner.setEnv("ZARNPKG_ROOT", root);
    }
    if (const char* logFile = getenv("ZARNPKG_LOG_FILE")) {
        runner.setEnv("ZARNPKG_LOG_FILE", logFile);
    }
    runner.setWorkingDirectory("/");
    Fd log;
    if (ZARNFSMkdirP(kJobLogDir, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) == 0) {
        log = ZARNOpen(std::string(kJobLogDir) + "/" + job + ".log",
                       O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0644);
    }
    if (log.valid()) {
        runner.setOutputFd(log.get());
    }
    return runner.run();
}

// Reads a job's state file. 1 read, 0 no such file, -1 unreadable.
int ReadJobState(const std::string& job, Json::Value& state) {
    if (!ZARNJobNameValid(job)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    const std::string path = ZARNJobStatePath(job);
    if (!ZARNPathExists(path)) {
        return 0;
    }
    if (!Json::fromFile(state, path) || !state.isObject()) {
        VLIBCErrSet(ZARN_ERR_IO);
        return -1;
    }
    return 1;
}

int IntMember(const Json::Value& obj, const char* key, int fallback) {
    const Json::Value& v = obj[key];
    return v.isInt() ? v.asInt() : fallback;
}

// Starts or stops the init jobs of a service; stops go last first and don't end at a failure.
int ControlService(const std::string& service, bool start, bool setRunKey) {
    std::vector<std::string> jobs;
    if (VLIBServicecfgInfoGet(service, ZARN_SERVICECFG_INIT_JOBS, jobs) < 0) {
        ZLOGERR("Failed to get the jobs of %s %s", service.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    if (jobs.empty()) {
        ZLOGERR("Service %s has no job", service.c_str());
        VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
        return -1;
    }
    if (setRunKey &&
        VLIBServicecfgRunKeySet(service, start ? ZARN_RUNKEY_ENABLED : ZARN_RUNKEY_DISABLED) < 0) {
        ZLOGERR("Failed to set the run key of %s %s", service.c_str(),
                ZARNLastErrorSuffix().c_str());
        return -1;
    }
    int result = 0;
    if (start) {
        for (const std::string& job : jobs) {
            if (ZARNJobStart(job) < 0) {
                return -1;
            }
        }
    } else {
        for (auto job = jobs.rbegin(); job != jobs.rend(); ++job) {
            if (ZARNJobStop(*job) < 0) {
                result = -1;
            }
        }
    }
    return result;
}

}  // namespace

bool ZARNJobNameValid(const std::string& job) {
    if (job.empty() || job[0] == '.') {
        return false;
    }
    for (unsigned char c : job) {
        if (c == '/' || c < 0x20 || c == 0x7f) {
            return false;
        }
    }
    return true;
}

std::string ZARNJobFilePath(const std::string& job) {
    return kJobDir + job + ".conf";
}

std::string ZARNJobOverridePath(const std::string& job) {
    return kJobDir + job + ".override";
}

bool ZARNJobParse(const std::string& text, ZARNJobFile& out) {
    out = ZARNJobFile();
    std::string ignored;
    std::string* block = nullptr;
    for (const std::string& line : ZARNSplitText(text, '\n')) {
        const std::string stanza = ZARNTrimText(line);
        if (block != nullptr) {
            if (stanza == "end script") {
                block = nullptr;
            } else {
                *block += line + "\n";
            }
            continue;
        }
        if (stanza.empty() || stanza[0] == '#') {
            continue;
        }
        if (stanza == "pre-start script" || stanza == "post-stop script") {
            const bool pre = stanza[1] == 'r';
            bool& seen = pre ? out.hasPreStart : out.hasPostStop;
            if (seen) {
                return false;
            }
            seen = true;
            block = pre ? &out.preStart : &out.postStop;
        } else if (stanza == "script" || stanza == "post-start script" ||
                   stanza == "pre-stop script") {
            block = &ignored;
        } else if (stanza.compare(0, 4, "env ") == 0) {
            out.env.emplace_back();
            if (!ParseEnv(stanza, out.env.back())) {
                return false;
            }
        }
    }
    return block == nullptr;
}

bool ZARNJobLoad(const std::string& job, ZARNJobFile& out) {
    if (!ZARNJobNameValid(job)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    std::string text;
    if (!ZARNFileRead(ZARNJobFilePath(job), text, kJobFileLimit + 1)) {
        VLIBCErrSet(errno == ENOENT ? ZARN_ERR_NO_FILE : ZARN_ERR_IO);
        return false;
    }
    if (text.size() > kJobFileLimit || !ZARNJobParse(text, out)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    return true;
}

int ZARNJobStart(const std::string& job) {
    ZARNJobFile file;
    if (!ZARNJobLoad(job, file)) {
        ZLOGERR("Failed to load job %s %s", job.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    const int running = VLIBServicectlIsJobRunning(job);
    if (running != 0) {
        return running < 0 ? -1 : 0;
    }
    if (!ZARNJobStateWrite(job, 0, 0, ZARN_JOB_PHASE_WAITING)) {
        ZLOGERR("Failed to record the state of %s %s", job.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    if (file.hasPreStart && RunBlock(job, file, file.preStart) != 0) {
        ZLOGERR("Job %s failed to start: its pre-start script failed", job.c_str());
        ZARNJobStateWrite(job, 0, 0, ZARN_JOB_PHASE_FAILED);
        VLIBCErrSet(ZARN_ERR_EXEC);
        return -1;
    }
    if (!ZARNJobStateWrite(job, 1, 1, ZARN_JOB_PHASE_RUNNING)) {
        ZLOGERR("Failed to record the state of %s %s", job.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    return 0;
}

int ZARNJobStop(const std::string& job) {
    ZARNJobFile file;
    if (!ZARNJobLoad(job, file)) {
        ZLOGERR("Failed to load job %s %s", job.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    const int running = VLIBServicectlIsJobRunning(job);
    if (running < 0) {
        return -1;
    }
    int result = 0;
    if (running == 1 && file.hasPostStop && RunBlock(job, file, file.postStop) != 0) {
        ZLOGERR("Job %s failed to stop: its post-stop script failed", job.c_str());
        VLIBCErrSet(ZARN_ERR_EXEC);
        result = -1;
    }
    // A job whose stop failed has stopped all the same, with the failure on record.
    if (!ZARNJobStateWrite(job, 0, 0,
                           result == 0 ? ZARN_JOB_PHASE_WAITING : ZARN_JOB_PHASE_FAILED)) {
        ZLOGERR("Failed to record the state of %s %s", job.c_str(), ZARNLastErrorSuffix().c_str());
        return -1;
    }
    return result;
}

int ZARNJobEmit(const std::string& event, const std::vector<std::string>& vars) {
    std::string line = "initctl emit " + event;
    bool valid = ZARNJobNameValid(event);
    for (const std::string& var : vars) {
        valid = valid && var.find('=') != std::string::npos && ZARNJobNameValid(var);
        line += " " + var;
    }
    if (!valid) {
        ZLOGERR("Refused to emit a malformed event");
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    return ZARNEventLog(line) ? 0 : -1;
}

int VLIBServiceStart(const std::string& service) {
    return ControlService(service, true, true);
}

int VLIBServiceStop(const std::string& service) {
    return ControlService(service, false, true);
}

int VLIBServiceResume(const std::string& service) {
    return ControlService(service, true, false);
}

int VLIBServicePause(const std::string& service) {
    return ControlService(service, false, false);
}

std::string ZARNJobStatePath(const std::string& job) {
    return std::string(kJobStateDir) + "/" + job + ".json";
}

int VLIBServiceStatusGet(const std::string& job, int& state) {
    state = 0;
    Json::Value record;
    const int read = ReadJobState(job, record);
    if (read < 0) {
        return -1;
    }
    if (read == 0) {
        // Not a job of the runner: a host service answers from the service list.
        state = VLIBServiceIsRunning(job) == 1 ? 1 : 0;
        return 0;
    }
    state = IntMember(record, "state", 0) == 1 ? 1 : 0;
    return 0;
}

int VLIBServicectlStatus(const std::string& job, int& process, int& phase) {
    process = 0;
    phase = ZARN_JOB_PHASE_WAITING;
    Json::Value record;
    const int read = ReadJobState(job, record);
    if (read <= 0) {
        return read;
    }
    const int state = IntMember(record, "state", 0) == 1 ? 1 : 0;
    process = IntMember(record, "process", state);
    phase =
        IntMember(record, "phase", state == 1 ? ZARN_JOB_PHASE_RUNNING : ZARN_JOB_PHASE_WAITING);
    return 0;
}

int VLIBServicectlIsJobRunning(const std::string& job) {
    Json::Value record;
    const int read = ReadJobState(job, record);
    if (read <= 0) {
        return read;
    }
    return IntMember(record, "state", 0) == 1 ? 1 : 0;
}

int VLIBServicectlJobEnable(const std::string& job) {
    if (!ZARNJobNameValid(job)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    const std::string path = ZARNJobOverridePath(job);
    std::string text;
    if (!ZARNFileRead(path, text)) {
        return errno == ENOENT ? 0 : -1;
    }
    std::string kept;
    for (const std::string& line : ZARNSplitText(text, '\n')) {
        if (ZARNTrimText(line) != kManual) {
            kept += line + "\n";
        }
    }
    if (ZARNTrimText(kept).empty()) {
        return ZARNUnlink(path) || errno == ENOENT ? 0 : -1;
    }
    return ZARNFileWrite(path, kept) ? 0 : -1;
}

int VLIBServicectlJobDisable(const std::string& job) {
    if (!ZARNJobNameValid(job)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return -1;
    }
    if (VLIBServicectlJobIsEnabled(job) == 0) {
        return 0;
    }
    return ZARNFileAppend(ZARNJobOverridePath(job), std::string(kManual) + "\n") ? 0 : -1;
}

int VLIBServicectlJobIsEnabled(const std::string& job) {
    std::string text;
    if (!ZARNJobNameValid(job) || !ZARNFileRead(ZARNJobOverridePath(job), text)) {
        return 1;
    }
    for (const std::string& line : ZARNSplitText(text, '\n')) {
        if (ZARNTrimText(line) == kManual) {
            return 0;
        }
    }
    return 1;
}

bool ZARNJobStateWrite(const std::string& job, int state, int process, int phase) {
    if (!ZARNJobNameValid(job)) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (ZARNFSMkdirP(kJobStateDir, 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0755) !=
        0) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    Json::Value record(Json::objectValue);
    record["state"] = state;
    record["process"] = process;
    record["phase"] = phase;
    return Json::toFile(record, ZARNJobStatePath(job));
}
