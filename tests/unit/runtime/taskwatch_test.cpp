#include "runtime/taskwatch.h"

#include <ctime>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {

using testing::HasSubstr;

// Takes so much of the thread's processor time.
static void Burn(int64_t nUs)
{
    timespec now{}, start{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
    do
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    while ((now.tv_sec - start.tv_sec) * 1000000L + (now.tv_nsec - start.tv_nsec) / 1000 < nUs);
}

static void WatchTask(int64_t nFirstUs, int64_t nSecondUs, int nWaitMs = 0)
{
    TaskWatch watch;
    TaskWatchSetBound(2000);
    TaskWatchBegin(&watch);
    TaskWatchNote("first");
    Burn(nFirstUs);
    TaskWatchNote("second");
    Burn(nSecondUs);
    if (nWaitMs)
        std::this_thread::sleep_for(std::chrono::milliseconds(nWaitMs));
    TaskWatchEnd(&watch, reinterpret_cast<void (*)()>(WatchTask));
    TaskWatchSetBound(0);
}

TEST(TaskWatchTest, SaysWhatIsOverTheBound)
{
    const struct {
        int64_t nFirstUs, nSecondUs;
        int nWaitMs;
        const char *szLine;
    } cases[] = {
        {1500, 1500, 0, "held the scheduler for"},
        {3000, 100, 0, "(first) held the scheduler for"},
        {0, 3000, 0, "(second) held the scheduler for"},
        {0, 0, 5, "(second) waited for"},
    };
    for (const auto &c : cases) {
        testing::internal::CaptureStderr();
        WatchTask(c.nFirstUs, c.nSecondUs, c.nWaitMs);
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::AllOf(testing::StartsWith("TaskWatch: "), HasSubstr(c.szLine)));
    }
}

TEST(TaskWatchDeathTest, EndsTheProcessAtTenTimesTheBound)
{
    EXPECT_DEATH(WatchTask(0, 21000), HasSubstr("held the scheduler for"));
}

}  // namespace orx
