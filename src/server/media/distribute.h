// The road of a live packet: program cache, recorders, and the output queue of every player. Scheduler thread
// only.
#pragma once

#include "base/datablock.h"
#include "server/core/program.h"

namespace orx {

// Caches a packet and hands it on; the program owns the block from here on. May end players, also of other
// programs: what waits for all sessions is bounded by [GUARD] CacheMegabytesTotal.
void CachePacketEx(Program *pProg, DataBlock *pBlock);

// Fills the queue of a player that starts from the last key frame on. Returns 1 when something was queued or
// the session has no program, else 0: the player begins with what is pushed next. May end other players,
// which hold the memory that it takes.
int FillBufferAtFirstPlay(Session *pSession);

// Sends what waits for the playing clients of a program that have more than a few blocks, in their order;
// those that some milliseconds do not suffice for follow in tasks of their own. May end players.
void FlushPlayers(Program *pProg);

// The same 50 ms from now, with LowDelay 5 ms, unless what waits has left by then.
void FlushLater(Program *pProg);

// LowDelay. Of an RTP packet of the track, before it is cached: notes whether a picture or a piece of sound
// is whole with it, or was with the one before.
void FlushNote(Program *pProg, MediaInfo *pInfo, const uint8_t *pRtp);

// LowDelay. After a read of the pusher: flushes the players when something is whole, else sees to it that
// what waits does so for 5 ms at most.
void FlushWhole(Program *pProg);

}  // namespace orx
