// A pusher that sends datagrams: its packets are put in order and go on to its program as those of a
// connection do. Ends it when nothing comes any more. Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "server/core/session.h"

namespace orx {

// Readies track i, whose ports are open, for what comes on them. Returns 1, or 0 when memory runs out.
int DatagramsBegin(Session *pSession, int i);

// Takes a datagram of a pusher's RTP port (bControl: of its RTCP port). The packet begins kInterleaveBytes
// behind pFrame, where the head of a '$' frame is written; nPacket is its size, below 65536. Returns 0 when
// the session must end, else 1.
int DatagramTake(Session *pSession, int i, int bControl, uint8_t *pFrame, size_t nPacket);

}  // namespace orx
