#include "runtime/thread.h"

#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/emulated.h"
#include "support/wait.h"

namespace orx {

// Gives up what lets a process raise its priority, and sends what it prints to where the tests look for it.
static void RaisePriorityWithoutTheRight(int bAllowed)
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
    if (!kEmulated)  // which would have to start this program anew
        testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(RaisePriorityWithoutTheRight(0), HasSubstr("`setpriority(PRIO_PROCESS, 0, nPriority)==0'"));
    EXPECT_EXIT(RaisePriorityWithoutTheRight(1), testing::ExitedWithCode(0),
                testing::AllOf(HasSubstr("Priority -20 is not permitted"),
                               testing::Not(HasSubstr("Priority -19"))));  // it is told once
}

TEST(Thread, EndsAPauseOrDiesWhereItStands)
{
    Thread sleeper, deaf;
    auto *pfnSleep = +[](Thread *pThread) { ThreadPause(pThread, 3600000); };
    ASSERT_EQ(1, ThreadCreate(&sleeper, pfnSleep, nullptr));
    EXPECT_TRUE(WaitFor([&] {
        ThreadWakeup(&sleeper);  // lost when it comes before the pause
        return (sleeper.nFlags & THREAD_ENDED) != 0;
    }));
    EXPECT_EQ(0, ThreadStopping(&sleeper));
    ThreadJoin(&sleeper);

    auto *pfnNeverEnd = +[](Thread *) {
        for (;;)
            pause();
    };
    ASSERT_EQ(1, ThreadCreate(&deaf, pfnNeverEnd, nullptr));
    ThreadCancel(&deaf);
    ThreadJoin(&deaf);
    EXPECT_EQ(1, ThreadStopping(&deaf));
    EXPECT_EQ(0U, deaf.nFlags & THREAD_ENDED);
}

}  // namespace orx
