#include "runtime/task.h"

#include <sys/resource.h>
#include <algorithm>
#include <cstddef>
#include <ctime>
#include <new>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "runtime/mutexguard.h"
#include "runtime/taskwatch.h"

namespace orx {

// A burst of events goes in one piece, and one that does not end leaves room to others every so many tasks.
// Nothing hangs on the exact number.
static constexpr int kTasksPerPass = 49;
static constexpr int32_t kEarlyMs = 10;       // tasks due within so short a time share a wake-up
static constexpr int32_t kExactEarlyMs = 1;   // the same of a scheduler that is exact
static constexpr int32_t kTaskPauseMs = 1;    // after a task that will run again: at most 1000 runs a second
static constexpr int32_t kPassPauseMs = 2;    // after each pass; leaves time to threads of lower priority
static constexpr int kHighestPriority = -20;  // of nice: media goes before all else that the box does

static_assert(offsetof(Task, node) == 0, "the task list maps a task to its node at the very start");

static Task *DefNodeProc()
{
    Task *pTask = new (std::nothrow) Task;
    ORX_ASSERT(pTask, "!\"out of memory\"");
    return pTask;
}

static void FreeTaskItem(void *, void *pItem)
{
    delete static_cast<Task *>(pItem);
}

// The task before which one goes: the first that is due later, or null. Searched from the nearer end: there
// may be thousands of tasks, few of which are due soon.
static Task *FindLater(List *pTasks, const Task *pTask)
{
    auto *p = static_cast<Task *>(ListFirst(pTasks, 0));
    auto *pLast = static_cast<Task *>(ListLast(pTasks, 0));
    if (!p || ClockDiff(pLast->nDue, pTask->nDue) <= 0)
        return nullptr;
    if (ClockDiff(pTask->nDue, p->nDue) < ClockDiff(pLast->nDue, pTask->nDue)) {
        while (ClockDiff(p->nDue, pTask->nDue) <= 0)
            p = static_cast<Task *>(ListNext(pTasks, p, 0));
        return p;
    }
    for (p = pLast; p && ClockDiff(p->nDue, pTask->nDue) > 0; p = static_cast<Task *>(ListPrev(pTasks, p, 0)))
        pLast = p;
    return pLast;
}

static void InsertByDue(List *pTasks, Task *pTask)
{
    Task *pLater = FindLater(pTasks, pTask);
    if (pLater)
        ListInsert(pTasks, pTask, pLater, 0);
    else
        ListAppend(pTasks, pTask);
}

static timespec MonotonicIn(int32_t nMs)
{
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += nMs / 1000;
    until.tv_nsec += nMs % 1000 * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_sec++;
        until.tv_nsec -= 1000000000L;
    }
    return until;
}

// One wait on the condition, until then at the latest (null: for ever). Returns 0 once the time is up.
static int Wait(Scheduler *pScheduler, SchedulerWait eWait, const timespec *pUntil)
{
    pScheduler->eWait = eWait;
    int nError = pUntil ? pthread_cond_timedwait(&pScheduler->wake, &pScheduler->mutex, pUntil)
                        : pthread_cond_wait(&pScheduler->wake, &pScheduler->mutex);
    pScheduler->eWait = SCHEDULER_AWAKE;
    pScheduler->nWaits++;
    return nError == 0;
}

// Whether a wait goes on. Mutex held, as in all that follow down to the thread's body.
static int MayWait(const Scheduler *pScheduler)
{
    return !pScheduler->bUrgent && !ThreadStopping(&pScheduler->thread);
}

static int32_t EarlyMs(const Scheduler *pScheduler)
{
    return pScheduler->bExact ? kExactEarlyMs : kEarlyMs;
}

