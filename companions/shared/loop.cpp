#include "shared/loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace orx {

constexpr int kEventsAtOnce = 64;

struct PostedWork {
    void (*pfnWork)(void *pContext);
    void *pContext;
};

struct Loop {
    int fdPoll = -1, fdWake = -1;
    std::atomic<int> bStop{0};
    LoopWatch wake;
    std::vector<LoopTimer *> timers;  // a binary heap, the first due in front; places are 1-based
    epoll_event events[kEventsAtOnce];
    int nEvents = 0;                    // of the round that is being served
    std::unique_ptr<uint8_t[]> buffer;  // made when it is first asked for
    std::mutex lock;
    std::deque<PostedWork> posted;  // under the lock
};

uint64_t LoopNowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

static void RunPosted(Loop *pLoop)
{
    std::deque<PostedWork> works;
    {
        std::lock_guard guard(pLoop->lock);
        works.swap(pLoop->posted);
    }
    for (const PostedWork &work : works)
        work.pfnWork(work.pContext);
}

static void OnWake(void *pUser, uint32_t)
{
    auto *pLoop = static_cast<Loop *>(pUser);
    uint64_t nCount;
    while (read(pLoop->fdWake, &nCount, sizeof nCount) > 0) {
    }
    RunPosted(pLoop);
}

Loop *LoopOpen()
{
    auto *pLoop = new Loop;
    pLoop->fdPoll = epoll_create1(EPOLL_CLOEXEC);
    pLoop->fdWake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    pLoop->wake = LoopWatch{pLoop->fdWake, OnWake, pLoop};
    if (pLoop->fdPoll < 0 || pLoop->fdWake < 0 || !LoopSetWatch(pLoop, &pLoop->wake, EPOLLIN)) {
        LoopClose(pLoop);
        return nullptr;
    }
    return pLoop;
}

void LoopClose(Loop *pLoop)
{
    if (!pLoop)
        return;
    for (int fd : {pLoop->fdPoll, pLoop->fdWake})
        if (fd >= 0)
            close(fd);
    delete pLoop;
}

uint8_t *LoopBuffer(Loop *pLoop)
{
    if (!pLoop->buffer)
        pLoop->buffer.reset(new uint8_t[kLoopBufferBytes]);
    return pLoop->buffer.get();
}

static void Wake(Loop *pLoop)
{
    uint64_t nOne = 1;
    ssize_t n = write(pLoop->fdWake, &nOne, sizeof nOne);  // fails only where it is awake already
    static_cast<void>(n);
}

void LoopStop(Loop *pLoop)
{
    pLoop->bStop = 1;
    Wake(pLoop);
}

int LoopPost(Loop *pLoop, void (*pfnWork)(void *pContext), void *pContext)
{
    {
        std::lock_guard guard(pLoop->lock);
        pLoop->posted.push_back({pfnWork, pContext});
    }
    Wake(pLoop);
    return 1;
}

int LoopSetWatch(Loop *pLoop, LoopWatch *pWatch, uint32_t nWanted)
{
    if (nWanted == pWatch->nWanted)
        return 1;
    int nHow = pWatch->nWanted == 0 ? EPOLL_CTL_ADD : nWanted == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
    epoll_event event{};
    event.events = nWanted;
    event.data.ptr = pWatch;
    if (epoll_ctl(pLoop->fdPoll, nHow, pWatch->fd, &event) != 0 && nWanted != 0)
        return 0;  // an end always is one, also of a descriptor that was closed already
    pWatch->nWanted = nWanted;
    if (nWanted == 0)  // what this round still has of it is not for it any more
        for (int i = 0; i < pLoop->nEvents; i++)
            if (pLoop->events[i].data.ptr == pWatch)
                pLoop->events[i].data.ptr = nullptr;
    return 1;
}

// --- Timers ---

static void PutTimer(Loop *pLoop, size_t nPlace, LoopTimer *pTimer)
{
    pLoop->timers[nPlace - 1] = pTimer;
    pTimer->nPlace = nPlace;
}

static LoopTimer *TimerAt(const Loop *pLoop, size_t nPlace)
{
    return pLoop->timers[nPlace - 1];
}

// Moves a timer to where its time belongs.
static void SiftTimer(Loop *pLoop, LoopTimer *pTimer)
{
    size_t nPlace = pTimer->nPlace, nCount = pLoop->timers.size();
    for (; nPlace > 1 && TimerAt(pLoop, nPlace / 2)->nDueMs > pTimer->nDueMs; nPlace /= 2)
        PutTimer(pLoop, nPlace, TimerAt(pLoop, nPlace / 2));
    for (size_t nChild = nPlace * 2; nChild <= nCount; nChild = nPlace * 2) {
        if (nChild < nCount && TimerAt(pLoop, nChild + 1)->nDueMs < TimerAt(pLoop, nChild)->nDueMs)
            nChild++;
        if (TimerAt(pLoop, nChild)->nDueMs >= pTimer->nDueMs)
            break;
        PutTimer(pLoop, nPlace, TimerAt(pLoop, nChild));
        nPlace = nChild;
    }
    PutTimer(pLoop, nPlace, pTimer);
}

void LoopSetTimer(Loop *pLoop, LoopTimer *pTimer, uint64_t nDelayMs)
{
    pTimer->nDueMs = LoopNowMs() + nDelayMs;
    if (pTimer->nPlace == 0) {
        pLoop->timers.push_back(pTimer);
        pTimer->nPlace = pLoop->timers.size();
    }
    SiftTimer(pLoop, pTimer);
}

void LoopClearTimer(Loop *pLoop, LoopTimer *pTimer)
{
    if (pTimer->nPlace == 0)
        return;
    LoopTimer *pLast = pLoop->timers.back();
    pLoop->timers.pop_back();
    if (pLast != pTimer) {
        PutTimer(pLoop, pTimer->nPlace, pLast);
        SiftTimer(pLoop, pLast);
    }
    pTimer->nPlace = 0;
}

// Calls what was due when it began. Returns how long to wait for the next in ms, -1: there is none.
static int RunTimers(Loop *pLoop)
{
    uint64_t nNow = LoopNowMs();
    while (!pLoop->bStop && !pLoop->timers.empty() && pLoop->timers.front()->nDueMs <= nNow) {
        LoopTimer *pTimer = pLoop->timers.front();
        LoopClearTimer(pLoop, pTimer);
        pTimer->pfnDue(pTimer->pUser);  // which may free it
    }
    if (pLoop->timers.empty())
        return -1;
    uint64_t nDue = pLoop->timers.front()->nDueMs;
    nNow = LoopNowMs();
    return nDue <= nNow ? 0 : static_cast<int>(std::min<uint64_t>(nDue - nNow, 60000));
}

void LoopRun(Loop *pLoop)
{
    while (!pLoop->bStop) {
        int nWaitMs = RunTimers(pLoop);
        if (pLoop->bStop)
            break;
        pLoop->nEvents = std::max(epoll_wait(pLoop->fdPoll, pLoop->events, kEventsAtOnce, nWaitMs), 0);
        for (int i = 0; i < pLoop->nEvents; i++)
            if (auto *pWatch = static_cast<LoopWatch *>(pLoop->events[i].data.ptr))
                pWatch->pfnReady(pWatch->pUser, pLoop->events[i].events);
        pLoop->nEvents = 0;
    }
    pLoop->bStop = 0;
}

}  // namespace orx
