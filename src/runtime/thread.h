// A thread with a cooperative stop bit. Operations on one record are called by its owner; the bits may be
// looked at from any thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace orx {

enum : uint32_t {
    THREAD_STOP = 1,     // stop requested
    THREAD_STARTED = 2,  // the body is about to run
    THREAD_ENDED = 4,    // the body has returned
};

struct Thread {
    std::atomic<uint32_t> nPauseMs{0};  // length of the current ThreadPause; 0 wakes it
    std::atomic<uint32_t> nFlags{0};    // THREAD_...
    int bCreated = 0;                   // 1 from a successful ThreadCreate to ThreadJoin
    pthread_t id{};
    void (*pfnEntry)(Thread *pThread) = nullptr;
    void *pArgument = nullptr;  // the owner's context, read by the body
};

// Starts the body on a thread of its own and waits until it has begun. Returns 1, or 0 with the stop bit set.
// A record is used again only after ThreadJoin.
int ThreadCreate(Thread *pThread, void (*pfnEntry)(Thread *), void *pArgument);
// The same on a stack of 128 kB, for bodies of which there may be hundreds: a read buffer of some kilobytes
// and what prints need fit, a resolver's look-up does not.
int ThreadCreateSmall(Thread *pThread, void (*pfnEntry)(Thread *), void *pArgument);
// Ends a ThreadPause that is under way.
void ThreadWakeup(Thread *pThread);
// Sleeps nMs milliseconds in steps of 10, less when woken or asked to stop. A ThreadWakeup that comes before
// the pause has begun is lost. Called by the body.
void ThreadPause(Thread *pThread, uint32_t nMs);
// Asks the body to stop; does not wait.
void ThreadExit(Thread *pThread);
inline int ThreadStopping(const Thread *pThread)
{
    return (pThread->nFlags.load(std::memory_order_acquire) & THREAD_STOP) != 0;
}
// Asks the body to stop and waits until it has returned; nothing happens when it was never created. Not
// called by the body itself.
void ThreadJoin(Thread *pThread);
// The last resort for a body that does not look at its stop bit: it dies where it stands, no destructor runs
// and what it holds stays locked. ThreadJoin still has to follow.
void ThreadCancel(Thread *pThread);
// Sets the calling thread's nice value; called by the body. Does nothing for a record that was not created.
// What happens when it is not allowed: see ThreadAllowNoPriority.
void ThreadPriority(Thread *pThread, int nPriority);
// With 1, a priority that may not be raised is printed, once in the process, and let be; with 0 (the
// default) it aborts.
void ThreadAllowNoPriority(int bAllow);
// The kernel's id of the calling thread.
int ThreadKernelId();

}  // namespace orx
