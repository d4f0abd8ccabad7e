#include "resource/discovery.h"

#include <dlfcn.h>

#include <cstdlib>
#include <new>

#include "platform/dso.h"
#include "platform/errors.h"
#include "platform/log.h"
#include "resource/resource_errors.h"
#include "resource/state_files.h"
#include "resource/workers/builtin_workers.h"

namespace ZARNPackageTool {
namespace Resource {

using ZARN::PkgUtils::IWorker;

namespace {

const char* const kBuiltinProvider = "KOS";
const char* const kPluginFolder = "/usr/local/share/zarnpkg";
const INTERVAL kAnyMoment = 0xffff;

// An open plug-in library; closed when the backend and the last worker it made are gone.
struct Library {
    void* handle = nullptr;
    ~Library() {
        if (handle != nullptr) {
            dlclose(handle);
        }
    }
};

}  // namespace

IBackend::~IBackend() = default;

struct BuiltinBackend::Impl {
    ZARN::PkgUtils::IWorker* (*factory)() = nullptr;
};

BuiltinBackend::BuiltinBackend(IWorker* (*factory)()) : impl_(new Impl) {
    impl_->factory = factory;
}
BuiltinBackend::~BuiltinBackend() = default;

bool BuiltinBackend::IsReady() const {
    return impl_->factory != nullptr;
}

std::shared_ptr<IWorker> BuiltinBackend::CreateWorker() const {
    IWorker* worker = impl_->factory != nullptr ? impl_->factory() : nullptr;
    return worker != nullptr ? std::shared_ptr<IWorker>(worker) : std::shared_ptr<IWorker>();
}

struct DSOBackend::Impl {
    std::string path;
    std::string error;
    std::shared_ptr<Library> library;
    ZARN::PkgUtils::PluginWorkerInitFn init = nullptr;
    ZARN::PkgUtils::PluginWorkerFreeFn free = nullptr;

