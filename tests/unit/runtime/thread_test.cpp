#include "runtime/thread.h"

#include <atomic>

#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/wait.h"

namespace orx {
namespace {

TEST(Thread, RunsAgainOnceItWasJoined)
{
    std::atomic<int> nRuns{0};
    Thread thread;
    for (int i = 1; i <= 2; i++) {
        auto *pfnCount = +[](Thread *pThread) { ++*static_cast<std::atomic<int> *>(pThread->pArgument); };
        ASSERT_EQ(1, ThreadCreate(&thread, pfnCount, &nRuns));
        ThreadJoin(&thread);
        EXPECT_EQ(i, nRuns);
        EXPECT_TRUE(thread.nFlags & THREAD_ENDED);
    }
    ThreadJoin(&thread);  // nothing to join any more
}

TEST(Thread, StopRequestAndWakeupEndAPause)
{
    for (int bStop : {0, 1}) {
        Thread thread;
        ASSERT_EQ(1, ThreadCreate(
                         &thread, [](Thread *pThread) { ThreadPause(pThread, 3600 * 1000); }, nullptr));
        EXPECT_TRUE(WaitFor([&] { return thread.nPauseMs != 0; }));
        bStop ? ThreadExit(&thread) : ThreadWakeup(&thread);
        EXPECT_TRUE(WaitFor([&] { return (thread.nFlags & THREAD_ENDED) != 0; }));
        EXPECT_EQ(bStop, ThreadStopping(&thread));
        ThreadJoin(&thread);
    }
}

// Gives up what lets a process raise its priority, and sends what it prints to where the tests look for it.
void RaisePriorityWithoutTheRight(int bAllowed)
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    rlimit none{0, 0};
    if (setrlimit(RLIMIT_NICE, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0))
        _exit(99);
    Thread thread;
    thread.bCreated = 1;
    ThreadAllowNoPriority(bAllowed);
    ThreadPriority(&thread, -20);
    ThreadPriority(&thread, -19);
    _exit(0);
}

TEST(ThreadDeathTest, PriorityThatMayNotBeRaised)
{
    using testing::HasSubstr;
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(RaisePriorityWithoutTheRight(0), HasSubstr("`setpriority(PRIO_PROCESS, 0, nPriority)==0'"));
    EXPECT_EXIT(RaisePriorityWithoutTheRight(1), testing::ExitedWithCode(0),
                testing::AllOf(HasSubstr("Priority -20 is not permitted"),
                               testing::Not(HasSubstr("Priority -19"))));  // it is told once
}

}  // namespace
}  // namespace orx