// A pause of an exact scheduler: it ends when the head is due, whenever that was queued.
static void PauseUntilDue(Scheduler *pScheduler, int32_t nMs)
{
    uint32_t nEnd = ClockMs() + static_cast<uint32_t>(nMs);
    while (MayWait(pScheduler)) {
        uint32_t nNow = ClockMs();
        int32_t nLeftMs = ClockDiff(nEnd, nNow);
        const auto *pHead = static_cast<const Task *>(ListFirst(&pScheduler->tasks, 0));
        if (pHead)
            nLeftMs = std::min(nLeftMs, ClockDiff(pHead->nDue, nNow));
        if (nLeftMs <= 0)
            return;
        timespec until = MonotonicIn(nLeftMs);
        Wait(pScheduler, SCHEDULER_IDLE, &until);
    }
}

static void Pause(Scheduler *pScheduler, int32_t nMs)
{
    if (pScheduler->bExact) {
        PauseUntilDue(pScheduler, nMs);
        return;
    }
    timespec until = MonotonicIn(nMs);
    while (MayWait(pScheduler) && Wait(pScheduler, SCHEDULER_PAUSING, &until)) {
    }
}

// Waits until the head may run. The pause after a pass is part of it, which saves a wake-up.
static void WaitForDue(Scheduler *pScheduler)
{
    while (MayWait(pScheduler)) {
        if (ListCount(&pScheduler->urgent))
            return;
        const auto *pHead = static_cast<const Task *>(ListFirst(&pScheduler->tasks, 0));
        if (!pHead) {
            Wait(pScheduler, SCHEDULER_IDLE, nullptr);
            continue;
        }
        int32_t nEarlyMs = EarlyMs(pScheduler);
        int32_t nLeftMs = ClockDiff(pHead->nDue, ClockMs());
        if (nLeftMs <= nEarlyMs)
            return;
        timespec until = MonotonicIn(nLeftMs - nEarlyMs + (pScheduler->bExact ? 0 : kPassPauseMs));
        Wait(pScheduler, SCHEDULER_IDLE, &until);
    }
}

// Calls the task's procedure, under the watch of the builds that have it.
static int CallTask(Task *pTask, uint32_t nNow, uint32_t nDue, void (*pfnAfter)())
{
    TaskWatch watch;
    TaskProc pfnRun = pTask->pfnRun;
    if constexpr (kWatchTasks)
        TaskWatchBegin(&watch);
    int nNextMs = pfnRun(pTask, nDue - nNow, nNow, nDue);
    if (pfnAfter)
        pfnAfter();
    if constexpr (kWatchTasks)
        TaskWatchEnd(&watch, reinterpret_cast<void (*)()>(pfnRun));
    return nNextMs;
}

// Runs one task, without the mutex. Returns 1 when it will run again.
static int RunTask(Scheduler *pScheduler, Task *pTask, uint32_t nNow)
{
    uint32_t nDue = pTask->nDue;
    void (*pfnAfter)() = pScheduler->pfnAfter;
    pScheduler->pRunning = pTask;
    pthread_mutex_unlock(&pScheduler->mutex);
    int nNextMs = CallTask(pTask, nNow, nDue, pfnAfter);
    uint32_t nAfter = ClockMs();
    pthread_mutex_lock(&pScheduler->mutex);
    pScheduler->pRunning = nullptr;
    pScheduler->nRuns++;
    if (pScheduler->nCancellers)
        pthread_cond_broadcast(&pScheduler->ran);
    if (nNextMs < 0 || pTask->bCancelled) {
        ListRemove(pTask->node.pList, pTask, 1);
        return 0;
    }
    // a quarter of its own running time is added, so that a slow task leaves room to others
    pTask->nDue = nAfter + static_cast<uint32_t>(nNextMs) + (nAfter - nNow) / 4;
    ListRemove(pTask->node.pList, pTask, 0);
    InsertByDue(&pScheduler->tasks, pTask);
    return 1;
}

// The task to run next, or null.
static Task *NextTask(Scheduler *pScheduler, uint32_t nNow)
{
    auto *pTask = static_cast<Task *>(ListFirst(&pScheduler->urgent, 0));
    if (pTask)
        return pTask;
    pTask = static_cast<Task *>(ListFirst(&pScheduler->tasks, 0));
    return pTask && ClockDiff(pTask->nDue, nNow) <= EarlyMs(pScheduler) ? pTask : nullptr;
}

