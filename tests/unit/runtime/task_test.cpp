#include "runtime/task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "runtime/clock.h"
#include "support/wait.h"

namespace orx {

static constexpr uint32_t kMinuteMs = 60 * 1000;

struct NotedRun {
    int nParam;
    int32_t nEarlyMs;
    uint32_t nNow, nDue;
};

struct SchedulerTest : testing::Test {
    Scheduler scheduler;
    std::mutex mutex;
    std::vector<NotedRun> runs;
    std::atomic<int> bHeld{0}, bInside{0}, nResult{-1};
    std::atomic<Task *> pVictim{nullptr};

    void SetUp() override
    {
        ThreadAllowNoPriority(1);
        ASSERT_EQ(1, SchedulerCreate(&scheduler));
    }
    void TearDown() override
    {
        bHeld = 0;
        SchedulerDestroy(&scheduler);
        ClockSetOffset(nOffset = 0);
    }
    // Notes the run and gives nResult.
    static int Note(Task *pTask, uint32_t nLate, uint32_t nNow, uint32_t nDue)
    {
        auto *pTest = static_cast<SchedulerTest *>(TaskArgument(pTask));
        std::lock_guard<std::mutex> guard(pTest->mutex);
        pTest->runs.push_back({pTask->nParam, static_cast<int32_t>(nLate), nNow, nDue});
        return pTest->nResult;
    }
    // Keeps the scheduler thread busy until bHeld is taken back.
    static int Hold(Task *pTask, uint32_t, uint32_t, uint32_t)
    {
        auto *pTest = static_cast<SchedulerTest *>(TaskArgument(pTask));
        pTest->bInside = 1;
        EXPECT_TRUE(WaitFor([&] { return !pTest->bHeld; }));
        pTest->bInside = 0;
        return pTest->nResult;
    }
    Task *Add(uint32_t nDelayMs, int nParam)
    {
        return TaskSchedule(&scheduler, Note, nDelayMs, nParam, this);
    }
    // Everything scheduled until Let is in the list before any of it runs.
    Task *HoldThread()
    {
        bHeld = 1;
        Task *pTask = TaskSchedule(&scheduler, Hold, 0, 0, this);
        EXPECT_TRUE(WaitFor([&] { return bInside == 1; }));
        return pTask;
    }
    void Let() { bHeld = 0; }
    // The clock of the server stands nMs later than now, so that long delays are over.
    static void Jump(uint32_t nMs) { ClockSetOffset(nOffset += nMs); }
    static void JumpTo(uint32_t nMs) { Jump(nMs - ClockMs()); }
    std::vector<int> Order(size_t nRuns)
    {
        EXPECT_TRUE(WaitFor([&] { return Runs().size() >= nRuns; }));
        std::vector<int> params;
        for (const NotedRun &run : Runs())
            params.push_back(run.nParam);
        return params;
    }
    std::vector<NotedRun> Runs()
    {
        std::lock_guard<std::mutex> guard(mutex);
        return runs;
    }
    uint32_t Waits()
    {
        pthread_mutex_lock(&scheduler.mutex);
        uint32_t nWaits = scheduler.nWaits;
        pthread_mutex_unlock(&scheduler.mutex);
        return nWaits;
    }
    void WaitUntilIdle()
    {
        EXPECT_TRUE(WaitFor([&] {
            pthread_mutex_lock(&scheduler.mutex);
            int bIdle = scheduler.eWait == SCHEDULER_IDLE;
            pthread_mutex_unlock(&scheduler.mutex);
            return bIdle;
        }));
    }
    inline static uint32_t nOffset = 0;
};

TEST_F(SchedulerTest, BurstRunsNewestFirstBeforeWhatIsDue)
{
    HoldThread();
    Add(10 * kMinuteMs, 10);
    Jump(20 * kMinuteMs);
    for (int i = 1; i <= 4; i++)
        Add(0, i);
    EXPECT_EQ(6U, SchedulerTaskCount(&scheduler));
    Let();
    EXPECT_THAT(Order(5), testing::ElementsAre(4, 3, 2, 1, 10));
    EXPECT_TRUE(WaitFor([&] { return SchedulerTaskCount(&scheduler) == 0; }));
}

TEST_F(SchedulerTest, OrderHoldsAcrossTheWrapOfTheClock)
{
    HoldThread();
    JumpTo(0U - 15 * kMinuteMs);  // some are due before the wrap, some after
    static const uint32_t minutes[] = {30, 10, 20, 5, 25, 10, 10};
    for (int i = 0; i < 7; i++)
        Add(minutes[i] * kMinuteMs, i);
    Let();
    WaitUntilIdle();
    EXPECT_TRUE(Runs().empty());
    HoldThread();
    Jump(40 * kMinuteMs);
    ASSERT_LT(ClockMs(), 30 * kMinuteMs);
    Let();
    EXPECT_THAT(Order(7), testing::ElementsAre(3, 1, 5, 6, 2, 4, 0));
    for (const NotedRun &run : Runs())
        EXPECT_LT(run.nEarlyMs, 0);
}

TEST_F(SchedulerTest, RunsUpToTenMillisecondsEarly)
{
    int bEarly = 0;
    for (size_t i = 0; i < 100 && !bEarly; i++) {
        uint32_t nBefore = ClockMs();
        Add(25, 1);
        uint32_t nAfter = ClockMs();
        Order(i + 1);
        NotedRun run = Runs()[i];
        EXPECT_LE(run.nEarlyMs, 10);
        EXPECT_EQ(run.nEarlyMs, ClockDiff(run.nDue, run.nNow));
        EXPECT_GE(ClockDiff(run.nDue, nBefore), 25);
        EXPECT_LE(ClockDiff(run.nDue, nAfter), 25);
        bEarly = run.nEarlyMs > 0;
    }
    EXPECT_TRUE(bEarly);
}

TEST_F(SchedulerTest, QuarterOfTheRunningTimeIsAdded)
{
    static std::atomic<uint32_t> nBegan, nDue;
    nBegan = nDue = 0;
    auto *pfnSlow = +[](Task *, uint32_t, uint32_t nNow, uint32_t nTaskDue) {
        if (nBegan) {
            nDue = nTaskDue;
            return -1;
        }
        nBegan = nNow;
        Jump(400);  // what it takes
        return 100;
    };
    TaskSchedule(&scheduler, pfnSlow, 0, 0, nullptr);
    EXPECT_TRUE(WaitFor([&] { return nDue != 0; }));
    EXPECT_GE(ClockDiff(nDue, nBegan), 400 + 100 + 100);
    EXPECT_LT(ClockDiff(nDue, nBegan), 400 + 100 + 100 + 200);
}

TEST_F(SchedulerTest, CallbackCancelsAnotherThatIsDue)
{
    auto *pfnCancel = +[](Task *pTask, uint32_t, uint32_t, uint32_t) {
        auto *pTest = static_cast<SchedulerTest *>(TaskArgument(pTask));
        TaskCancel(pTest->pVictim);
        EXPECT_EQ(1U, SchedulerTaskCount(&pTest->scheduler));  // itself not counted
        return -1;
    };
    HoldThread();
    Add(0, 1);
    pVictim = Add(0, 2);
    TaskSchedule(&scheduler, pfnCancel, 0, 0, this);
    Let();
    EXPECT_THAT(Order(1), testing::ElementsAre(1));
    EXPECT_TRUE(WaitFor([&] { return SchedulerTaskCount(&scheduler) == 0; }));
    EXPECT_EQ(1U, Runs().size());
}

TEST_F(SchedulerTest, CancelOfARunningTaskWaitsForItsEnd)
{
    nResult = 0;  // would run again at once
    Task *pTask = HoldThread();
    std::atomic<int> bBegun{0};
    std::thread canceller([&] {
        bBegun = 1;
        TaskCancel(pTask);
        EXPECT_EQ(0, bInside);
    });
    EXPECT_TRUE(WaitFor([&] {
        pthread_mutex_lock(&scheduler.mutex);
        unsigned nCancellers = scheduler.nCancellers;
        pthread_mutex_unlock(&scheduler.mutex);
        return bBegun && nCancellers == 1;
    }));
    EXPECT_EQ(1, bInside);
    Let();
    canceller.join();
    EXPECT_EQ(0U, SchedulerTaskCount(&scheduler));
}

TEST_F(SchedulerTest, CancelOfOneselfEndsTheTask)
{
    auto *pfnSelf = +[](Task *pTask, uint32_t, uint32_t, uint32_t) {
        TaskCancel(pTask);
        return 0;
    };
    TaskSchedule(&scheduler, pfnSelf, 0, 0, nullptr);
    EXPECT_TRUE(WaitFor([&] { return SchedulerTaskCount(&scheduler) == 0; }));
}

// A wake-up that is missed would cost these tests the ten minutes of the timer.
TEST_F(SchedulerTest, NewTasksWakeAnIdleThread)
{
    WaitUntilIdle();
    Add(0, 1);
    EXPECT_THAT(Order(1), testing::ElementsAre(1));
    Add(10 * kMinuteMs, 9);
    WaitUntilIdle();
    Add(0, 2);
    EXPECT_THAT(Order(2), testing::ElementsAre(1, 2));
    WaitUntilIdle();
    Add(15, 3);
    EXPECT_THAT(Order(3), testing::ElementsAre(1, 2, 3));
}

TEST_F(SchedulerTest, CorkedBurstWakesOnce)
{
    WaitUntilIdle();
    uint32_t nWaits = Waits();
    SchedulerCork(&scheduler, 1);
    SchedulerCork(&scheduler, 1);
    for (int i = 1; i <= 3; i++)
        Add(0, i);
    SchedulerCork(&scheduler, 0);
    EXPECT_EQ(nWaits, Waits());
    SchedulerCork(&scheduler, 0);
    EXPECT_THAT(Order(3), testing::ElementsAre(3, 2, 1));
    EXPECT_EQ(nWaits + 1, Waits());
}

TEST_F(SchedulerTest, ThreadsScheduleAtTheSameTime)
{
    std::vector<std::thread> threads(4);
    for (std::thread &thread : threads) {
        thread = std::thread([&] {
            for (int i = 0; i < 300; i++)
                Add(i % 3 == 0 ? 3 : 0, i);
            for (int i = 0; i < 100; i++)
                TaskCancel(Add(10 * kMinuteMs, -1));
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    Order(1200);
    EXPECT_TRUE(WaitFor([&] { return SchedulerTaskCount(&scheduler) == 0; }));
    EXPECT_EQ(1200U, Runs().size());
}

TEST(SchedulerDeathTest, CancelOfNothing)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    Task task;
    EXPECT_DEATH(TaskCancel(nullptr), testing::HasSubstr("`pTask && pTask->node.pList'"));
    EXPECT_DEATH(TaskCancel(&task), testing::HasSubstr("`pTask && pTask->node.pList'"));
}

}  // namespace orx
