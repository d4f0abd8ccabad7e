#pragma once

#include <json/json.h>

#include <memory>
#include <string>

#include "core/export.h"

// The host's process runner: its header is not public, and a worker only passes it on.
namespace ZARNUtils {
class ProcessRunner;
}

namespace ZARN {
namespace PkgUtils {

// What a worker is told about the action it takes part in.
class ActionInfo {
public:
    const std::string& GetPkgName() const { return pkgName_; }
    void SetPkgName(const std::string& name) { pkgName_ = name; }
    // The package's account, from its conf/privilege.
    const std::string& GetPkgUserName() const { return pkgUserName_; }
    void SetPkgUserName(const std::string& name) { pkgUserName_ = name; }
    // 1 install, 2 upgrade, or the value of another pipeline; workers compare it with 2 only.
    unsigned int GetActionType() const { return actionType_; }
    void SetActionType(unsigned int type) { actionType_ = type; }
    // Where the package's payload lies (logical path).
    const std::string& GetRootDir() const { return rootDir_; }
    void SetRootDir(const std::string& dir) { rootDir_ = dir; }

private:
    std::string pkgName_;
    std::string pkgUserName_;
    unsigned int actionType_ = 0;
    std::string rootDir_;
};

// The channel from workers, which run in a forked child, to the lifecycle in the parent. Its
// content lives in a private temporary folder of the system root, which the owner removes. A
// worker reaches it only through virtual slots, so that a plug-in needs no symbol of the host.
class ZARNPKG_API WorkerResp {
public:
    WorkerResp();
    virtual ~WorkerResp();
    WorkerResp(const WorkerResp&) = delete;
    WorkerResp& operator=(const WorkerResp&) = delete;

    // False keeps the store when this object goes (the child passes false at once).
    virtual void SetRemoveFlag(bool remove);
    // Records one message for the user under an i18n key; the formatted text is its parameter.
    virtual void SetI18NErrMsg(const std::string& key, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    // Every recorded message, in order, as [{"key": ..., "params": ...}, ...].
    virtual Json::Value GetErrJsonArray() const;
    // Leaves a variable for the package script that runs after the workers.
    virtual void SetEnv(const std::string& name, const std::string& value);
    // Adds the variables that workers left to a process about to run; false on failure.
    virtual bool DumpEnv(ZARNUtils::ProcessRunner& runner) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// One kind of resource. Acquire, Rollback and Release return 0 for success and 1 for failure
// (any other value counts as done); Update returns non-zero for success and 0 for failure.
// The slot order is an interface of the system: plug-ins are built against it.
class IWorker {
public:
    virtual ~IWorker() {}
    virtual int Acquire(const ActionInfo& action, const Json::Value& request, Json::Value& own,
                        WorkerResp& resp) = 0;
    virtual int Rollback(const ActionInfo& action, const Json::Value& request, Json::Value& own,
                         WorkerResp& resp) = 0;
    virtual int Release(const ActionInfo& action, const Json::Value& request, Json::Value& own,
                        WorkerResp& resp) = 0;
    virtual bool IsUpdatable() { return false; }
    // Workers that can't update say so through IsUpdatable, which the caller asks first.
    virtual int Update(const ActionInfo& /*action*/, const Json::Value& /*request*/,
                       Json::Value& /*own*/, WorkerResp& /*resp*/) {
        return 0;
    }
};

// The two C entry points of a worker plug-in: the first makes the plug-in's worker, the second
// destroys it inside the library that made it.
typedef IWorker* (*PluginWorkerInitFn)();
typedef void* (*PluginWorkerFreeFn)(IWorker*);
constexpr const char* kPluginWorkerInit = "ZARNPkgUtilsPluginWorkerInit";
constexpr const char* kPluginWorkerFree = "ZARNPkgUtilsPluginWorkerFree";

}  // namespace PkgUtils
}  // namespace ZARN
