// Socket events on their way from the monitor to the sessions: accept, read, close.
#pragma once

#include <cstdint>

#include "runtime/task.h"

namespace orx {

constexpr uint32_t EVENT_POSTED_INPUT = 0x8000;  // run the parser on what a session already holds

// The server's monitor callback: queues the event for the scheduler thread. Monitor thread.
void OnMonitorEvent(void *pContext, int fd, uint32_t nEvent, uint32_t nGeneration);

// Queues an event of a port as the monitor would, in nDelayMs. Scheduler thread.
void PostPortEvent(int fd, uint32_t nGeneration, uint32_t nEvent, uint32_t nDelayMs);

// Reads the socket dry and handles what came. Returns 0, or -1 when the port was closed. Scheduler thread.
int OnRead(int fd);

}  // namespace orx
