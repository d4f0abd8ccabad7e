#include "platform/tasks.h"

#include <unistd.h>

#include <stdexcept>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/json.h"
#include "platform/locks.h"

namespace {

constexpr const char* kTaskRoot = "/tmp/KOSTaskMgr";
// Long enough for a writer that syncs its file, short enough that a stuck one shows.
constexpr int kLockSeconds = 30;

// Owners and task names become file names: one component, never a way out of the folder.
bool IsSafeComponent(const std::string& text) {
    return !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos &&
           text.find('\0') == std::string::npos;
}

std::string TaskPath(const std::string& owner, const std::string& name) {
    return ZARNTaskDir(owner) + "/" + name + ".json";
}

void Require(bool ok, const char* what, const std::string& owner, const std::string& name) {
    if (!ok) {
        throw std::runtime_error(std::string(what) + " " + owner + "/" + name);
    }
}

}  // namespace

std::string ZARNTaskDir(const std::string& owner) {
    return std::string(kTaskRoot) + "/" + owner;
}

namespace KOS {

Task::Task(const std::string& owner, const std::string& name) : owner_(owner), name_(name) {
    Require(IsSafeComponent(owner) && IsSafeComponent(name), "bad task name", owner, name);
    Require(ZARNFSMkdirP(ZARNTaskDir(owner), 0, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1),
                         0755) == 0,
            "cannot make the task folder of", owner, name);
    state_ = Json::Value(Json::objectValue);
    state_["name"] = name;
    state_["owner"] = owner;
    state_["taskid"] = name;
    state_["pid"] = static_cast<Json::Int64>(getpid());
    state_["finished"] = false;
    state_["properties"] = Json::Value(Json::objectValue);
    // A fresh task replaces whatever an earlier run left, so no reload here.
    depth_ = 1;
    lock_ = ZARNLockFileOpen(ZARNTaskDir(owner_) + "/.lock");
    Require(lock_.valid() && ZARNFlock(lock_.get(), true, kLockSeconds) && endUpdate(),
            "cannot write task", owner, name);
}

Task::Task(const std::string& owner, const std::string& name, Attach) : owner_(owner), name_(name) {
    Require(IsSafeComponent(owner) && IsSafeComponent(name) && reload(), "no task", owner, name);
}

Task::~Task() = default;

std::string Task::getTaskId() const {
    return state_["taskid"].asString();
}

const std::string& Task::getName() const {
    return name_;
}

bool Task::beginUpdate() {
    if (depth_++ > 0) {
        return true;
    }
    lock_ = ZARNLockFileOpen(ZARNTaskDir(owner_) + "/.lock");
    if (lock_.valid() && ZARNFlock(lock_.get(), true, kLockSeconds) && reload()) {
        return true;
    }
    lock_.reset();
    depth_ = 0;
    return false;
}

bool Task::endUpdate() {
    if (depth_ == 0) {
        VLIBCErrSet(ZARN_ERR_BAD_PARAMETERS);
        return false;
    }
    if (--depth_ > 0) {
        return true;
    }
    const bool ok = write();
    lock_.reset();
    return ok;
}

bool Task::reload() {
    Json::Value state;
    if (!Json::fromFile(state, TaskPath(owner_, name_))) {
        return false;
    }
    if (!state.isObject() || !state["properties"].isObject()) {
        VLIBCErrSet(ZARN_ERR_IO);
        return false;
    }
    state_ = state;
    return true;
}

bool Task::write() {
    return Json::toFile(state_, TaskPath(owner_, name_));
}

bool Task::setProperty(const std::string& key, const Json::Value& value) {
    if (!beginUpdate()) {
        return false;
    }
    state_["properties"][key] = value;
    return endUpdate();
}

Json::Value Task::getProperty(const std::string& key) const {
    return state_["properties"].get(key, Json::Value());
}

bool Task::finish() {
    if (!beginUpdate()) {
        return false;
    }
    state_["finished"] = true;
    return endUpdate();
}

bool Task::isFinished() const {
    return state_["finished"].asBool();
}

bool Task::remove() {
    Fd lock = ZARNLockFileOpen(ZARNTaskDir(owner_) + "/.lock");
    // Inside an update the lock is ours already; a second flock on another descriptor would wait.
    const bool held = depth_ > 0 || (lock.valid() && ZARNFlock(lock.get(), true, kLockSeconds));
    const bool ok = held && ZARNRemoveTree(TaskPath(owner_, name_));
    depth_ = 0;
    lock_.reset();
    return ok;
}

TaskMgr::TaskMgr(const std::string& owner) : owner_(owner) {
    Require(IsSafeComponent(owner), "bad task owner", owner, "");
}

bool TaskMgr::hasTask(const std::string& name) const {
    return IsSafeComponent(name) && ZARNIsRegularFile(TaskPath(owner_, name));
}

std::shared_ptr<Task> TaskMgr::getTask(const std::string& name) const {
    return std::shared_ptr<Task>(new Task(owner_, name, Task::Attach{}));
}

}  // namespace KOS