    // One entry point, with the loader's own check: a symbol may be null and still be found.
    void* Symbol(const char* name) {
        dlerror();
        void* symbol = dlsym(library->handle, name);
        const char* text = dlerror();
        if (text != nullptr) {
            error = text;
            VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
            return nullptr;
        }
        return symbol;
    }
};

DSOBackend::DSOBackend(const std::string& path) : impl_(new Impl) {
    impl_->path = path;
    if (path.empty()) {
        impl_->error = "no library path";
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return;
    }
    impl_->library = std::make_shared<Library>();
    impl_->library->handle = ZARNDlopen(path, RTLD_LAZY, impl_->error);
    if (impl_->library->handle == nullptr) {
        VLIBCErrSet(ZARN_ERR_LOAD_LIBRARY);
        return;
    }
    void* init = impl_->Symbol(ZARN::PkgUtils::kPluginWorkerInit);
    if (init == nullptr) {
        return;
    }
    void* free = impl_->Symbol(ZARN::PkgUtils::kPluginWorkerFree);
    if (free == nullptr) {
        return;
    }
    impl_->init = reinterpret_cast<ZARN::PkgUtils::PluginWorkerInitFn>(init);
    impl_->free = reinterpret_cast<ZARN::PkgUtils::PluginWorkerFreeFn>(free);
}

DSOBackend::~DSOBackend() = default;

bool DSOBackend::IsReady() const {
    return impl_->init != nullptr && impl_->free != nullptr;
}

const std::string& DSOBackend::GetLoadError() const {
    return impl_->error;
}

std::shared_ptr<IWorker> DSOBackend::CreateWorker() const {
    if (!IsReady()) {
        return std::shared_ptr<IWorker>();
    }
    IWorker* worker = impl_->init();
    if (worker == nullptr) {
        return std::shared_ptr<IWorker>();
    }
    // The deleter holds the library open: the worker is destroyed by the code that made it.
    ZARN::PkgUtils::PluginWorkerFreeFn free = impl_->free;
    std::shared_ptr<Library> library = impl_->library;
    return std::shared_ptr<IWorker>(worker, [free, library](IWorker* w) { free(w); });
}

struct WorkerProxy::Impl {
    std::string resourceID;
    std::string provider;
    INTERVAL interval = 0;
    std::unique_ptr<IBackend> backend;
};

WorkerProxy::WorkerProxy(IBackend* backend) : impl_(new Impl) {
    impl_->backend.reset(backend);
}
WorkerProxy::~WorkerProxy() = default;
const std::string& WorkerProxy::GetResourceID() const {
    return impl_->resourceID;
}
void WorkerProxy::SetResourceID(const std::string& id) {
    impl_->resourceID = id;
}
const std::string& WorkerProxy::GetProvider() const {
    return impl_->provider;
}
void WorkerProxy::SetProvider(const std::string& provider) {
    impl_->provider = provider;
}
INTERVAL WorkerProxy::GetInterval() const {
    return impl_->interval;
}
void WorkerProxy::SetInterval(INTERVAL interval) {
    impl_->interval = interval;
}

std::shared_ptr<IWorker> WorkerProxy::CreateInstance() const {
    return impl_->backend ? impl_->backend->CreateWorker() : std::shared_ptr<IWorker>();
}

Collector::Collector(WorkerList& list) : list_(list) {
    list_.clear();
}

bool Collector::AddBuiltinWorker(WorkerProxy* proxy) {
    if (proxy == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    // Several rows of one type all run; the map keeps the first, which is all that the
    // refusal of plug-ins needs.
    index_.emplace(proxy->GetResourceID(), builtinCount_);
    ++builtinCount_;
    list_.emplace_back(proxy);
    return true;
}

bool Collector::AddPluginWorker(WorkerProxy* proxy) {
    if (proxy == nullptr) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    auto found = index_.find(proxy->GetResourceID());
    if (found == index_.end()) {
        index_.emplace(proxy->GetResourceID(), list_.size());
        list_.emplace_back(proxy);
        return true;
    }
    if (found->second < builtinCount_) {
        VLIBCErrSet(ZARN_ERR_BUILTIN_TYPE);
        return false;
    }
    list_[found->second].reset(proxy);
    return true;
}

namespace {

void Report(Json::Value* report, const std::string& id, const std::string& provider,
            const std::string& file, const std::string& path, INTERVAL interval, bool taken,
            const std::string& reason) {
    if (report == nullptr) {
        return;
    }
    Json::Value entry(Json::objectValue);
    entry["id"] = id;
    entry["provider"] = provider;
    entry["file"] = file;
    entry["path"] = path;
    entry["interval"] = interval;
    entry["taken"] = taken;
    entry["reason"] = reason;
    report->append(entry);
}

// The packages that registered plug-ins. A missing list is an empty one.
bool ReadProviders(std::vector<std::string>& providers) {
    providers.clear();
    Json::Value global;
    if (!ReadJsonFile(std::string(kPluginFolder) + "/global", global)) {
        return VLIBCErrGet() == ZARN_ERR_NO_FILE;
    }
    if (!global.isObject() || !global["providers"].isArray()) {
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    for (const Json::Value& provider : global["providers"]) {
        if (provider.isString() && !provider.asString().empty()) {
            providers.push_back(provider.asString());
        }
    }
    return true;
}

// The declarations of one provider; false, logged, when its file can't be used.
bool ReadDeclarations(const std::string& provider, Json::Value& workers, std::string& why) {
    const std::string file = std::string(kPluginFolder) + "/" + provider;
    // A provider is a package name: one that climbs out of the folder names no file of ours.
    if (provider.find('/') != std::string::npos || provider == "." || provider == "..") {
        ZLOGERR("%s is in wrong format, ignore it", file.c_str());
        why = "the provider is not a package name";
        return false;
    }
    Json::Value content;
    if (!ReadJsonFile(file, content)) {
        ZLOGERR("Failed to load conf of %s %s", provider.c_str(), ZARNLastErrorSuffix().c_str());
        why = VLIBCErrGet() == ZARN_ERR_NO_FILE ? "the provider file is missing"
                                                : "the provider file is not JSON";
        return false;
    }
    if (!content.isObject() || !content["workers"].isArray()) {
        ZLOGERR("%s is in wrong format, ignore it", file.c_str());
        why = "the provider file has no \"workers\" array";
        return false;
    }
    workers = content["workers"];
    return true;
}

std::string StringMember(const Json::Value& decl, const char* key) {
    return decl.isObject() && decl[key].isString() ? decl[key].asString() : "";
}

bool IsDeclaration(const Json::Value& decl) {
    return decl.isObject() && decl["id"].isString() && !decl["id"].asString().empty() &&
           decl["interval"].isString() && decl["major"].isInt() && decl["minor"].isInt() &&
           decl["path"].isString();
}

// A proxy for one declaration that runs at a moment of `mask` (and is of `wanted`, when not
// null); null with the error slot and `why` set otherwise.
WorkerProxy* MakePluginProxy(const std::string& provider, const Json::Value& decl, INTERVAL mask,
                             const std::string* wanted, INTERVAL& interval, std::string& why) {
    interval = 0;
    if (provider.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        why = "no provider";
        return nullptr;
    }
    if (!IsDeclaration(decl)) {
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        why = "a member is missing or of the wrong type";
        return nullptr;
    }
    if (wanted != nullptr && decl["id"].asString() != *wanted) {
        why = "another type";
        return nullptr;
    }
    interval = static_cast<INTERVAL>(strtoul(decl["interval"].asCString(), nullptr, 16));
    if ((interval & mask) == 0) {
        VLIBCErrSet(ZARN_ERR_NOT_APPLICABLE);
        why = "not at this moment";
        return nullptr;
    }
    if (decl["major"].asInt() != 1 || decl["minor"].asInt() > 0) {
        VLIBCErrSet(ZARN_ERR_NOT_APPLICABLE);
        why = "interface version " + std::to_string(decl["major"].asInt()) + "." +
              std::to_string(decl["minor"].asInt()) + " is not 1.0";
        return nullptr;
    }
    DSOBackend* backend = new (std::nothrow) DSOBackend(decl["path"].asString());
    if (backend == nullptr || !backend->IsReady()) {
        why = backend != nullptr ? "library: " + backend->GetLoadError() : "out of memory";
        delete backend;
        return nullptr;
    }
    WorkerProxy* proxy = new (std::nothrow) WorkerProxy(backend);
    if (proxy == nullptr) {
        delete backend;
        why = "out of memory";
        return nullptr;
    }
    proxy->SetResourceID(decl["id"].asString());
    proxy->SetInterval(interval);
    proxy->SetProvider(provider);
    return proxy;
}

WorkerProxy* MakeBuiltinProxy(const BuiltinWorkerRow& row) {
    BuiltinBackend* backend = new (std::nothrow) BuiltinBackend(row.factory);
    if (backend == nullptr || !backend->IsReady()) {
        delete backend;
        return nullptr;
    }
    WorkerProxy* proxy = new (std::nothrow) WorkerProxy(backend);
    if (proxy == nullptr) {
        delete backend;
        return nullptr;
    }
    proxy->SetResourceID(row.type);
    proxy->SetInterval(row.interval);
    proxy->SetProvider(kBuiltinProvider);
    return proxy;
}

// In a report, the earlier plug-in entry of a type that a later declaration replaces.
void ReportReplaced(Json::Value* report, const std::string& id, const std::string& provider) {
    if (report == nullptr) {
        return;
    }
    for (Json::Value& entry : *report) {
        if (entry["taken"].asBool() && entry["id"].asString() == id &&
            entry["provider"].asString() != kBuiltinProvider) {
            entry["taken"] = false;
            entry["reason"] = "replaced by the declaration of " + provider;
        }
    }
}

}  // namespace

bool FindRunnableWorkers(TIMING timing, WorkerList& list, Json::Value* report) {
    Collector collector(list);
    for (const BuiltinWorkerRow* row = g_BuiltinWorkers; row->type != nullptr; ++row) {
        if (row->type[0] == '\0') {
            VLIBCErrSet(ZARN_ERR_MALFORMED);
            continue;
        }
        if ((row->interval & timing) == 0) {
            VLIBCErrSet(ZARN_ERR_NOT_APPLICABLE);
            continue;
        }
        WorkerProxy* proxy = MakeBuiltinProxy(*row);
        if (proxy != nullptr && collector.AddBuiltinWorker(proxy)) {
            Report(report, row->type, kBuiltinProvider, "", "", row->interval, true, "");
        }
    }
    std::vector<std::string> providers;
    if (!ReadProviders(providers)) {
        ZLOGERR("Failed to enum plugin providers %s", ZARNLastErrorSuffix().c_str());
        return false;
    }
    for (const std::string& provider : providers) {
        const std::string file = std::string(kPluginFolder) + "/" + provider;
        Json::Value workers;
        std::string why;
        if (!ReadDeclarations(provider, workers, why)) {
            Report(report, "", provider, file, "", 0, false, why);
            continue;
        }
        for (const Json::Value& decl : workers) {
            const std::string id = StringMember(decl, "id");
            const std::string path = StringMember(decl, "path");
            INTERVAL interval = 0;
            WorkerProxy* proxy = MakePluginProxy(provider, decl, timing, nullptr, interval, why);
            if (proxy == nullptr) {
                Report(report, id, provider, file, path, interval, false, why);
                continue;
            }
            if (!collector.AddPluginWorker(proxy)) {
                delete proxy;
                Report(report, id, provider, file, path, interval, false,
                       "a built-in worker has this type");
                continue;
            }
            ReportReplaced(report, id, provider);
            Report(report, id, provider, file, path, interval, true, "");
        }
    }
    return true;
}

WorkerProxy* FindRunnableWorker(const std::string& type) {
    if (type.empty()) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return nullptr;
    }
    for (const BuiltinWorkerRow* row = g_BuiltinWorkers; row->type != nullptr; ++row) {
        if (type == row->type) {
            return MakeBuiltinProxy(*row);
        }
    }
    std::vector<std::string> providers;
    if (!ReadProviders(providers)) {
        ZLOGERR("Failed to enum plugin providers %s", ZARNLastErrorSuffix().c_str());
        return nullptr;
    }
    for (const std::string& provider : providers) {
        Json::Value workers;
        std::string why;
        if (!ReadDeclarations(provider, workers, why) || workers.empty()) {
            continue;
        }
        for (Json::ArrayIndex i = workers.size(); i-- > 0;) {
            INTERVAL interval = 0;
            WorkerProxy* proxy =
                MakePluginProxy(provider, workers[i], kAnyMoment, &type, interval, why);
            if (proxy != nullptr) {
                return proxy;
            }
        }
    }
    VLIBCErrSet(ZARN_ERR_KEY_NOT_FOUND);
    return nullptr;
}

bool DescribeWorkers(const std::string& name, Json::Value& out) {
    static const std::pair<TIMING, const char*> kMoments[] = {
        {TIMING_PREINST, "preinst"},     {TIMING_POSTINST, "postinst"},
        {TIMING_ENABLE, "enable"},       {TIMING_STARTUP, "startup"},
        {TIMING_PREUNINST, "preuninst"}, {TIMING_POSTUNINST, "postuninst"},
        {TIMING_DISABLE, "disable"},     {TIMING_HALT, "halt"},
    };
    out = Json::Value(Json::objectValue);
    Json::Value resource(Json::objectValue);
    if (!name.empty() && !ReadJsonFile(ResourcePath(name, ""), resource)) {
        if (VLIBCErrGet() != ZARN_ERR_NO_FILE) {
            ZLOGERR("Failed to read conf/resource of %s %s", name.c_str(),
                    ZARNLastErrorSuffix().c_str());
            return false;
        }
        resource = Json::Value(Json::objectValue);
    }
    if (!resource.isObject()) {
        ZLOGERR("conf/resource of %s is not an object", name.c_str());
        VLIBCErrSet(ZARN_ERR_MALFORMED);
        return false;
    }
    for (const auto& moment : kMoments) {
        WorkerList list;
        Json::Value report(Json::arrayValue);
        if (!FindRunnableWorkers(moment.first, list, &report)) {
            out["providers_error"] =
                std::string(kPluginFolder) + "/global is not an object with a \"providers\" array";
        }
        Json::Value entries(Json::objectValue);
        entries["moment"] = moment.second;
        entries["workers"] = Json::Value(Json::arrayValue);
        for (const Json::Value& entry : report) {
            if (name.empty() || resource.isMember(entry["id"].asString())) {
                entries["workers"].append(entry);
            }
        }
        out["moments"].append(entries);
    }
    return true;
}

}  // namespace Resource
}  // namespace ZARNPackageTool
