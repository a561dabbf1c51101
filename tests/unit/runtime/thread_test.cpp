#include "runtime/thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <atomic>

#include "support/wait.h"

namespace orx {

static void PauseLong(Thread *pThread)
{
    ThreadPause(pThread, 3600 * 1000);
}

TEST(Thread, RunsItsBodyAndIsJoined)
{
    std::atomic<int> nRuns{0};
    Thread thread;
    for (int i = 1; i <= 2; i++) {
        auto *pfnCount = +[](Thread *pThread) { ++*static_cast<std::atomic<int> *>(pThread->pArgument); };
        ASSERT_EQ(1, ThreadCreate(&thread, pfnCount, &nRuns));
        EXPECT_TRUE(thread.nFlags & THREAD_STARTED);
        EXPECT_EQ(1, thread.bCreated);
        ThreadJoin(&thread);
        EXPECT_EQ(i, nRuns);
        EXPECT_EQ(0, thread.bCreated);
        EXPECT_TRUE(thread.nFlags & THREAD_ENDED);
    }
    ThreadJoin(&thread);  // nothing to join any more
}

TEST(Thread, StopRequestAndWakeupEndAPause)
{
    for (int bStop = 0; bStop < 2; bStop++) {
        Thread thread;
        ASSERT_EQ(1, ThreadCreate(&thread, PauseLong, nullptr));
        EXPECT_TRUE(WaitFor([&] { return thread.nPauseMs != 0; }));
        EXPECT_FALSE(ThreadStopping(&thread));
        bStop ? ThreadExit(&thread) : ThreadWakeup(&thread);
        EXPECT_TRUE(WaitFor([&] { return (thread.nFlags & THREAD_ENDED) != 0; }));
        EXPECT_EQ(bStop, ThreadStopping(&thread));
        ThreadJoin(&thread);
    }
}

TEST(Thread, CancelledThreadIsStillJoined)
{
    Thread thread;
    auto *pfnDeaf = +[](Thread *) {
        for (;;)
            pause();
    };
    ASSERT_EQ(1, ThreadCreate(&thread, pfnDeaf, nullptr));
    ThreadCancel(&thread);
    ThreadJoin(&thread);
    EXPECT_TRUE(ThreadStopping(&thread));
    EXPECT_FALSE(thread.nFlags & THREAD_ENDED);
}

struct ThreadDeathTest : testing::Test {
    void SetUp() override { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

// Gives up what lets a process raise its priority, and sends what it prints to where the tests look for it.
static void LoseRights()
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    rlimit none{0, 0};
    if (setrlimit(RLIMIT_NICE, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0))
        _exit(99);
}

TEST_F(ThreadDeathTest, PriorityThatMayNotBeRaised)
{
    Thread thread;
    thread.bCreated = 1;
    EXPECT_DEATH(
        {
            LoseRights();
            ThreadPriority(&thread, -20);
        },
        testing::HasSubstr("`setpriority(PRIO_PROCESS, 0, nPriority)==0'"));
    using testing::HasSubstr;
    EXPECT_EXIT(
        {
            LoseRights();
            ThreadAllowNoPriority(1);
            ThreadPriority(&thread, -20);
            ThreadPriority(&thread, -19);
            _exit(0);
        },
        testing::ExitedWithCode(0),
        testing::AllOf(HasSubstr("Priority -20 is not permitted"), testing::Not(HasSubstr("Priority -19"))));
}

TEST_F(ThreadDeathTest, Misuse)
{
    Thread thread;
    using testing::HasSubstr;
    EXPECT_DEATH(ThreadCreate(&thread, nullptr, nullptr), HasSubstr("`((void *)0)!=pfnEntry'"));
    EXPECT_DEATH(ThreadWakeup(nullptr), HasSubstr("`pThread'"));
}

}  // namespace orx
