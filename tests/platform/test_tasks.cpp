#include "platform/tasks.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "platform/json.h"
#include "support/temproot.h"

class TasksTest : public TempRootTest {};

// The data in the file and its removal are seen through the package code's start-stop task.
TEST_F(TasksTest, FinishIsSeenOnReloadAndNamesStayInTheTaskFolder) {
    KOS::Task task("@administrators", "@ZARNPKG_STARTSTOP_demo");
    ASSERT_TRUE(task.setProperty("data", Json::Value("demo")));
    Json::Value seen;
    ASSERT_TRUE(Json::fromString(
        seen, readFile("/tmp/KOSTaskMgr/@administrators/@ZARNPKG_STARTSTOP_demo.json")));
    EXPECT_EQ(seen["pid"].asInt64(), getpid());
    KOS::TaskMgr mgr("@administrators");
    auto other = mgr.getTask("@ZARNPKG_STARTSTOP_demo");
    ASSERT_TRUE(task.finish());
    EXPECT_FALSE(other->isFinished());
    ASSERT_TRUE(other->reload());
    EXPECT_TRUE(other->isFinished());

    // A new task of the same name starts afresh.
    KOS::Task again("@administrators", "@ZARNPKG_STARTSTOP_demo");
    EXPECT_TRUE(again.getProperty("data").isNull());
    ASSERT_TRUE(again.remove());
    EXPECT_FALSE(mgr.hasTask("@ZARNPKG_STARTSTOP_demo"));
    EXPECT_THROW(KOS::Task("@administrators", "../escape"), std::runtime_error);
    EXPECT_THROW(KOS::TaskMgr(".."), std::runtime_error);
}

// Two processes count in one property; an update that read a stale value would lose counts.
TEST_F(TasksTest, UpdatesOfTwoProcessesAreAtomic) {
    constexpr int kRounds = 150;
    KOS::Task task("@administrators", "counter");
    ASSERT_TRUE(task.setProperty("count", 0));
    auto count = [](KOS::Task& t) {
        for (int i = 0; i < kRounds; ++i) {
            if (!t.beginUpdate()) {
                return 1;
            }
            const int seen = t.getProperty("count").asInt();
            if (!t.setProperty("count", seen + 1) || !t.endUpdate()) {
                return 1;
            }
        }
        return 0;
    };
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        auto mine = KOS::TaskMgr("@administrators").getTask("counter");
        _exit(count(*mine));
    }
    EXPECT_EQ(count(task), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_TRUE(task.reload());
    EXPECT_EQ(task.getProperty("count").asInt(), 2 * kRounds);
}
