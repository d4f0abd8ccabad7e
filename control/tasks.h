#pragma once

#include <memory>
#include <string>

#include "platform/tasks.h"

namespace ZARNPackageTool {

// Every task of the package manager belongs to the administrators.
constexpr const char* PKG_TASK_OWNER = "@administrators";
constexpr const char* PKG_TASK_STARTSTOP_PREFIX = "@ZARNPKG_STARTSTOP_";
constexpr const char* PKG_TASK_UNINSTALL_PREFIX = "@ZARNPKG_UNINSTALL_";

// A new task, or null (logged) when the host's task manager refuses.
std::unique_ptr<KOS::Task> GetNewTask(const char* owner, const char* name);
// The task of that name, or null (logged).
std::shared_ptr<KOS::Task> GetTaskWithTaskMgr(const KOS::TaskMgr& manager, const char* name);
// The start/stop task of a package with its "data" (id, pid, taskid, status); null when it
// can't be made, and the action goes on without one. The caller removes it at the end.
std::unique_ptr<KOS::Task> createTask(const std::string& name, const std::string& status);
// The same under another task name prefix.
std::unique_ptr<KOS::Task> createTask(const char* prefix, const std::string& name,
                                      const std::string& status);
std::unique_ptr<KOS::Task> createStartStopTask(const std::string& name, bool start);

// The progress that a script reports in PMSGetProgressPath(name), read under the script's lock:
// -1 when there is none or it can't be read.
double PMSGetProgress(const std::string& name);

}  // namespace ZARNPackageTool
