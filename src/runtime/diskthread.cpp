#include "runtime/diskthread.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "runtime/mutexguard.h"
#include "runtime/task.h"

namespace orx {

static constexpr uint32_t kLazyMs = 20;

// The one of the process.
struct DiskThread {
    Thread thread;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t work{};   // something is to be done, or the thread is to end; on the monotonic clock
    pthread_cond_t quiet{};  // no job is left
    // Guarded by mutex.
    int bRuns = 0;
    int bHurry = 0;                   // something in turns does not wait
    int bDoneTask = 0;                // the task that calls pfnDone is scheduled
    Scheduler *pScheduler = nullptr;  // null: what is done waits for DiskStop
    List turns;                       // lanes with jobs that wait, the next one first
    List done;                        // jobs whose pfnDone is due
    int (*pfnTick)() = nullptr;       // null: none is due
    int64_t nTickMs = 0;              // when it is, by NowMs
    size_t nJobs = 0;                 // that are not done
    size_t nBytes = 0;                // of them
};
static DiskThread g_disk;

static void InitList(List *pList)
{
    ListInit(pList, nullptr);
    ListUsedDefMap(pList, 0);
}

DiskLane::DiskLane()
{
    InitList(&jobs);
}

static int64_t NowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// With the mutex held, which is not while waiting. Returns 0 when the time has come without a signal.
static int WaitUntil(pthread_cond_t *pSignal, int64_t nMs)
{
    timespec until{static_cast<time_t>(nMs / 1000), static_cast<long>(nMs % 1000 * 1000000)};
    return pthread_cond_timedwait(pSignal, &g_disk.mutex, &until) != ETIMEDOUT;
}

static DiskJob *TakeDone()
{
    MutexGuard guard(&g_disk.mutex);
    return static_cast<DiskJob *>(ListFirst(&g_disk.done, LIST_DETACH));
}

static void CallDone()
{
    while (DiskJob *pJob = TakeDone())
        pJob->pfnDone(pJob);
}

static int OnDone(Task *, uint32_t, uint32_t, uint32_t)
{
    {
        MutexGuard guard(&g_disk.mutex);
        g_disk.bDoneTask = 0;
    }
    CallDone();
    return -1;
}

// Tells the owner. With the mutex held.
static void PostDone(DiskJob *pJob)
{
    ListAppend(&g_disk.done, pJob);
    if (!g_disk.pScheduler || g_disk.bDoneTask)
        return;
    g_disk.bDoneTask = 1;
    TaskSchedule(g_disk.pScheduler, OnDone, 0, 0, nullptr);
}

// A step of the first job of the lane whose turn it is. With the mutex held, but for the step itself.
static void RunStep()
{
    auto *pLane = static_cast<DiskLane *>(ListFirst(&g_disk.turns, LIST_DETACH));
    auto *pJob = static_cast<DiskJob *>(ListFirst(&pLane->jobs, LIST_DETACH));
    size_t nBytes = pJob->nBytes;
    int bTold = pJob->pfnDone != nullptr;  // else it is gone behind its last step
    pthread_mutex_unlock(&g_disk.mutex);
    int bDone = pJob->pfnRun(pJob);
    pthread_mutex_lock(&g_disk.mutex);
    if (!bDone)
        ListPrepend(&pLane->jobs, pJob);
    pLane->bTurn = ListCount(&pLane->jobs) > 0;
    if (pLane->bTurn)
        ListAppend(&g_disk.turns, pLane);
    if (!bDone)
        return;
    g_disk.nBytes -= nBytes;
    if (bTold)
        PostDone(pJob);
    if (--g_disk.nJobs == 0)
        pthread_cond_broadcast(&g_disk.quiet);
}

static int TickIsDue()
{
    return g_disk.pfnTick && NowMs() >= g_disk.nTickMs;
}

// Waits for work, and a little longer for more of it when it is not urgent. With the mutex held.
static void AwaitWork()
{
    while (ListCount(&g_disk.turns) == 0 && !ThreadStopping(&g_disk.thread) && !TickIsDue()) {
        if (g_disk.pfnTick)
            WaitUntil(&g_disk.work, g_disk.nTickMs);
        else
            pthread_cond_wait(&g_disk.work, &g_disk.mutex);
    }
    int64_t nUntil = NowMs() + kLazyMs;
    while (!g_disk.bHurry && !ThreadStopping(&g_disk.thread) && !TickIsDue() &&
           WaitUntil(&g_disk.work, nUntil)) {
    }
    g_disk.bHurry = 0;
}

// With the mutex held, but for the call itself.
static void CallTick()
{
    auto pfnTick = std::exchange(g_disk.pfnTick, nullptr);
    pthread_mutex_unlock(&g_disk.mutex);
    int nMs = pfnTick();
    pthread_mutex_lock(&g_disk.mutex);
    if (nMs < 0 || g_disk.pfnTick)
        return;
    g_disk.pfnTick = pfnTick;
    g_disk.nTickMs = NowMs() + nMs;
}

static void Run(Thread *pThread)
{
    MutexGuard guard(&g_disk.mutex);
    while (!ThreadStopping(pThread)) {
        AwaitWork();
        do {
            if (TickIsDue())
                CallTick();
            if (ListCount(&g_disk.turns) > 0)
                RunStep();
        } while (ListCount(&g_disk.turns) > 0);
    }
}

void DiskTick(int (*pfnTick)(), uint32_t nMs)
{
    MutexGuard guard(&g_disk.mutex);
    g_disk.pfnTick = pfnTick;
    g_disk.nTickMs = NowMs() + nMs;
}

int DiskStart(Scheduler *pScheduler)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&g_disk.work, &attributes);
    pthread_cond_init(&g_disk.quiet, &attributes);
    pthread_condattr_destroy(&attributes);
    InitList(&g_disk.turns);
    InitList(&g_disk.done);
    g_disk.pScheduler = pScheduler;
    g_disk.bRuns = ThreadCreate(&g_disk.thread, Run, nullptr);
    return g_disk.bRuns;
}

