#include <algorithm>
#include <map>
#include <memory>
#include <mutex>

#include "core/control_script.h"
#include "core/packagemanager.h"
#include "core/registry.h"
#include "core/version.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/jobs.h"
#include "platform/log.h"
#include "platform/parallel_for.h"
#include "platform/parallel_runner.h"
#include "platform/services.h"
#include "platform/volumes.h"

namespace ZARNPackageTool {

namespace {

constexpr const char* kControlScript = "start-stop-status";
// Exit code of a status query that reports the package broken.
constexpr int kScriptBroken = 150;

std::string JobName(const std::string& name) {
    return "pkgctl-" + name;
}

// A volume works when the host knows it and its file system isn't marked crashed.
bool VolumeWorks(const std::string& volume) {
    ZARNFSInfo fs;
    int ret = FSInfoGet(volume.c_str(), &fs);
    bool works = ret >= 1 && (fs.status & ZARN_FS_STATUS_NOT_WORKING) == 0;
    FSInfoFree(&fs);
    return works;
}

}  // namespace

// The volumes' states that a batch of queries has asked, shared by the threads that ask: each
// volume is asked once.
struct PackageManager::VolumeStates {
    std::mutex lock;
    std::map<std::string, bool> known;

    bool works(const std::string& volume) {
        std::lock_guard<std::mutex> hold(lock);
        auto it = known.find(volume);
        if (it == known.end()) {
            it = known.emplace(volume, VolumeWorks(volume)).first;
        }
        return it->second;
    }
};

std::string PackageManager::getServiceScript(const std::string& name, PackageInfo& info) {
    const ScriptLookup found = lookupServiceScript(name, &info, nullptr, nullptr);
    if (found.script.empty()) {
        setResult(found.result);
    }
    return found.script;
}

PackageManager::ScriptLookup PackageManager::lookupServiceScript(const std::string& name,
                                                                 PackageInfo* read,
                                                                 const PackageInfo* loaded,
                                                                 VolumeStates* volumes) {
    ScriptLookup found;
    found.done = true;
    const std::string dir = PMSRegistryDir(name);
    const std::string script = dir + "/scripts/" + kControlScript;
    // A record that a scan has just loaded from the folder's INFO shows both there.
    if (loaded == nullptr && !PMSCheckPackage(name)) {
        found.result = PKG_ERR_NOT_INSTALLED;
        return found;
    }
    if (loaded == nullptr && !PMSLoadPKGInfoFile(dir, *read, nullptr, PKG_MASK_ALL)) {
        found.result = PKG_ERR_BROKEN;
        return found;
    }
    if (!ZARNIsDir(dir + "/target")) {
        found.result = PKG_ERR_BROKEN;
        return found;
    }
    // The loader has read the target's volume of the folder its record names.
    const PackageInfo& record = loaded != nullptr ? *loaded : *read;
    const std::string& volume = record.name == name ? record.extra.get()->target_volume
                                                    : PMSGetPackageTargetVolByPath(dir.c_str());
    if (volume != "not_volume_path" &&
        !(volumes != nullptr ? volumes->works(volume) : VolumeWorks(volume))) {
        found.result = PKG_ERR_BROKEN;
        return found;
    }
    if (!IsFileExists(script)) {
        found.result = PKG_ERR_NO_SCRIPT;
        return found;
    }
    if (!PMSCheckIsExec(script)) {
        ZLOGERR("%s can't run", script.c_str());
        found.result = PKG_ERR_BROKEN;
        return found;
    }
    found.script = script;
    return found;
}

// One status query, split around its script so that many queries can run their scripts at once.
struct PackageManager::StatusRun {
    PackageManager* query = nullptr;  // the query whose result the steps set
    std::string name;
    const PackageInfo* loaded = nullptr;   // the record a scan has loaded, or null: read afresh
    const ScriptLookup* lookup = nullptr;  // the first step as the scan took it, or null
    bool useScript = true;
    bool strict = false;
    std::unique_ptr<PackageInfo> read;
    std::string scriptPath;                            // found by statusFindScript
    std::unique_ptr<ZARNUtils::ProcessRunner> script;  // the status script still to run
    // A batch asks each volume's state once: a listing of thousands on one volume would ask it
    // for every package.
    VolumeStates* volumes = nullptr;
    bool running = false;
    bool answered = false;  // the query is over and `answer` is what it returns
    bool answer = false;
};

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool useScript,
                                      bool strict) {
    StatusRun run;
    run.query = this;
    run.name = name;
    run.useScript = useScript;
    run.strict = strict;
    statusFindScript(run);
    statusBegin(run);
    if (!run.answered) {
        statusEnd(run, run.script ? run.script->run() : 0);
    }
    running = run.running;
    return run.answer;
}

