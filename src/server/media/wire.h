// Blocks onto a socket: gathered writes on connections, datagrams in segments. Knows nothing of sessions.
// Scheduler thread only.
#pragma once

#include <cstddef>

#include "base/blockqueue.h"
#include "server/core/port.h"

namespace orx {

constexpr uint32_t kMaxGather = 64;  // blocks of one call: as much as an empty socket takes (see
                                     // kSendBufferBytes) in packets of a common size

// How many blocks at the head of a queue leave in one call, and where to.
struct Batch {
    Port *pPort = nullptr;
    uint32_t nBlocks = 0;  // at least one to write
};

// Writes what the socket takes of them: on a connection from the first one's nSent on, over UDP whole
// datagrams to the port's peer. *pnLeft is how many blocks left completely and are for the caller to take
// off; of a further one on a connection, nSent tells how much did. *pnBytes grows by what left. Returns 1, 0
// when the socket would block, or -1 on another error (errno).
int WireWrite(const BlockQueue *pQueue, const Batch *pBatch, uint32_t *pnLeft, uint64_t *pnBytes);

}  // namespace orx