static void RunAtOnce(DiskJob *pJob)
{
    auto pfnDone = pJob->pfnDone;
    while (!pJob->pfnRun(pJob)) {
    }
    if (pfnDone)
        pfnDone(pJob);
}

// Returns 0 when there is no thread.
static int Enter(DiskLane *pLane, DiskJob *pJob, int bLazy)
{
    MutexGuard guard(&g_disk.mutex);
    if (!g_disk.bRuns)
        return 0;
    int bIdle = ListCount(&g_disk.turns) == 0;
    ListAppend(&pLane->jobs, pJob);
    if (!pLane->bTurn)
        ListAppend(&g_disk.turns, pLane);
    pLane->bTurn = 1;
    g_disk.nJobs++;
    g_disk.nBytes += pJob->nBytes;
    g_disk.bHurry |= !bLazy;
    if (bIdle || !bLazy)
        pthread_cond_signal(&g_disk.work);
    return 1;
}

void DiskPost(DiskLane *pLane, DiskJob *pJob)
{
    if (!Enter(pLane, pJob, 0))
        RunAtOnce(pJob);
}

void DiskPostLazy(DiskLane *pLane, DiskJob *pJob)
{
    if (!Enter(pLane, pJob, 1))
        RunAtOnce(pJob);
}

size_t DiskBytesWaiting()
{
    MutexGuard guard(&g_disk.mutex);
    return g_disk.nBytes;
}

void DiskDetach()
{
    MutexGuard guard(&g_disk.mutex);
    g_disk.pScheduler = nullptr;
}

size_t DiskAwait(uint32_t nMostMs)
{
    int64_t nUntil = NowMs() + nMostMs;
    MutexGuard guard(&g_disk.mutex);
    if (!g_disk.bRuns)
        return 0;
    g_disk.bHurry = 1;
    pthread_cond_signal(&g_disk.work);
    while (g_disk.nJobs > 0 && WaitUntil(&g_disk.quiet, nUntil)) {
    }
    return g_disk.nJobs;
}

size_t DiskStop(uint32_t nMostMs)
{
    if (!g_disk.thread.bCreated)
        return 0;
    DiskDetach();
    if (DiskAwait(nMostMs) > 0)
        return std::max(DiskBytesWaiting(), size_t{1});
    ThreadExit(&g_disk.thread);
    {
        MutexGuard guard(&g_disk.mutex);
        pthread_cond_signal(&g_disk.work);
    }
    ThreadJoin(&g_disk.thread);
    g_disk.bRuns = 0;
    CallDone();
    pthread_cond_destroy(&g_disk.work);
    pthread_cond_destroy(&g_disk.quiet);
    return 0;
}

}  // namespace orx
