#include "runtime/monitor.h"

#include <sys/epoll.h>
#include <sys/resource.h>

#include <iterator>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/sockutil.h"

namespace orx {

static constexpr int kMaxEvents = 1024;  // on the stack, 16 KB at most; more that is ready comes later
static constexpr int kWaitMs = 100;      // so long at most does a request to stop go unnoticed

static epoll_event MakeEvent(uint32_t nEvents, int fd, uint32_t nGeneration)
{
    epoll_event event{};
    event.events = nEvents;
    event.data.u64 = static_cast<uint64_t>(nGeneration) << 32 | static_cast<uint32_t>(fd);
    return event;
}

static void Report(Monitor *pMonitor, const epoll_event &event)
{
    int fd = static_cast<int>(static_cast<uint32_t>(event.data.u64));
    auto nGeneration = static_cast<uint32_t>(event.data.u64 >> 32);
    if (fd != 0 && fd == pMonitor->listenFds[0]) {
        pMonitor->pfnEvent(pMonitor->pContext, fd, MONITOR_ACCEPT, nGeneration);
        return;
    }
    if (event.events & EPOLLIN)
        pMonitor->pfnEvent(pMonitor->pContext, fd, MONITOR_READ, nGeneration);
    if (event.events & EPOLLOUT)
        pMonitor->pfnEvent(pMonitor->pContext, fd, MONITOR_WRITE, nGeneration);
    if (event.events & (EPOLLERR | EPOLLHUP)) {
        print("Monitor: socket(0x%x) EPOLLERR|EPOLLHUP!\r\n", static_cast<unsigned>(fd));
        pMonitor->pfnEvent(pMonitor->pContext, fd, MONITOR_CLOSE, nGeneration);
    }
}

static void ReportBurst(Monitor *pMonitor, const epoll_event *pEvents, int nEvents)
{
    MonitorBurstProc pfnBurst = pMonitor->pfnBurst;
    if (pfnBurst)
        pfnBurst(pMonitor->pContext, 1);
    for (int i = 0; i < nEvents; i++)
        Report(pMonitor, pEvents[i]);
    if (pfnBurst)
        pfnBurst(pMonitor->pContext, 0);
}

// What it reports is what the scheduler waits for: a lower priority here would be one there as well. Where
// that is not allowed, the scheduler has said so.
static void RaisePriority()
{
    constexpr int kHighestPriority = -20;
    setpriority(PRIO_PROCESS, 0, kHighestPriority);
}

static void MonitorEntry(Thread *pThread)
{
    auto *pMonitor = static_cast<Monitor *>(pThread->pArgument);
    print("MonitorEntry(tid=0x%x) begin...\r\n", static_cast<unsigned>(ThreadKernelId()));
    RaisePriority();
    epoll_event events[kMaxEvents];
    while (!ThreadStopping(pThread)) {
        int nEvents = epoll_wait(pMonitor->nEpoll, events, kMaxEvents, kWaitMs);
        if (nEvents > 0)
            ReportBurst(pMonitor, events, nEvents);
    }
}

int MonitorCreate(Monitor *pMonitor, MonitorProc pfnEvent, void *pContext)
{
    pMonitor->listenFds[0] = pMonitor->listenFds[1] = 0;
    pMonitor->nListen = 0;
    pMonitor->nAdded = 0;
    pMonitor->pContext = pContext;
    pMonitor->pfnEvent = pfnEvent;
    pMonitor->pfnBurst = nullptr;
    pMonitor->nEpoll = epoll_create1(EPOLL_CLOEXEC);
    if (pMonitor->nEpoll >= 1 && ThreadCreate(&pMonitor->thread, MonitorEntry, pMonitor))
        return 1;
    MonitorDestroy(pMonitor);
    return 0;
}

void MonitorDestroy(Monitor *pMonitor)
{
    ThreadJoin(&pMonitor->thread);
    for (std::atomic<int> &fd : pMonitor->listenFds) {
        if (fd != 0)
            SockClose(fd.exchange(0));
    }
    pMonitor->nListen = 0;
    if (pMonitor->nEpoll >= 1)
        SockClose(pMonitor->nEpoll);
    pMonitor->nEpoll = 0;
}

int MonitorAdd(Monitor *pMonitor, int fd, uint32_t nInterest, uint32_t nGeneration)
{
    uint32_t nEvents = EPOLLET | EPOLLERR | EPOLLHUP;
    if (nInterest & (MONITOR_READ | MONITOR_ACCEPT))
        nEvents |= EPOLLIN;
    if (nInterest & (MONITOR_WRITE | MONITOR_CONNECT))
        nEvents |= EPOLLOUT;
    epoll_event event = MakeEvent(nEvents, fd, nGeneration);
    pMonitor->nAdded++;
    return epoll_ctl(pMonitor->nEpoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

int MonitorRemove(Monitor *pMonitor, int fd)
{
    pMonitor->nAdded--;
    return epoll_ctl(pMonitor->nEpoll, EPOLL_CTL_DEL, fd, nullptr);
}

int MonitorAddListen(Monitor *pMonitor, int fd)
{
    ORX_ASSERT(pMonitor, "pMonitor");
    if (pMonitor->nListen >= std::size(pMonitor->listenFds))
        return 0;
    pMonitor->listenFds[pMonitor->nListen++] = fd;
    pMonitor->nAdded++;
    epoll_event event = MakeEvent(EPOLLIN | EPOLLET, fd, 0);
    return epoll_ctl(pMonitor->nEpoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

void MonitorSetBurstProc(Monitor *pMonitor, MonitorBurstProc pfnBurst)
{
    pMonitor->pfnBurst = pfnBurst;
}

}  // namespace orx
