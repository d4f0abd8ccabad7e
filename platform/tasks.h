#pragma once

#include <json/json.h>

#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/fd.h"

// Tasks of the standalone host: one JSON file per task under /tmp/KOSTaskMgr/<owner>/ in the
// root, {"name", "owner", "taskid", "pid", "finished", "properties": {...}}, that the UI reads.
// Writers serialise on the flock of the owner's ".lock" file and replace a task's file by
// rename, so that a reader without the lock sees a whole version. Constructors and getTask
// throw std::runtime_error when a task can't be made or found.
namespace KOS {

class ZARNHOST_API Task {
public:
    // Makes the task, or starts it afresh when one of the name is left from an earlier run.
    Task(const std::string& owner, const std::string& name);
    ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    std::string getTaskId() const;
    const std::string& getName() const;

    // Updates between beginUpdate and endUpdate are one change to the file: beginUpdate takes
    // the lock and reloads, endUpdate writes and lets go. A setter outside such a pair makes
    // one of its own. False (last error set) when the lock or the file fails.
    bool beginUpdate();
    bool endUpdate();
    // Reads the file again, dropping what this object changed since its last write.
    bool reload();

    bool setProperty(const std::string& key, const Json::Value& value);
    // The property, null when it isn't set.
    Json::Value getProperty(const std::string& key) const;
    // Marks the task done; it stays visible until removed.
    bool finish();
    bool isFinished() const;
    // Deletes the task's file.
    bool remove();

private:
    friend class TaskMgr;
    struct Attach {};
    // A task whose file exists.
    Task(const std::string& owner, const std::string& name, Attach);
    bool write();

    std::string owner_;
    std::string name_;
    Json::Value state_;
    Fd lock_;
    int depth_ = 0;
};

class ZARNHOST_API TaskMgr {
public:
    explicit TaskMgr(const std::string& owner);

    bool hasTask(const std::string& name) const;
    // The task of that name as its file holds it now.
    std::shared_ptr<Task> getTask(const std::string& name) const;

private:
    std::string owner_;
};

}  // namespace KOS

// The logical folder of an owner's tasks.
ZARNHOST_API std::string ZARNTaskDir(const std::string& owner);
