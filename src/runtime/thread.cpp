#include "runtime/thread.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <ctime>
#include <unistd.h>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/clock.h"

namespace orx {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr size_t kSmallStack = 1024 * 1024;  // the sanitizers widen every frame
#else
static constexpr size_t kSmallStack = 128 * 1024;
#endif
static constexpr long kPauseStepNs = 10 * 1000000L;  // so long at most does a pause miss what ends it

static std::atomic<int> g_bAllowNoPriority{0};  // written at start-up, read by any thread
static std::atomic<int> g_bPriorityTold{0};     // the failure has been printed

static void *ThreadMain(void *pArgument)
{
    auto *pThread = static_cast<Thread *>(pArgument);
    pThread->nFlags.fetch_or(THREAD_STARTED);
    pThread->nFlags.notify_all();
    pThread->pfnEntry(pThread);
    pThread->nFlags.fetch_or(THREAD_ENDED);
    return nullptr;
}

// Starts ThreadMain with a stack of that size, 0: the system's. Returns 1 or 0.
static int StartThread(Thread *pThread, size_t nStackBytes)
{
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return 0;
    int bSized = nStackBytes == 0 || pthread_attr_setstacksize(&attr, nStackBytes) == 0;
    int bStarted = bSized && pthread_create(&pThread->id, &attr, ThreadMain, pThread) == 0;
    pthread_attr_destroy(&attr);
    return bStarted;
}

static int Create(Thread *pThread, void (*pfnEntry)(Thread *), void *pArgument, size_t nStackBytes)
{
    ORX_ASSERT(pfnEntry, "((void *)0)!=pfnEntry");
    pThread->nPauseMs = 0;
    pThread->nFlags = 0;
    pThread->pfnEntry = pfnEntry;
    pThread->pArgument = pArgument;
    pThread->bCreated = 1;  // before the body can look at it
    if (!StartThread(pThread, nStackBytes)) {
        pThread->bCreated = 0;
        ThreadCancel(pThread);
        return 0;
    }
    uint32_t nFlags = pThread->nFlags;
    while (!(nFlags & THREAD_STARTED)) {
        pThread->nFlags.wait(nFlags);
        nFlags = pThread->nFlags;
    }
    return 1;
}

int ThreadCreate(Thread *pThread, void (*pfnEntry)(Thread *), void *pArgument)
{
    return Create(pThread, pfnEntry, pArgument, 0);
}

int ThreadCreateSmall(Thread *pThread, void (*pfnEntry)(Thread *), void *pArgument)
{
    return Create(pThread, pfnEntry, pArgument, kSmallStack);
}

void ThreadWakeup(Thread *pThread)
{
    ORX_ASSERT(pThread, "pThread");
    pThread->nPauseMs = 0;
}

void ThreadPause(Thread *pThread, uint32_t nMs)
{
    ORX_ASSERT(pThread, "pThread");
    uint32_t nStart = ClockMs();
    pThread->nPauseMs = nMs;
    while (!ThreadStopping(pThread) && ClockMs() - nStart < pThread->nPauseMs) {
        timespec step{0, kPauseStepNs};
        nanosleep(&step, nullptr);
    }
}

void ThreadExit(Thread *pThread)
{
    ORX_ASSERT(pThread, "pThread");
    pThread->nFlags.fetch_or(THREAD_STOP);
}

void ThreadJoin(Thread *pThread)
{
    ThreadExit(pThread);
    if (!pThread->bCreated)
        return;
    pthread_join(pThread->id, nullptr);
    pThread->bCreated = 0;
}

void ThreadCancel(Thread *pThread)
{
    ThreadExit(pThread);
    if (pThread->bCreated)
        pthread_cancel(pThread->id);
}

void ThreadPriority(Thread *pThread, int nPriority)
{
    if (!pThread->bCreated)
        return;
    int nResult = setpriority(PRIO_PROCESS, 0, nPriority);
    ORX_ASSERT(nResult == 0 || g_bAllowNoPriority, "setpriority(PRIO_PROCESS, 0, nPriority)==0");
    if (nResult != 0 && !g_bPriorityTold.exchange(1))
        print("Priority %d is not permitted, running on with %d\r\n", nPriority,
              getpriority(PRIO_PROCESS, 0));
}

void ThreadAllowNoPriority(int bAllow)
{
    g_bAllowNoPriority = bAllow;
}

int ThreadKernelId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

}  // namespace orx
