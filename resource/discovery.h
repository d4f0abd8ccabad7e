#pragma once

#include <json/json.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/export.h"
#include "pkgutils/worker.h"
#include "resource/timing.h"

// How the workers of a resource call are found: the built-in table first, then the plug-ins
// that packages registered under /usr/local/share/zarnpkg.
namespace ZARNPackageTool {
namespace Resource {

// Makes workers of one kind.
class ZARNPKG_API IBackend {
public:
    virtual ~IBackend();
    virtual bool IsReady() const = 0;
    virtual std::shared_ptr<ZARN::PkgUtils::IWorker> CreateWorker() const = 0;
};

// A worker class compiled into the library, made by its factory.
class ZARNPKG_API BuiltinBackend : public IBackend {
public:
    explicit BuiltinBackend(ZARN::PkgUtils::IWorker* (*factory)());
    ~BuiltinBackend() override;
    bool IsReady() const override;
    std::shared_ptr<ZARN::PkgUtils::IWorker> CreateWorker() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// A worker of a plug-in library, opened by its logical path. The library stays open while the
// backend or any worker it made lives, since the worker's destructor is code of the library.
class ZARNPKG_API DSOBackend : public IBackend {
public:
    explicit DSOBackend(const std::string& path);
    ~DSOBackend() override;
    bool IsReady() const override;
    std::shared_ptr<ZARN::PkgUtils::IWorker> CreateWorker() const override;
    // Why the backend is not ready, in words for a plug-in author.
    const std::string& GetLoadError() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// One runnable worker: its type, where it comes from and when it runs. Owns its backend.
class ZARNPKG_API WorkerProxy {
public:
    explicit WorkerProxy(IBackend* backend);
    ~WorkerProxy();
    WorkerProxy(const WorkerProxy&) = delete;
    WorkerProxy& operator=(const WorkerProxy&) = delete;

    const std::string& GetResourceID() const;
    void SetResourceID(const std::string& id);
    // "KOS" for a built-in worker, else the package that registered the plug-in.
    const std::string& GetProvider() const;
    void SetProvider(const std::string& provider);
    INTERVAL GetInterval() const;
    void SetInterval(INTERVAL interval);
    // A new worker, or null.
    std::shared_ptr<ZARN::PkgUtils::IWorker> CreateInstance() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

typedef std::vector<std::shared_ptr<WorkerProxy>> WorkerList;

// Builds a list of workers: built-ins all stay; a plug-in may not take a built-in type, and the
// last plug-in declaration of a type takes the place of the first.
class ZARNPKG_API Collector {
public:
    explicit Collector(WorkerList& list);
    // Both take ownership of the proxy on success only.
    bool AddBuiltinWorker(WorkerProxy* proxy);
    bool AddPluginWorker(WorkerProxy* proxy);

private:
    WorkerList& list_;
    size_t builtinCount_ = 0;
    std::map<std::string, size_t> index_;
};

// Fills `list` with the workers of one moment. With `report`, appends for every built-in row
// and plug-in declaration looked at an object {"id", "provider", "file", "path", "interval",
// "taken", "reason"} that says where it comes from and why it was skipped.
ZARNPKG_API bool FindRunnableWorkers(TIMING timing, WorkerList& list,
                                     Json::Value* report = nullptr);
// The worker of one type whatever its moments (the first built-in row, else the last plug-in
// declaration); owned by the caller, or null.
ZARNPKG_API WorkerProxy* FindRunnableWorker(const std::string& type);

// What a plug-in author looks at first: "moments", in their order, each {"moment": its name,
// "workers": the report of FindRunnableWorkers}. With `name`, only the entries whose type is a key
// of that installed package's conf/resource. A provider list that can't be used is told in
// "providers_error". False, with the error slot set, when the package's conf/resource can't
// be read.
ZARNPKG_API bool DescribeWorkers(const std::string& name, Json::Value& out);

}  // namespace Resource
}  // namespace ZARNPackageTool
