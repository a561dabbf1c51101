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

}  // namespace orx