// Runs each task that is due at this moment once, whatever is urgent: events that do not end would hold up
// all timers, and what an event has left for later.
static void RunDueOnce(Scheduler *pScheduler)
{
    uint32_t nNow = ClockMs();
    unsigned nDue = 0;
    for (auto *p = ListFirstOf<Task>(&pScheduler->tasks); p && ClockDiff(p->nDue, nNow) <= 0;
         p = reinterpret_cast<Task *>(p->node.pNext))
        nDue++;
    for (; nDue > 0 && !ThreadStopping(&pScheduler->thread); nDue--) {
        auto *pTask = static_cast<Task *>(ListFirst(&pScheduler->tasks, 0));
        if (!pTask || ClockDiff(pTask->nDue, nNow) > 0)
            return;
        RunTask(pScheduler, pTask, ClockMs());
    }
}

// Runs what is due, the next one each time anew. Returns 1 when there may be more, 0 when not.
static int RunPass(Scheduler *pScheduler)
{
    for (int i = 0; i < kTasksPerPass && !ThreadStopping(&pScheduler->thread); i++) {
        pScheduler->bUrgent = 0;
        uint32_t nNow = ClockMs();
        Task *pTask = NextTask(pScheduler, nNow);
        if (!pTask)
            return 0;
        if (RunTask(pScheduler, pTask, nNow))
            Pause(pScheduler, kTaskPauseMs);
    }
    if (ListCount(&pScheduler->urgent))
        RunDueOnce(pScheduler);
    return 1;
}

static void SchedulerEntry(Thread *pThread)
{
    auto *pScheduler = static_cast<Scheduler *>(pThread->pArgument);
    print("getpriority()=%d\r\n", getpriority(PRIO_PROCESS, 0));
    ThreadPriority(pThread, kHighestPriority);
    print("getpriority()=%d\r\n", getpriority(PRIO_PROCESS, 0));
    print("SchedulerEntry(tid=0x%x) begin...\r\n", static_cast<unsigned>(ThreadKernelId()));
    MutexGuard guard(&pScheduler->mutex);
    while (!ThreadStopping(pThread)) {
        if (RunPass(pScheduler))
            Pause(pScheduler, kPassPauseMs);
        else
            WaitForDue(pScheduler);
    }
}

static void InitLocks(Scheduler *pScheduler)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_mutex_init(&pScheduler->mutex, nullptr);
    pthread_cond_init(&pScheduler->wake, &attributes);
    pthread_cond_init(&pScheduler->ran, nullptr);
    pthread_condattr_destroy(&attributes);
    pScheduler->bReady = 1;
}

int SchedulerCreate(Scheduler *pScheduler)
{
    for (List *pList : {&pScheduler->urgent, &pScheduler->tasks}) {
        ListInit(pList, pScheduler);
        ListUsedDefMap(pList, 0);
        ListDataProc(pList, FreeTaskItem, nullptr);
    }
    pScheduler->eWait = SCHEDULER_AWAKE;
    pScheduler->bUrgent = pScheduler->nCorks = 0;
    pScheduler->bExact = 0;
    pScheduler->pRunning = nullptr;
    pScheduler->nRuns = pScheduler->nWaits = 0;
    pScheduler->nCancellers = 0;
    InitLocks(pScheduler);
    if (ThreadCreate(&pScheduler->thread, SchedulerEntry, pScheduler))
        return 1;
    SchedulerDestroy(pScheduler);
    return 0;
}

void SchedulerDestroy(Scheduler *pScheduler)
{
    if (!pScheduler->bReady)
        return;
    {
        MutexGuard guard(&pScheduler->mutex);
        ThreadExit(&pScheduler->thread);
        pthread_cond_signal(&pScheduler->wake);
    }
    ThreadJoin(&pScheduler->thread);
    ListDestroy(&pScheduler->urgent);
    ListDestroy(&pScheduler->tasks);
    pthread_cond_destroy(&pScheduler->ran);
    pthread_cond_destroy(&pScheduler->wake);
    pthread_mutex_destroy(&pScheduler->mutex);
    pScheduler->bReady = 0;
}

