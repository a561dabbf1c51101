// How far ahead of real time a player's media may leave: recordings, and over UDP the start of a live
// program; and how many bytes at once as datagrams. Scheduler thread only.
#pragma once

#include <cstdint>

#include "base/blockqueue.h"
#include "runtime/clock.h"
#include "server/core/program.h"
#include "server/core/session.h"
#include "server/core/settings.h"

namespace orx {

// How far playing may have gone and has gone.
struct Pace {
    int bPaced;         // 0: everything leaves at once, and nothing below counts
    int bPaused;        // no media leaves, but for the rest of a packet
    uint32_t nStart;    // ms, the position that PLAY began at
    uint32_t nElapsed;  // media ms since PLAY that are due
    uint32_t nSent;     // media ms since PLAY, at the last block
    int32_t nLead;      // ms that may be ahead of what is due
    int32_t nRoom;      // bytes that may leave now; one datagram may take more
};

// Whether what leaves over UDP is bounded in bytes: of recordings for standard players, of live programs for
// or from standard peers.
inline int PaceCountsBytes(const Session *pSession)
{
    if (pSession->out.bInterleaved || !pSession->pProg || (pSession->nFlags & SESSION_PUSHER))
        return 0;
    const Program *pProg = pSession->pProg;
    return pSession->standards.bPlayers || (pProg->standards.bPushers && pProg->bLive);
}

// The pace of the session at this moment.
Pace PaceOf(const Session *pSession);

// The same to send by: what may leave over UDP grows by the time gone by. On a connection a live program has
// none.
void PaceMakeRoom(Session *pSession);
inline Pace PaceTake(Session *pSession)
{
    if (pSession->out.bInterleaved && pSession->pProg && pSession->pProg->bLive)
        return {};
    PaceMakeRoom(pSession);
    return PaceOf(pSession);
}

// A player's UDP socket takes 212,992 bytes where nothing else is set, which are about 90 datagrams of 1,400
// bytes with what the kernel adds: some 130,000 bytes, while the player decodes in the thread that reads.
// Half of that may leave at once, so that pictures of common size do; larger ones are spread. What leaves
// on and on fills the other half in no less than 20 ms.
constexpr uint32_t kUdpBurstMs = 20;       // of the rate leave at once
constexpr uint32_t kUdpBytesPerMs = 3200;  // 25 Mbit/s; more where twice the stream's own rate is

// Whether a block has to wait. But for the room in a socket the rest of a picture does not: it is not further
// ahead than its beginning, so that a pause leaves no player with a piece of one.
inline int PaceHoldsBack(const Pace *pPace, const BlockRef *pRef)
{
    if (!pPace->bPaced || !(RefFlags(pRef) & DB_MEDIA))
        return 0;
    if (pPace->bPaused && pRef->nSent == 0)
        return 1;
    if (pPace->nRoom <= 0)
        return 1;
    return ClockDiff(pPace->nSent, pPace->nElapsed) > pPace->nLead &&
           pRef->pBlock->nTimestamp - pPace->nStart != pPace->nSent;
}

// Notes that a block is on its way; only media has a place in time.
inline void PaceAdvance(Pace *pPace, const BlockRef *pRef)
{
    if (!pPace->bPaced || !(RefFlags(pRef) & DB_MEDIA))
        return;
    pPace->nSent = pRef->pBlock->nTimestamp - pPace->nStart;
    pPace->nRoom -= static_cast<int32_t>(RefLen(pRef));
}

// Brings a pace to what has left since it was taken.
inline void PaceGoOn(Pace *pPace, const Session *pSession)
{
    pPace->nSent = pSession->play.nPlayPos - pPace->nStart;
    if (pPace->nRoom != INT32_MAX)
        pPace->nRoom = pSession->flow.nRoom;
}

// The place of the first packet of the queue that the pace holds back and that a reply need not wait for;
// kQueueEnd when there is none. Replies keep their order among themselves; reports, which carry the key flag,
// may be passed.
uint32_t PaceFirstHeld(const Session *pSession);

// Whether of a recording's picture a part has left over UDP, and the rest waits for room: a jump or a pause
// would leave a piece of it with the player.
int PaceIsMidPicture(const Session *pSession);

// Whether nothing waits but what a pause keeps.
int PaceKeepsAll(const Session *pSession);

// A start from the cache has put nBlocks of media into the queue. PaceRaise lets more of it go, once every
// kCatchUpStepMs, at nNow (ClockMs); neither what a late step missed is made up for, nor what large pictures
// took for want of room.
constexpr uint32_t kCatchUpStepMs = 10;  // at four times real time a picture of 25 a second
void PaceStart(Session *pSession, uint32_t nBlocks);
void PaceRaise(Session *pSession, uint32_t nNow);

}  // namespace orx
