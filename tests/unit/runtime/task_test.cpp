#include "runtime/task.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/clock.h"
#include "support/wait.h"

namespace orx {

using testing::ElementsAre;

constexpr uint32_t kMinuteMs = 60 * 1000;

struct SchedulerTest : testing::Test {
    Scheduler scheduler;
    std::mutex mutex;
    std::vector<int> params;                // of the tasks that ran, in order
    std::atomic<int> bHeld{0}, bInside{0};  // the thread is to be kept busy; it is
    std::atomic<Task *> pVictim{nullptr};
    inline static uint32_t nOffset = 0;

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
    static SchedulerTest *Of(const Task *pTask) { return static_cast<SchedulerTest *>(TaskArgument(pTask)); }

    Task *Add(uint32_t nDelayMs, int nParam)
    {
        auto *pfnNote = +[](Task *pTask, uint32_t nEarlyMs, uint32_t, uint32_t) {
            EXPECT_LE(static_cast<int32_t>(nEarlyMs), 10);
            std::lock_guard<std::mutex> guard(Of(pTask)->mutex);
            Of(pTask)->params.push_back(pTask->nParam);
            return -1;
        };
        return TaskSchedule(&scheduler, pfnNote, nDelayMs, nParam, this);
    }
    // Keeps the thread busy: everything scheduled until Let is in the list before any of it runs.
    Task *HoldThread(int nResult = -1)
    {
        auto *pfnHold = +[](Task *pTask, uint32_t, uint32_t, uint32_t) {
            Of(pTask)->bInside = 1;
            EXPECT_TRUE(WaitFor([&] { return !Of(pTask)->bHeld; }));
            Of(pTask)->bInside = 0;
            return pTask->nParam;
        };
        bHeld = 1;
        Task *pTask = TaskSchedule(&scheduler, pfnHold, 0, nResult, this);
        EXPECT_TRUE(WaitFor([&] { return bInside == 1; }));
        return pTask;
    }
    void Let() { bHeld = 0; }
    // The clock of the server stands nMs later than now, so that long delays are over.
    static void Jump(uint32_t nMs) { ClockSetOffset(nOffset += nMs); }

