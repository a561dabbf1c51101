// An event loop: descriptors, timers, and work that other threads hand over, all served by the one thread
// that runs it. Nothing that it calls may wait. Watches and timers are the caller's records; one that is
// removed is not called any more, also not for an event that was already due.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

struct Loop;  // one per thread

struct LoopWatch {
    int fd = -1;  // not owned
    // EPOLLIN and the like; errors and hang-ups come whether they are asked for or not
    void (*pfnReady)(void *pUser, uint32_t nEvents) = nullptr;
    void *pUser = nullptr;
    uint32_t nWanted = 0;  // the loop's
};

struct LoopTimer {
    void (*pfnDue)(void *pUser) = nullptr;  // once; it may set the timer again, and free its record
    void *pUser = nullptr;
    uint64_t nDueMs = 0;  // the loop's, as is the next
    size_t nPlace = 0;    // 1-based in the heap; 0: not set
};

Loop *LoopOpen();  // null without descriptors or memory
void LoopClose(Loop *pLoop);

// Serves until LoopStop, and not at all where that came before. May be called again. The calling thread is
// the loop's from then on.
void LoopRun(Loop *pLoop);
void LoopStop(Loop *pLoop);  // any thread, and a signal handler

// A buffer for what is read from a descriptor and handed on at once: one for all that the loop serves.
constexpr size_t kLoopBufferBytes = 256 << 10;
uint8_t *LoopBuffer(Loop *pLoop);  // the loop's thread

uint64_t LoopNowMs();  // monotonic clock; any thread

// Watches a descriptor, or changes what is waited for; 0 ends it, which must come before the descriptor is
// closed. Returns 1 or 0. The loop's thread, or any before LoopRun.
int LoopSetWatch(Loop *pLoop, LoopWatch *pWatch, uint32_t nWanted);
// Sets a timer, whether it was set or not. The loop's thread, or any before LoopRun.
void LoopSetTimer(Loop *pLoop, LoopTimer *pTimer, uint64_t nDelayMs);
void LoopClearTimer(Loop *pLoop, LoopTimer *pTimer);  // also one that is not set

// Has the loop's thread call it, after what was handed over before. Any thread. Returns 1, or 0 without
// memory.
int LoopPost(Loop *pLoop, void (*pfnWork)(void *pContext), void *pContext);

}  // namespace orx
