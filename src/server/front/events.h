// Socket events on their way from the monitor to the sessions: accept, read, close.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/netaddr.h"

namespace orx {

// Tells the rooms below how to read a port and how to post events of it, before the server's threads start.
void EventsInit();

// The server's monitor callback: queues the event for the scheduler thread. Monitor thread.
void OnMonitorEvent(void *pContext, int fd, uint32_t nEvent, uint32_t nGeneration);

// Handles what a socket holds, at most 64 kB or 64 datagrams of it: the rest is read by a task of its own,
// until when this does nothing. Returns 0, or -1 when the connection was found closed, or silent for too
// long, and the port was closed. Scheduler thread.
int OnRead(int fd);

// Hand-over of an accepted connection with the bytes already read from it. pFront: of one that came through a
// front, what that said of it; null: nobody's. Returns 1 when the session lives on. Scheduler thread.
struct FrontedPeer {
    int bPeer;  // 0: the front named none
    NetAddr peer;
};
int RtspSessionCreate(int fd, const void *pData, size_t nLen, const FrontedPeer *pFront = nullptr);

}  // namespace orx
