// The event monitor: one edge-triggered epoll instance and one thread that reports every ready socket to one
// callback. It does no I/O itself.
//
// The callback runs on the monitor thread. Adding and removing: any thread. An event carries the generation
// that its descriptor was added with, so that the receiver can tell an event of a descriptor's earlier life.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/thread.h"

namespace orx {

// Event codes of the callback; as interest flags, 1 or 8 ask for readability, 2 or 0x10 for writability.
enum : uint32_t {
    MONITOR_READ = 1,
    MONITOR_WRITE = 2,
    MONITOR_ACCEPT = 8,  // a connection waits on the first listening socket
    MONITOR_CONNECT = 0x10,
    MONITOR_CLOSE = 0x20,  // error or hang-up
};

using MonitorProc = void (*)(void *pContext, int fd, uint32_t nEvent, uint32_t nGeneration);
using MonitorBurstProc = void (*)(void *pContext, int bBegin);

struct Monitor {
    int nEpoll = 0;                          // below 1: none
    std::atomic<int> listenFds[2] = {0, 0};  // filled in order, 0 = empty; owned
    uint32_t nListen = 0;
    std::atomic<uint32_t> nAdded{0};  // descriptors added, listening ones included; informational
    Thread thread;
    void *pContext = nullptr;
    MonitorProc pfnEvent = nullptr;
    std::atomic<MonitorBurstProc> pfnBurst{nullptr};  // may be null
};

// Creates the epoll instance and starts the thread. Returns 1, or 0 with everything undone.
int MonitorCreate(Monitor *pMonitor, MonitorProc pfnEvent, void *pContext);
// Asks the thread to end, waits for it (at most one wait of 100 ms), closes the listening sockets and the
// epoll instance. Accepts one that was never created.
void MonitorDestroy(Monitor *pMonitor);
// Watches fd for the interest given (and always for errors and hang-up). Returns 1, or 0 when epoll refuses;
// the count goes up in either case.
int MonitorAdd(Monitor *pMonitor, int fd, uint32_t nInterest, uint32_t nGeneration);
// Stops watching. Returns the result of epoll_ctl; the count goes down first.
int MonitorRemove(Monitor *pMonitor, int fd);
// Watches a listening socket, which from then on belongs to the monitor, also when epoll refuses it. Returns
// 1 or 0. With both slots taken the result is 0 as well, and the socket stays the caller's.
int MonitorAddListen(Monitor *pMonitor, int fd);
// Names a procedure that is called on the monitor thread before (bBegin 1) and after (0) the events of one
// wake-up are reported, so that their receiver can pass them on together. Null: none.
void MonitorSetBurstProc(Monitor *pMonitor, MonitorBurstProc pfnBurst);

}  // namespace orx