// The first step, which only looks at the registry folder, so that a batch takes it for many
// packages at once.
void PackageManager::statusFindScript(StatusRun& run) {
    setResult(PKG_ERR_SYSTEM);
    run.running = false;
    ScriptLookup found;
    if (run.lookup == nullptr) {
        if (run.loaded == nullptr) {
            run.read = std::make_unique<PackageInfo>();
        }
        found = lookupServiceScript(run.name, run.read.get(), run.loaded, run.volumes);
    }
    const ScriptLookup& taken = run.lookup != nullptr ? *run.lookup : found;
    if (taken.script.empty()) {
        setResult(taken.result);
    }
    run.scriptPath = taken.script;
}

// The checks between the first step and the script; false, with the result set, when one ends
// the query.
bool PackageManager::statusGates(const StatusRun& run, const PackageInfo& info) {
    const std::string dir = PMSRegistryDir(run.name);
    int process = 0;
    int phase = 0;
    if (run.scriptPath.empty()) {
        return false;
    }
    if (!PMSCheckPackageArchModelMatched(info)) {
        setResult(PKG_ERR_ARCH_MODEL);
        return false;
    }
    if (!CanPackageStartInThisFirmware(info)) {
        return false;
    }
    if (isBrokenByInstalled(PackageBasicInfo(info.name, info.version))) {
        setResult(PKG_ERR_BROKEN_BY_OTHER);
        return false;
    }
    if (IsFileExists(dir + "/installing")) {
        setResult(PKG_ERR_BROKEN);
        return false;
    }
    if (IsFileExists(dir + "/stoppedByDepLimit")) {
        setResult(PKG_ERR_STOPPED_BY_DEP_LIMIT);
        return false;
    }
    if (VLIBServicectlStatus(JobName(run.name), process, phase) == 0 && process == 0 &&
        phase == ZARN_JOB_PHASE_FAILED) {
        setResult(PKG_ERR_JOB_ERROR);
        return false;
    }
    return true;
}

// The steps after it up to the script, which is prepared and left to run; an early end answers
// the run.
void PackageManager::statusBegin(StatusRun& run) {
    const PackageInfo& info = run.loaded != nullptr ? *run.loaded : *run.read;
    bool goesOn = statusGates(run, info);
    if (goesOn && run.useScript) {
        run.script = PMSControlScriptRunner(run.name, run.scriptPath, info, "status");
        if (!run.script) {
            ZLOGERR("Failed to set identity for %s %s", run.name.c_str(),
                    ZARNLastErrorSuffix().c_str());
            setResult(PKG_ERR_BAD_PACKAGE);
            goesOn = false;
        }
    }
    if (!goesOn) {
        run.answered = true;
        run.answer = statusTail(run, false, 0);
    }
}

// The steps from the script's exit status `ret` (ignored without a script) on.
void PackageManager::statusEnd(StatusRun& run, int ret) {
    const std::string& name = run.name;
    const std::string dir = PMSRegistryDir(name);
    const std::string job = JobName(name);
    const PackageInfo& info = run.loaded != nullptr ? *run.loaded : *run.read;
    int jobState = 0;
    run.answered = true;
    run.answer = false;
    if (!run.script) {
        run.running = true;
    } else {
        if (ret < 0) {
            ZLOGERR("Failed to query package status, %s", name.c_str());
            setResult(PKG_ERR_SYSTEM);
            run.answer = statusTail(run, false, 0);
            return;
        }
        if (ret == kScriptBroken) {
            ZLOGERR("Package is broken, %s, [%d]", name.c_str(), ret);
        }
        setResult(static_cast<PKG_ERRCODE>(ret));
        run.running = ret == 0;
    }
    if (info.startable) {
        if (!info.kosuidir.empty() && !ZARNPathExists(PMSDesktopEntryPath(info.kosuidir))) {
            run.running = false;
        }
        if (!PMSCheckEnabledFile(dir.c_str())) {
            run.running = false;
        }
    }
    if (VLIBServiceStatusGet(job, jobState) < 0) {
        ZLOGERR("Failed to get status of %s %s", job.c_str(), ZARNLastErrorSuffix().c_str());
        run.answer = statusTail(run, false, 0);
        return;
    }
    if (run.strict && jobState == 1 && !run.running) {
        ZLOGERR("Package %s stops but service %s start", name.c_str(), job.c_str());
        setResult(PKG_ERR_STOPPED_BUT_RUNNING);
        run.answer = statusTail(run, true, jobState);
        return;
    }
    run.running = run.running && jobState == 1;
    run.answer = true;
}

