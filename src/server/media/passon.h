// The last step that a live packet takes as it comes in: it is made what players get, noted for reports and
// for a pusher that may come back, and goes into the cache and to players and recordings. Scheduler thread
// only.
#pragma once

#include "base/datablock.h"
#include "server/core/program.h"

namespace orx {

// Takes the block over: a '$' frame of an RTP packet of at least 12 bytes, as it was pushed or put in front
// of one that was, with its media time in nTimestamp.
void PassPacketOn(Program *pProg, unsigned nTrack, DataBlock *pBlock);

}  // namespace orx
