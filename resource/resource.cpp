#include "resource/resource.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "platform/errors.h"
#include "platform/log.h"
#include "platform/procfork.h"
#include "privilege/privilege.h"
#include "resource/discovery.h"
#include "resource/resource_errors.h"
#include "resource/state_files.h"

namespace ZARNPackageTool {
namespace Resource {

using ZARN::PkgUtils::ActionInfo;
using ZARN::PkgUtils::IWorker;
using ZARN::PkgUtils::WorkerResp;

namespace {

// What a call works on, read in the parent before the fork.
struct CallState {
    std::string resourcePath;
    std::string ownPath;
    ActionInfo action;
    Json::Value resource{Json::objectValue};
    Json::Value own{Json::objectValue};
};

const char* Outcome(int result) {
    return result == 1 ? "fail" : "done";
}

bool InitAction(const std::string& name, unsigned int type, const std::string& prefix,
                ActionInfo& action) {
    Privilege::Config config;
    if (!Privilege::ReadConfig(name, prefix, config)) {
        ZLOGERR("Failed to read the identity of %s %s", name.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    action.SetPkgName(name);
    action.SetPkgUserName(config.present ? config.username : "");
    action.SetActionType(type);
    action.SetRootDir(prefix.empty() ? "/var/packages/" + name + "/target" : prefix + "/package");
    return true;
}

// Paths, action and request with its variables filled. A missing conf/resource leaves the
// request empty and `present` false.
bool Prepare(const std::string& name, unsigned int type, const std::string& prefix,
             const Json::Value* variables, CallState& state, bool& present) {
    state.resourcePath = ResourcePath(name, prefix);
    state.ownPath = OwnPath(name, prefix);
    if (!InitAction(name, type, prefix, state.action)) {
        return false;
    }
    present = ReadJsonFile(state.resourcePath, state.resource);
    if (!present) {
        if (VLIBCErrGet() != ZARN_ERR_NO_FILE) {
            ZLOGERR("Failed to read %s %s", state.resourcePath.c_str(),
                    ZARNLastErrorSuffix().c_str());
            return false;
        }
        state.resource = Json::Value(Json::objectValue);
        return true;
    }
    if (!state.resource.isObject()) {
        ZLOGERR("%s is not an object", state.resourcePath.c_str());
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    const Json::Value none(Json::objectValue);
    if (!Util::ReplaceVariables(variables != nullptr ? *variables : none, state.resource)) {
        ZLOGERR("Failed to replace variables of %s %s", state.resourcePath.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    return true;
}

// The own file as Acquire and Release take it: content that can't be used is ignored.
void LoadOwn(CallState& state) {
    if (!ReadJsonFile(state.ownPath, state.own) && VLIBCErrGet() != ZARN_ERR_NO_FILE) {
        ZLOGERR("Failed to read jown, ignore the content, path=[%s]", state.ownPath.c_str());
    }
    if (!state.own.isObject()) {
        ZLOGERR("Failed to load jown which is not an object, ignore the content, path=[%s]",
                state.ownPath.c_str());
        state.own = Json::Value(Json::objectValue);
    }
}

// Runs `work` in one forked child with the store of `resp` kept for the parent; the child's
// exit status is 0 when `work` succeeded and the own file was written. The own file is written
// after a failure too unless `keepOnlyOnSuccess`. One fork per call.
bool RunInChild(CallState& state, WorkerResp& resp, const std::function<bool()>& work,
                bool keepOnlyOnSuccess = false) {
    const pid_t pid = VLIBCProcForkEx(1);
    if (pid < 0) {
        ZLOGERR("Failed to VLIBCProcForkEx, reason=[%s]", strerror(errno));
        return false;
    }
    if (pid == 0) {
        resp.SetRemoveFlag(false);
        const bool ok = work();
        const bool written = (ok || !keepOnlyOnSuccess) && WriteJsonFile(state.ownPath, state.own);
        // Nothing of the parent is destroyed here: its proxies and libraries are the parent's.
        _exit(ok && written ? 0 : 1);
    }
    const int status = ZARNWaitChild(pid);
    if (status != 0) {
        ZLOGERR("Workers of %s ended with status 0x%x", state.action.GetPkgName().c_str(),
                static_cast<unsigned>(status));
        return false;
    }
    return true;
}

bool FindWorkers(TIMING timing, WorkerList& list) {
    if (!FindRunnableWorkers(timing, list)) {
        ZLOGERR("Failed to find runnable workers %s", ZARNLastErrorSuffix().c_str());
        return false;
    }
    return true;
}

typedef std::pair<std::string, std::shared_ptr<IWorker>> AcquiredWorker;

void RollbackAll(CallState& state, std::vector<AcquiredWorker>& acquired, WorkerResp& resp) {
    const Json::Value& resource = state.resource;
    for (auto it = acquired.rbegin(); it != acquired.rend(); ++it) {
        const int result =
            it->second->Rollback(state.action, resource[it->first], state.own[it->first], resp);
        ZLOGINFO("Rollback %s for %s when 0x%04x (%s)", it->first.c_str(),
                 state.action.GetPkgName().c_str(), state.action.GetActionType(), Outcome(result));
    }
}

bool AcquireWorkers(TIMING timing, CallState& state, const WorkerList& list, WorkerResp& resp) {
    bool ok = true;
    const Json::Value& resource = state.resource;
    // Workers die before their proxies, whose libraries hold their code.
    std::vector<AcquiredWorker> acquired;
    for (const std::shared_ptr<WorkerProxy>& proxy : list) {
        const std::string& id = proxy->GetResourceID();
        if (!resource.isMember(id) || !resource[id].isObject()) {
            continue;
        }
        std::shared_ptr<IWorker> worker = proxy->CreateInstance();
        if (!worker) {
            ZLOGERR("Failed to create worker for %s, ignore it %s", id.c_str(),
                    ZARNLastErrorSuffix().c_str());
            continue;
        }
        // Listed before the call, so that a worker that fails is rolled back itself.
        acquired.emplace_back(id, worker);
        if (!state.own.isMember(id)) {
            state.own[id] = Json::Value(Json::objectValue);
        }
        const int result = worker->Acquire(state.action, resource[id], state.own[id], resp);
        ZLOGINFO("Acquire %s for %s when 0x%04x (%s)", id.c_str(),
                 state.action.GetPkgName().c_str(), state.action.GetActionType(), Outcome(result));
        if (result != 1) {
            continue;
        }
        ok = false;
        // Once the package is registered there is no way back: the others still run.
        if (timing == TIMING_POSTINST) {
            continue;
        }
        RollbackAll(state, acquired, resp);
        break;
    }
    return ok;
}

bool ReleaseWorkers(CallState& state, const WorkerList& list, WorkerResp& resp) {
    const Json::Value& resource = state.resource;
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
        const std::string& id = (*it)->GetResourceID();
        // A worker that never acquired anything has nothing to give back.
        if (!state.own.isMember(id)) {
            continue;
        }
        std::shared_ptr<IWorker> worker = (*it)->CreateInstance();
        if (!worker) {
            ZLOGERR("Failed to create worker for %s, ignore it %s", id.c_str(),
                    ZARNLastErrorSuffix().c_str());
            continue;
        }
        const int result = worker->Release(state.action, resource[id], state.own[id], resp);
        ZLOGINFO("Release %s for %s when 0x%04x (%s)", id.c_str(),
                 state.action.GetPkgName().c_str(), state.action.GetActionType(), Outcome(result));
    }
    return true;
}

}  // namespace

bool InitRequiredFields(const std::string& name, const std::string& prefix) {
    const std::string path = ResourcePath(name, prefix);
    Json::Value resource(Json::objectValue);
    if (!ReadJsonFile(path, resource)) {
        if (VLIBCErrGet() != ZARN_ERR_NO_FILE) {
            ZLOGERR("Failed to read %s %s", path.c_str(), ZARNLastErrorSuffix().c_str());
            return false;
        }
        resource = Json::Value(Json::objectValue);
    }
    if (!resource.isObject()) {
        ZLOGERR("%s is not an object", path.c_str());
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    if (resource.isMember("service-cfg")) {
        return true;
    }
    resource["service-cfg"] = Json::Value(Json::objectValue);
    return CreateFolder(name, prefix) && WriteJsonFile(path, resource);
}

bool Acquire(TIMING timing, const PackageInfo& info, PKG_INSTALLATION_TYPE type, WorkerResp& resp,
             const Json::Value* variables, const std::string& prefix) {
    CallState state;
    bool present = false;
    if (!Prepare(info.name, type, prefix, variables, state, present)) {
        return false;
    }
    if (!present) {
        return true;
    }
    LoadOwn(state);
    WorkerList list;
    if (!FindWorkers(timing, list)) {
        return false;
    }
    return RunInChild(state, resp, [&] { return AcquireWorkers(timing, state, list, resp); });
}

bool Release(TIMING timing, const PackageInfo& info, PKG_INSTALLATION_TYPE type, WorkerResp& resp,
             const Json::Value* variables, const std::string& prefix) {
    CallState state;
    bool present = false;
    if (!Prepare(info.name, type, prefix, variables, state, present)) {
        return false;
    }
    if (!ReadJsonFile(state.ownPath, state.own) && VLIBCErrGet() == ZARN_ERR_NO_FILE) {
        return true;  // nothing was acquired
    }
    LoadOwn(state);
    WorkerList list;
    if (!FindWorkers(timing, list)) {
        return false;
    }
    return RunInChild(state, resp, [&] { return ReleaseWorkers(state, list, resp); });
}

bool Update(const PackageInfo& info, const std::string& type, const Json::Value& helperArgs,
            WorkerResp& resp) {
    std::unique_ptr<WorkerProxy> proxy(FindRunnableWorker(type));
    if (!proxy) {
        ZLOGERR("Failed to find runnable worker for %s %s", type.c_str(),
                ZARNLastErrorSuffix().c_str());
        return false;
    }
    CallState state;
    if (!InitAction(info.name, PKG_INSTALLATION_UPGRADE, "", state.action)) {
        return false;
    }
    std::shared_ptr<IWorker> worker = proxy->CreateInstance();
    if (!worker) {
        ZLOGERR("Failed to create worker for %s %s", type.c_str(), ZARNLastErrorSuffix().c_str());
        return false;
    }
    if (!worker->IsUpdatable()) {
        ZLOGERR("Worker %s of %s can't update", type.c_str(), info.name.c_str());
        VLIBCErrSet(ZARN_ERR_NOT_APPLICABLE);
        return false;
    }
    bool present = false;
    if (!Prepare(info.name, PKG_INSTALLATION_UPGRADE, "", nullptr, state, present)) {
        return false;
    }
    if (!present || !state.resource.isMember(type)) {
        return true;
    }
    if (!ReadJsonFile(state.ownPath, state.own)) {
        if (VLIBCErrGet() != ZARN_ERR_NO_FILE) {
            ZLOGERR("Failed to read %s %s", state.ownPath.c_str(), ZARNLastErrorSuffix().c_str());
            return false;
        }
        state.own = Json::Value(Json::objectValue);
    }
    if (!state.own.isObject()) {
        ZLOGERR("invalid jOwn, not an object");
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    if (!state.own.isMember(type)) {
        state.own[type] = Json::Value(Json::objectValue);
    }
    state.resource[type]["@helper-args"] = helperArgs;
    return RunInChild(
        state, resp,
        [&] {
            ZLOGINFO("Update %s for %s", type.c_str(), info.name.c_str());
            // The opposite sense: 0 is the failure of an update.
            return worker->Update(state.action, state.resource[type], state.own[type], resp) != 0;
        },
        true);
}

}  // namespace Resource
}  // namespace ZARNPackageTool