// Where a query that did not come through ends: a strict query of a package whose job runs
// tells so. Always false.
bool PackageManager::statusTail(const StatusRun& run, bool jobStateRead, int jobState) {
    if (run.strict && getResult() != PKG_ERR_NOT_INSTALLED &&
        getResult() != PKG_ERR_STOPPED_BUT_RUNNING) {
        if (!jobStateRead) {
            jobStateRead = VLIBServiceStatusGet(JobName(run.name), jobState) >= 0;
        }
        if (jobStateRead && jobState == 1) {
            setResult(PKG_ERR_STOPPED_BUT_RUNNING);
        }
    }
    return false;
}

template <typename Source, typename Answer>
void PackageManager::statusQueries(size_t count, bool strict, const Source& source,
                                   const Answer& answer) {
    // In slices, so that a registry of thousands holds a few hundred prepared queries at a time;
    // the scripts of one slice run while the next one is prepared and the one before finished.
    constexpr size_t kSlice = 256;
    VolumeStates volumes;
    struct Slice {
        size_t first = 0;
        std::vector<StatusRun> runs;
        std::unique_ptr<ZARNUtils::BackgroundRuns> scripts;
    };
    auto finish = [&answer](Slice& slice) {
        const std::vector<int> exits = slice.scripts->wait();
        size_t next = 0;
        for (size_t k = 0; k < slice.runs.size(); ++k) {
            StatusRun& run = slice.runs[k];
            if (!run.answered) {
                run.query->statusEnd(run, run.script ? exits[next++] : 0);
            }
            answer(slice.first + k, run);
        }
    };
    // The queries of a slice serve again two slices later, once that one is finished: every
    // query begins by setting its result, and the breakers are the same for all.
    std::vector<std::unique_ptr<PackageManager>> pools[2];
    Slice before;
    for (size_t first = 0; first < count; first += kSlice) {
        std::vector<std::unique_ptr<PackageManager>>& pool = pools[(first / kSlice) % 2];
        Slice slice;
        slice.first = first;
        slice.runs.resize(std::min(count, first + kSlice) - first);
        std::vector<ZARNUtils::ProcessRunner*> scripts;
        for (size_t k = 0; k < slice.runs.size(); ++k) {
            if (pool.size() <= k) {
                pool.push_back(std::make_unique<PackageManager>());
                pool.back()->useBreakerSnapshot(breakerSnapshot());
            }
            StatusRun& run = slice.runs[k];
            run.query = pool[k].get();
            run.strict = strict;
            run.volumes = &volumes;
            source(first + k, run);
        }
        // The first steps that a scan has taken already need no threads.
        ZARNParallelFor(
            slice.runs.size(),
            [&slice](size_t k) { slice.runs[k].query->statusFindScript(slice.runs[k]); },
            slice.runs.front().lookup != nullptr ? 1 : 0);
        for (StatusRun& run : slice.runs) {
            run.query->statusBegin(run);
            if (!run.answered && run.script) {
                scripts.push_back(run.script.get());
            }
        }
        slice.scripts = std::make_unique<ZARNUtils::BackgroundRuns>(std::move(scripts));
        if (before.scripts) {
            finish(before);
        }
        before = std::move(slice);
    }
    if (before.scripts) {
        finish(before);
    }
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool useScript) {
    return getServiceStatus(name, running, useScript, false);
}

int PackageManager::getPkgStatus(const std::string& name) {
    bool running = false;
    const bool answered = getServiceStatus(name, running, true, false);
    return statusCode(answered, running);
}

std::vector<int> PackageManager::getAllPkgStatuses(std::vector<PackageInfo>& records,
                                                   std::vector<std::string>& unreadable,
                                                   const char* lang, unsigned long long mask) {
    VolumeStates volumes;
    std::vector<ScriptLookup> lookups;
    scanRegistry(
        PKG_REGISTRY_DIR, records, unreadable, lang, mask | PKG_MASK_STATUS,
        [&lookups](size_t folders) { lookups.resize(folders); },
        [&](size_t folder, const PackageInfo& record) {
            lookups[folder] = lookupServiceScript(record.name, nullptr, &record, &volumes);
        });
    // The folders that loaded keep their order among the records, and so among the lookups.
    lookups.erase(std::remove_if(lookups.begin(), lookups.end(),
                                 [](const ScriptLookup& l) { return !l.done; }),
                  lookups.end());
    useBreakerSnapshot(makeBreakerSnapshot(records, unreadable));
    std::vector<int> statuses(records.size(), 0);
    statusQueries(
        records.size(), false,
        [&](size_t i, StatusRun& run) {
            run.name = records[i].name;
            run.loaded = &records[i];
            run.lookup = &lookups[i];
        },
        [&statuses](size_t i, const StatusRun& run) {
            statuses[i] = run.query->statusCode(run.answer, run.running);
        });
    return statuses;
}

