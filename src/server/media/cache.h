// What a program's packet cache keeps: the last seconds, so that a player starts with a key frame, and whole
// key frames from before. Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// Notes that a block was appended as the program's newest packet.
void CacheNote(PacketCache *pCache, DataBlock *pBlock);

// Frees what the cache need not keep, now that a packet of nNow (media ms) is its newest. With [INTEROP]
// StandardPushers all since the newest key frame stays, whatever its age.
void CacheTrim(Program *pProg, uint32_t nNow);

// Frees the oldest groups, each up to the next key frame, until the program keeps at most CacheMegabytes and
// all together CacheMegabytesTotal, to which the program with most gives. Of the last group the oldest
// packets go; the newest packet of a program always stays.
void CacheBound(Program *pProg);

// The start of the newest key frame, or null.
DataBlock *CacheLastKey(const Program *pProg);

}  // namespace orx
