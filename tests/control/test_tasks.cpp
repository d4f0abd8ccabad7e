#include "control/tasks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lifecycle/script_env.h"
#include "platform/files.h"
#include "platform/json.h"
#include "support/temproot.h"

using namespace ZARNPackageTool;

class ControlTasks : public TempRootTest {};

TEST_F(ControlTasks, StartStopTaskCarriesItsData) {
    auto task = createStartStopTask("demo", false);
    ASSERT_TRUE(task);
    Json::Value seen;
    ASSERT_TRUE(Json::fromString(
        seen, readFile("/tmp/KOSTaskMgr/@administrators/@ZARNPKG_STARTSTOP_demo.json")));
    // Its id and status are what the service control tests see while an action runs.
    const Json::Value& data = seen["properties"]["data"];
    EXPECT_EQ(data["taskid"], task->getTaskId());
    EXPECT_EQ(data["pid"].asInt64(), getpid());
    ASSERT_TRUE(task->remove());
    EXPECT_EQ(GetTaskWithTaskMgr(KOS::TaskMgr(PKG_TASK_OWNER), "@ZARNPKG_STARTSTOP_demo"), nullptr);
    EXPECT_TRUE(logged("GetTaskWithTaskMgr failed with exception"));

    // Without a task manager the action goes on without a task.
    ASSERT_TRUE(ZARNRemoveTree("/tmp/KOSTaskMgr"));
    writeFile("/tmp/KOSTaskMgr", "not a folder");
    EXPECT_EQ(createStartStopTask("demo", true), nullptr);
    EXPECT_TRUE(logged("GetNewTask failed with exception"));
}

TEST_F(ControlTasks, ProgressIsReadUnderTheWritersLock) {
    EXPECT_EQ(PMSGetProgressPath("demo"), "/tmp/install_progress_demo");
    EXPECT_EQ(PMSGetProgress("demo"), -1) << "no file yet";
    writeFile("/tmp/install_progress_demo", "not a number");
    EXPECT_EQ(PMSGetProgress("demo"), 0);

    // A writer empties the file under its lock and writes the value a moment later.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        int fd = open(phys("/tmp/install_progress_demo").c_str(), O_RDWR);
        if (fd < 0 || flock(fd, LOCK_EX) != 0 || ftruncate(fd, 0) != 0 ||
            write(ready[1], "x", 1) != 1) {
            _exit(1);
        }
        usleep(300 * 1000);
        _exit(write(fd, "42.5", 4) == 4 ? 0 : 1);
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    EXPECT_EQ(PMSGetProgress("demo"), 42.5);
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