std::vector<char> PackageManager::areStarted(const std::vector<std::string>& names, bool strict,
                                             std::vector<PKG_ERRCODE>& results) {
    std::vector<char> started(names.size(), 0);
    results.assign(names.size(), PKG_ERR_SUCCESS);
    statusQueries(
        names.size(), strict, [&names](size_t i, StatusRun& run) { run.name = names[i]; },
        [&](size_t i, const StatusRun& run) {
            results[i] = run.query->getResult();
            started[i] = run.query->startedBy(run.answer, run.running);
        });
    return started;
}

int PackageManager::statusCode(bool answered, bool running) const {
    if (answered) {
        if (running) {
            return 0;
        }
        const unsigned int code = getResult();
        if (code == 1 || code == 2 || code == PKG_ERR_BROKEN) {
            return static_cast<int>(code);
        }
        return 3;
    }
    switch (getResult()) {
        case PKG_ERR_NOT_INSTALLED:
            return 0xff;
        case PKG_ERR_BROKEN:
        case PKG_ERR_ARCH_MODEL:
        case PKG_ERR_BROKEN_BY_OTHER:
            return 0x96;
        case PKG_ERR_NO_SCRIPT:
            return 4;
        case PKG_ERR_VERSION_LIMIT:
            return 0x100;
        case PKG_ERR_LIMIT_SYSTEM:
            return 0x101;
        case PKG_ERR_LIMIT_NON:
            return 0x102;
        case PKG_ERR_SYSTEM:
            return 0x103;
        default:
            return 3;
    }
}

bool PackageManager::getPkgRoughStatus(const std::string& name, int& rough) {
    return roughStatusOf(getPkgStatus(name), name, rough);
}

bool PackageManager::roughStatusOf(int status, const std::string& name, int& rough) {
    if (roughStatusOf(status, rough)) {
        return true;
    }
    if (status == 0x103) {
        ZLOGERR("system error, can't get status of pkg: [%s]", name.c_str());
    } else {
        ZLOGERR("unknown status: [%s]", name.c_str());
    }
    return false;
}

bool PackageManager::roughStatusOf(int status, int& rough) {
    switch (status) {
        case 0:
            rough = 3;
            return true;
        case 1:
        case 2:
        case 3:
            rough = 1;
            return true;
        case 0xff:
            rough = 0;
            return true;
        case 0x96:
        case 0x100:
        case 0x101:
        case 0x102:
            rough = 5;
            return true;
        default:
            return false;
    }
}

bool PackageManager::isStarted(const std::string& name, bool strict) {
    bool running = false;
    const bool answered = getServiceStatus(name, running, true, strict);
    return startedBy(answered, running);
}

bool PackageManager::startedBy(bool answered, bool running) const {
    if (answered && running) {
        return true;
    }
    const PKG_ERRCODE code = getResult();
    return code == PKG_ERR_NO_SCRIPT || code == PKG_ERR_STOPPED_BUT_RUNNING;
}

bool PackageManager::isStarted(const std::string& name) {
    return isStarted(name, false);
}

unsigned int PackageManager::checkServiceStarted(unsigned int mask) {
    unsigned int out = mask;
    if ((out & 0x8) && VLIBServiceIsEnabled("ssh-shell") != 0) {
        out &= ~0x8u;
    }
    if ((out & 0x10) && VLIBServiceIsRunning("pgsql") == 1) {
        out &= ~0x10u;
    }
    return out;
}

std::set<std::string> PackageManager::checkServiceStarted(const std::set<std::string>& services) {
    std::set<std::string> out;
    for (const auto& service : services) {
        if (VLIBServiceIsEnabled(service) == 1) {
            continue;
        }
        std::string displayName;
        if (VLIBServicecfgDisplayNameGet(service, displayName) == 0 && !displayName.empty()) {
            out.insert(displayName);
        } else {
            out.insert(service);
        }
    }
    return out;
}

}  // namespace ZARNPackageTool