// Mutex held. Whether the thread waits and is to be woken, which is said once: it counts as awake from then
// on.
static int TakesWaking(Scheduler *pScheduler)
{
    int bWaits = pScheduler->eWait != SCHEDULER_AWAKE;
    pScheduler->eWait = SCHEDULER_AWAKE;
    return bWaits;
}

// Without the mutex: the woken thread would have to wait for it, and be woken once more.
static void WakeUp(Scheduler *pScheduler)
{
    pthread_cond_signal(&pScheduler->wake);
}

// Puts a task into its list. Returns whether the thread is to be woken.
static int Enter(Scheduler *pScheduler, Task *pTask, uint32_t nDelayMs)
{
    MutexGuard guard(&pScheduler->mutex);
    if (nDelayMs != 0) {
        InsertByDue(&pScheduler->tasks, pTask);
        return pScheduler->eWait == SCHEDULER_IDLE && ListFirst(&pScheduler->tasks, 0) == pTask &&
               TakesWaking(pScheduler);
    }
    ListPrepend(&pScheduler->urgent, pTask);
    pScheduler->bUrgent = 1;
    return !pScheduler->nCorks && TakesWaking(pScheduler);
}

Task *TaskSchedule(Scheduler *pScheduler, TaskProc pfnRun, uint32_t nDelayMs, int nParam, void *pArgument)
{
    Task *pTask = DefNodeProc();
    pTask->node.pData = pArgument;
    pTask->nParam = nParam;
    pTask->pfnRun = pfnRun;
    pTask->pScheduler = pScheduler;
    pTask->nDue = ClockMs() + nDelayMs;
    if (Enter(pScheduler, pTask, nDelayMs))
        WakeUp(pScheduler);
    return pTask;
}

static int OnSchedulerThread(const Scheduler *pScheduler)
{
    return pthread_equal(pthread_self(), pScheduler->thread.id);
}

void TaskCancel(Task *pTask)
{
    ORX_ASSERT(pTask && pTask->pScheduler, "pTask && pTask->node.pList");
    Scheduler *pScheduler = pTask->pScheduler;
    MutexGuard guard(&pScheduler->mutex);
    ORX_ASSERT(pTask->node.pList, "pTask && pTask->node.pList");
    if (pTask != pScheduler->pRunning) {
        ListRemove(pTask->node.pList, pTask, 1);
        return;
    }
    pTask->bCancelled = 1;
    if (OnSchedulerThread(pScheduler))
        return;
    uint32_t nRuns = pScheduler->nRuns;
    pScheduler->nCancellers++;
    while (pScheduler->nRuns == nRuns)
        pthread_cond_wait(&pScheduler->ran, &pScheduler->mutex);
    pScheduler->nCancellers--;
}

void SchedulerSetAfterProc(Scheduler *pScheduler, void (*pfnAfter)())
{
    MutexGuard guard(&pScheduler->mutex);
    pScheduler->pfnAfter = pfnAfter;
}

void SchedulerSetExact(Scheduler *pScheduler, int bExact)
{
    MutexGuard guard(&pScheduler->mutex);
    pScheduler->bExact = bExact;
}

unsigned SchedulerTaskCount(Scheduler *pScheduler)
{
    MutexGuard guard(&pScheduler->mutex);
    return ListCount(&pScheduler->urgent) + ListCount(&pScheduler->tasks) -
           (pScheduler->pRunning && OnSchedulerThread(pScheduler));
}

static int CountCork(Scheduler *pScheduler, int bOn)
{
    MutexGuard guard(&pScheduler->mutex);
    pScheduler->nCorks += bOn ? 1 : -1;
    return !pScheduler->nCorks && pScheduler->bUrgent && TakesWaking(pScheduler);
}

void SchedulerCork(Scheduler *pScheduler, int bOn)
{
    if (CountCork(pScheduler, bOn))
        WakeUp(pScheduler);
}

}  // namespace orx
