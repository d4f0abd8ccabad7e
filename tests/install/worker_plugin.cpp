// A worker plug-in as a package author writes one: built from the installed headers alone.
// Its request says how each call behaves ("acquire", "rollback", "release": "ok", "fail", "two",
// "crash"; "update": the result of Update) and where to record the calls ("record", a path on
// this machine), one line "<call> <tag> <action type>" each.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>

#include "pkgutils/worker.h"

namespace {

using ZARN::PkgUtils::ActionInfo;
using ZARN::PkgUtils::WorkerResp;

int Behave(const char* call, const ActionInfo& action, const Json::Value& request,
           WorkerResp& resp) {
    const std::string tag = request.get("tag", "").asString();
    FILE* record = std::fopen(request.get("record", "/dev/null").asCString(), "a");
    if (record != nullptr) {
        std::fprintf(record, "%s %s %u\n", call, tag.c_str(), action.GetActionType());
        std::fclose(record);
    }
    const std::string how = request.get(call, "ok").asString();
    if (how == "crash") {
        const struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        std::abort();
    }
    if (how == "fail") {
        resp.SetI18NErrMsg("test:worker_failed", "%s %s", call, tag.c_str());
        return 1;
    }
    return how == "two" ? 2 : 0;
}

class TestWorker : public ZARN::PkgUtils::IWorker {
public:
    int Acquire(const ActionInfo& action, const Json::Value& request, Json::Value& own,
                WorkerResp& resp) override {
        own["acquired"] = request.get("tag", "");
        own["user"] = action.GetPkgUserName();
        own["root"] = action.GetRootDir();
        own["request"] = request;
        return Behave("acquire", action, request, resp);
    }
    int Rollback(const ActionInfo& action, const Json::Value& request, Json::Value& own,
                 WorkerResp& resp) override {
        own["rolled-back"] = true;
        return Behave("rollback", action, request, resp);
    }
    int Release(const ActionInfo& action, const Json::Value& request, Json::Value& own,
                WorkerResp& resp) override {
        own["released"] = true;
        return Behave("release", action, request, resp);
    }
    bool IsUpdatable() override { return true; }
    int Update(const ActionInfo& action, const Json::Value& request, Json::Value& own,
               WorkerResp& resp) override {
        own["helper-args"] = request["@helper-args"];
        Behave("update", action, request, resp);
        return request.get("update", 1).asInt();
    }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) ZARN::PkgUtils::IWorker*
ZARNPkgUtilsPluginWorkerInit() {
    return new TestWorker();
}

extern "C" __attribute__((visibility("default"))) void* ZARNPkgUtilsPluginWorkerFree(
    ZARN::PkgUtils::IWorker* worker) {
    delete worker;
    return nullptr;
}