    // The tasks that ran, in order, once there are so many.
    std::vector<int> Ran(size_t nRuns = 0)
    {
        std::vector<int> ran;
        EXPECT_TRUE(WaitFor([&] {
            std::lock_guard<std::mutex> guard(mutex);
            ran = params;
            return ran.size() >= nRuns;
        }));
        return ran;
    }
    // A field that the scheduler's mutex guards.
    template <typename Field>
    Field Guarded(Field Scheduler::*pField)
    {
        pthread_mutex_lock(&scheduler.mutex);
        Field value = scheduler.*pField;
        pthread_mutex_unlock(&scheduler.mutex);
        return value;
    }
    void WaitUntilIdle()
    {
        EXPECT_TRUE(WaitFor([&] { return Guarded(&Scheduler::eWait) == SCHEDULER_IDLE; }));
    }
    void WaitUntilDone()
    {
        EXPECT_TRUE(WaitFor([&] { return SchedulerTaskCount(&scheduler) == 0; }));
    }
};

TEST_F(SchedulerTest, OrderHoldsAcrossTheWrapOfTheClock)
{
    HoldThread();
    Jump(0U - 15 * kMinuteMs - ClockMs());  // some are due before the wrap, some after
    static const uint32_t minutes[] = {30, 10, 20, 5, 25, 10, 10};
    for (int i = 0; i < 7; i++)
        Add(minutes[i] * kMinuteMs, i);
    Let();
    WaitUntilIdle();
    EXPECT_THAT(Ran(), ElementsAre());
    HoldThread();
    Jump(40 * kMinuteMs);
    ASSERT_LT(ClockMs(), 30 * kMinuteMs);
    Add(0, 8);  // a burst runs newest first, before what is due
    Add(0, 9);
    Let();
    EXPECT_THAT(Ran(9), ElementsAre(9, 8, 3, 1, 5, 6, 2, 4, 0));
    WaitUntilDone();
}

// Urgent tasks that never end: others that are due run after each 49 of them, once.
TEST_F(SchedulerTest, UrgentTasksLeaveRoomToOthers)
{
    static int nLeft;
    nLeft = 200;
    auto *pfnAgain = +[](Task *pTask, uint32_t, uint32_t, uint32_t) {
        std::lock_guard<std::mutex> guard(Of(pTask)->mutex);
        Of(pTask)->params.push_back(pTask->nParam);
        if (nLeft-- > 0)  // one that is not urgent runs again, or the urgent one schedules itself
            return pTask->nParam ? 0 : (TaskSchedule(pTask->pScheduler, pTask->pfnRun, 0, 0, TaskArgument(pTask)), -1);
        return -1;
    };
    HoldThread();
    TaskSchedule(&scheduler, pfnAgain, 20, 1, this);
    Jump(kMinuteMs);
    TaskSchedule(&scheduler, pfnAgain, 0, 0, this);
    Let();
    std::vector<int> ran = Ran(200);
    EXPECT_LE(std::ranges::find(ran, 1) - ran.begin(), 49);
    EXPECT_LE(std::count(ran.begin(), ran.begin() + 90, 1), 2) << "once in a while";
    WaitUntilDone();
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
    EXPECT_GE(ClockDiff(nDue, nBegan), 400 + 100 + 400 / 4);
}

TEST_F(SchedulerTest, CallbackCancelsAnotherThatIsDue)
{
    auto *pfnCancel = +[](Task *pTask, uint32_t, uint32_t, uint32_t) {
        TaskCancel(Of(pTask)->pVictim);
        EXPECT_EQ(1U, SchedulerTaskCount(&Of(pTask)->scheduler));  // itself not counted
        return -1;
    };
    HoldThread();
    Add(0, 1);
    pVictim = Add(0, 2);
    TaskSchedule(&scheduler, pfnCancel, 0, 0, this);
    Let();
    WaitUntilDone();
    EXPECT_THAT(Ran(), ElementsAre(1));
}

TEST_F(SchedulerTest, CancelOfARunningTaskWaitsForItsEnd)
{
    Task *pTask = HoldThread(0);  // would run again at once
    std::thread canceller([&] {
        TaskCancel(pTask);
        EXPECT_EQ(0, bInside);
    });
    EXPECT_TRUE(WaitFor([&] { return Guarded(&Scheduler::nCancellers) == 1; }));
    EXPECT_EQ(1, bInside);
    Let();
    canceller.join();
    EXPECT_EQ(0U, SchedulerTaskCount(&scheduler));
}

// A wake-up that is missed would cost this test the ten minutes of the timer.
TEST_F(SchedulerTest, NewTasksWakeAnIdleThread)
{
    WaitUntilIdle();
    Add(10 * kMinuteMs, 9);
    WaitUntilIdle();
    Add(0, 1);
    EXPECT_THAT(Ran(1), ElementsAre(1));
    WaitUntilIdle();
    Add(15, 2);
    EXPECT_THAT(Ran(2), ElementsAre(1, 2));
}

// Tasks that will run again: after each there is a pause, but for an exact scheduler where the next is due.
// That one lets a task that is not yet due wait.
TEST_F(SchedulerTest, ExactPausesEndWithWhatIsDue)
{
    auto *pfnLater = +[](Task *pTask, uint32_t nEarlyMs, uint32_t, uint32_t) {
        EXPECT_LE(static_cast<int32_t>(nEarlyMs), pTask->nParam ? 1 : 10);
        std::lock_guard<std::mutex> guard(Of(pTask)->mutex);
        Of(pTask)->params.push_back(pTask->nParam);
        return static_cast<int>(20 * kMinuteMs);
    };
    for (int bExact : {0, 1}) {
        SchedulerSetExact(&scheduler, bExact);
        HoldThread();
        for (uint32_t i = 0; i < 40; i++)
            TaskSchedule(&scheduler, pfnLater, 5 * kMinuteMs, bExact, this);
        Jump(5 * kMinuteMs);
        uint32_t nWaits = Guarded(&Scheduler::nWaits);
        Let();
        Ran(bExact ? 80 : 40);
        WaitUntilIdle();
        if (bExact)
            EXPECT_LE(Guarded(&Scheduler::nWaits) - nWaits, 3U);
        else
            EXPECT_GE(Guarded(&Scheduler::nWaits) - nWaits, 39U);
    }
    uint32_t nFrom = ClockMs();
    Add(8, 7);
    EXPECT_EQ(7, Ran(81).back());
    EXPECT_GE(ClockMs() - nFrom, 7U);
}

// Corks are counted, and what was added meanwhile wakes the thread once.
TEST_F(SchedulerTest, CorkedBurstWakesOnce)
{
    WaitUntilIdle();
    uint32_t nWaits = Guarded(&Scheduler::nWaits);
    SchedulerCork(&scheduler, 1);
    SchedulerCork(&scheduler, 1);
    for (int i = 1; i <= 3; i++)
        Add(0, i);
    SchedulerCork(&scheduler, 0);
    EXPECT_EQ(nWaits, Guarded(&Scheduler::nWaits));
    SchedulerCork(&scheduler, 0);
    EXPECT_THAT(Ran(3), ElementsAre(3, 2, 1));
    EXPECT_EQ(nWaits + 1, Guarded(&Scheduler::nWaits));
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
    WaitUntilDone();
    EXPECT_EQ(1200U, Ran().size());
}

}  // namespace orx
