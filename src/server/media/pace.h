// How far ahead of real time a player's media may leave: recordings, and over UDP the start of a live
// program. Scheduler thread only.
#pragma once

#include <cstdint>

#include "base/datablock.h"
#include "runtime/clock.h"
#include "server/core/session.h"

namespace orx {

// How far playing may have gone and has gone.
struct Pace {
    int bPaced;         // 0: everything leaves at once
    int bPaused;        // no media leaves, but for the rest of a packet
    uint32_t nStart;    // ms, the position that PLAY began at
    uint32_t nElapsed;  // media ms since PLAY that are due
    uint32_t nSent;     // media ms since PLAY, at the last block
    int32_t nLead;      // ms that may be ahead of what is due
};

// The pace of the session at this moment.
Pace PaceOf(const Session *pSession);

// Whether a block has to wait. The rest of a picture does not: it is not further ahead than its beginning, so
// that a pause leaves no player with a piece of one.
inline int PaceHoldsBack(const Pace *pPace, const DataBlock *pBlock)
{
    if (!pPace->bPaced || !(pBlock->nFlags & DB_MEDIA))
        return 0;
    if (pPace->bPaused && pBlock->sent == 0)
        return 1;
    return ClockDiff(pPace->nSent, pPace->nElapsed) > pPace->nLead &&
           pBlock->nTimestamp - pPace->nStart != pPace->nSent;
}

// Notes that a block is on its way; only media has a place in time.
inline void PaceAdvance(Pace *pPace, const DataBlock *pBlock)
{
    if (pBlock->nFlags & DB_MEDIA)
        pPace->nSent = pBlock->nTimestamp - pPace->nStart;
}

// The first packet of the queue that the pace holds back and that a reply need not wait for; null when there
// is none. Replies keep their order among themselves; reports, which carry the key flag, may be passed.
DataBlock *PaceFirstHeld(const Session *pSession);

// Whether nothing waits but what a pause keeps.
int PaceKeepsAll(const Session *pSession);

// Whether a player that blocks is still given the time to take the start that waits in its queue: as long as
// that may have taken to play, and until as much again waits behind it, or so much that it would be given up.
int PaceMayTakeStart(const Session *pSession);

// A start from the cache has put nBlocks of media, nBytes together, into the queue. PaceRaise lets more of it
// go, once every kCatchUpStepMs, at nNow (ClockMs); what a late step missed is not made up for.
constexpr uint32_t kCatchUpStepMs = 20;  // at four times real time two pictures of 25 a second
void PaceStart(Session *pSession, uint32_t nBlocks, uint32_t nBytes);
void PaceRaise(Session *pSession, uint32_t nNow);

}  // namespace orx
