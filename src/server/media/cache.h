// What a program's packet cache keeps: the last seconds, so that a player starts with a key frame, and whole
// key frames from before. Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// Frees what the cache need not keep, now that a packet of nNow (media ms) is its newest.
void CacheTrim(Program *pProg, uint32_t nNow);

// The start of the newest key frame, or null.
DataBlock *CacheLastKey(const Program *pProg);

}  // namespace orx
