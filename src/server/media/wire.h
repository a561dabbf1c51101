// Blocks onto a socket: gathered writes on connections, datagrams in segments. Knows nothing of sessions.
// Scheduler thread only.
#pragma once

#include <cstddef>

#include "base/datablock.h"
#include "server/core/port.h"

namespace orx {

constexpr int kMaxGather = 64;  // blocks of one call: as much as an empty socket takes (see kSendBufferBytes)
                                // in packets of a common size

// The blocks at the head of a queue that leave in one call, and where to.
struct Batch {
    Port *pPort = nullptr;
    int nBlocks = 0;
    DataBlock *blocks[kMaxGather];
};

// Writes what the socket takes of the batch: on a connection from the first block's `sent` on, over UDP whole
// datagrams to the port's peer. *pnLeft is how many blocks left completely; of a further one on a connection,
// `sent` tells how much did. *pnBytes grows by what left. Returns 1, 0 when the socket would block, or -1 on
// another error (errno).
int WireWrite(const Batch *pBatch, int *pnLeft, uint64_t *pnBytes);

}  // namespace orx
