#include "control/tasks.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>

#include "lifecycle/script_env.h"
#include "platform/files.h"
#include "platform/locks.h"
#include "platform/log.h"

namespace ZARNPackageTool {

namespace {
// A script may hold the progress file while it writes; it gets a minute.
constexpr int kProgressLockSeconds = 60;
constexpr size_t kProgressTextLimit = 64;
}  // namespace

std::unique_ptr<KOS::Task> GetNewTask(const char* owner, const char* name) {
    try {
        return std::make_unique<KOS::Task>(owner ? owner : "", name ? name : "");
    } catch (const std::exception& e) {
        ZLOGERR("GetNewTask failed with exception: '%s'", e.what());
    }
    return nullptr;
}

std::shared_ptr<KOS::Task> GetTaskWithTaskMgr(const KOS::TaskMgr& manager, const char* name) {
    try {
        return manager.getTask(name ? name : "");
    } catch (const std::exception& e) {
        ZLOGERR("GetTaskWithTaskMgr failed with exception: '%s'", e.what());
    }
    return nullptr;
}

std::unique_ptr<KOS::Task> createTask(const std::string& name, const std::string& status) {
    return createTask(PKG_TASK_STARTSTOP_PREFIX, name, status);
}

std::unique_ptr<KOS::Task> createTask(const char* prefix, const std::string& name,
                                      const std::string& status) {
    const std::string taskName = prefix + name;
    std::unique_ptr<KOS::Task> task = GetNewTask(PKG_TASK_OWNER, taskName.c_str());
    if (!task) {
        return nullptr;
    }
    Json::Value data(Json::objectValue);
    data["id"] = name;
    data["pid"] = static_cast<Json::Int64>(getpid());
    data["taskid"] = task->getTaskId();
    data["status"] = status;
    if (!task->setProperty("data", data)) {
        ZLOGERR("Failed to set data of task %s %s", taskName.c_str(),
                ZARNLastErrorSuffix().c_str());
        task->remove();
        return nullptr;
    }
    return task;
}

std::unique_ptr<KOS::Task> createStartStopTask(const std::string& name, bool start) {
    return createTask(name, start ? "starting" : "stopping");
}

double PMSGetProgress(const std::string& name) {
    const std::string path = PMSGetProgressPath(name);
    if (!ZARNPathExists(path)) {
        return -1;
    }
    Fd fd;
    if (VLIBCFileLockTimeByFile(path, 0, kProgressLockSeconds, fd) != 0) {
        ZLOGERR("Failed to Lock file, %s, %m", path.c_str());
        return -1;
    }
    char text[kProgressTextLimit + 1] = "";
    const ssize_t n = read(fd.get(), text, kProgressTextLimit);
    VLIBCFileUnlockByFile(fd);
    if (n < 0) {
        ZLOGERR("Failed to read %s, %m", path.c_str());
        return -1;
    }
    text[n] = '\0';
    return strtod(text, nullptr);
}

}  // namespace ZARNPackageTool
