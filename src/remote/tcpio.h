// TCP calls for threads that can be asked to stop: they wait in short steps, so that a thread with its stop
// bit set leaves within one of them, or for a descriptor that tells of it. Called by the thread that is
// named, on sockets it owns.
#pragma once

#include <netinet/in.h>

#include <cstddef>

#include "runtime/thread.h"

namespace orx {

constexpr int kTcpStepMs = 20;  // the longest wait that does not look at the stop bit

// Waits up to nTimeoutMs (at most kTcpStepMs is sensible) for the poll events given. Returns the events that
// are there, 0 for none, -1 when waiting failed.
int TcpWait(int fd, short nEvents, int nTimeoutMs);
// Connects within nSeconds; the socket is non-blocking afterwards. Returns 1 connected, 0 not (refused, timed
// out, or the thread is to stop).
int TcpConnect(const Thread *pThread, int fd, const sockaddr_in *pAddr, int nSeconds);

// Who waits for room to send.
struct TcpWaiter {
    const Thread *pThread;
    int fdStop = -1;     // readable once the stop bit is set; not owned; -1: waits in steps
    int nSilentMs = -1;  // with fdStop: gives up when nothing left for so long; -1: never
};
// Sends all nLen bytes on a non-blocking socket, waiting for room as long as it takes. Returns 1, or 0 for a
// connection that is gone (printed) or was given up, or a thread that is to stop.
int TcpSend(const TcpWaiter *pWaiter, int fd, const void *pData, size_t nLen);

}  // namespace orx
