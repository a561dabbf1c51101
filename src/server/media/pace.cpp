#include "server/media/pace.h"

#include <algorithm>

#include "server/core/program.h"
#include "server/media/outqueue.h"

namespace orx {

static constexpr int32_t kFileLeadMs = 1000;  // a recording is sent at most this far ahead of real time
static constexpr uint32_t kCatchUpSpeed = 4;  // times real time, of what is ahead over UDP
static constexpr int32_t kMostOverdueMs = 2000;
static constexpr uint32_t kOverdueStepMs =
    250;  // a recording that is so late leaves over UDP at twice the rate

// A start can be ten seconds of media, and a player's UDP socket holds a fraction of a second: at a multiple
// of real time nothing is lost. Time stamps that jump do not hold it up for longer than the cache should
// last.
static int CatchesUp(const Session *pSession)
{
    return pSession->flow.nStartBlocks > 0 &&
           ClockMs() - pSession->play.nPlayClock < pSession->pProg->cache.nCacheLimit;
}

// The media of a recording that is due.
static uint32_t DueMs(const SessionPlay *pPlay)
{
    return static_cast<uint32_t>(uint64_t{ClockMs() - pPlay->nPlayClock} * pPlay->nSpeed / 1000);
}

// What may be ahead of it. Over UDP it grows: a second of large pictures at once is more than a player's
// socket holds. While a request waits for the end of a picture, no other one begins.
static int32_t LeadMs(const Session *pSession)
{
    if (!PlaysStandard(pSession) || pSession->out.bInterleaved)
        return kFileLeadMs;
    if (pSession->play.bFinishes)
        return INT32_MIN;
    uint32_t nSince = std::min<uint32_t>(ClockMs() - pSession->play.nPlayClock, kFileLeadMs);
    return std::min(kFileLeadMs, static_cast<int32_t>((kCatchUpSpeed - 1) * nSince));
}

// How far what was sent of a recording is behind what is due, ms.
static uint32_t OverdueMs(const Session *pSession)
{
    const SessionPlay *pPlay = &pSession->play;
    int32_t nBehind = ClockDiff(DueMs(pPlay), pPlay->nPlayPos - pPlay->nPlayStart);
    return static_cast<uint32_t>(std::clamp(nBehind, 0, kMostOverdueMs));
}

// What may leave over UDP per ms. The rate of a live program is known; a recording that does not keep up
// shows that it has more.
static uint32_t BytesPerMs(const Session *pSession)
{
    const Program *pProg = pSession->pProg;
    if (pProg->bLive)
        return std::max(kUdpBytesPerMs, 2 * pProg->cache.nBytesPerMs);
    return kUdpBytesPerMs + kUdpBytesPerMs * OverdueMs(pSession) / kOverdueStepMs;
}

void PaceMakeRoom(Session *pSession)
{
    if (!PaceCountsBytes(pSession))
        return;
    SessionFlow *pFlow = &pSession->flow;
    uint32_t nNow = ClockMs();
    uint32_t nSince = std::min(nNow - pFlow->nRoomClock, kUdpBurstMs * 2);
    uint32_t nRate = BytesPerMs(pSession);
    pFlow->nRoom = std::min(static_cast<int32_t>(kUdpBurstMs * nRate),
                            pFlow->nRoom + static_cast<int32_t>(nSince * nRate));
    pFlow->nRoomClock = nNow;
}

static Pace LivePace(const Session *pSession)
{
    if (!PaceCountsBytes(pSession))
        return {};
    const SessionPlay *pPlay = &pSession->play;
    uint32_t nSent = pPlay->nPlayPos - pPlay->nPlayStart;
    int32_t nLead = CatchesUp(pSession) ? 0 : INT32_MAX;
    return {1, 0, pPlay->nPlayStart, pSession->flow.nCatchUpMs, nSent, nLead, pSession->flow.nRoom};
}

Pace PaceOf(const Session *pSession)
{
    if (!pSession->pProg || (pSession->nFlags & SESSION_PUSHER))
        return {};
    if (pSession->pProg->bLive)
        return LivePace(pSession);
    const SessionPlay *pPlay = &pSession->play;
    uint32_t nSent = pPlay->nPlayPos - pPlay->nPlayStart;
    int bPaused = PlaysStandard(pSession) && pSession->nState == STATE_PAUSED;
    int32_t nRoom = PaceCountsBytes(pSession) ? pSession->flow.nRoom : INT32_MAX;
    return {1, bPaused, pPlay->nPlayStart, DueMs(pPlay), nSent, LeadMs(pSession), nRoom};
}

uint32_t PaceFirstHeld(const Session *pSession)
{
    Pace pace = PaceOf(pSession);
    uint32_t nHeld = kQueueEnd;
    for (uint32_t i = 0; pace.bPaced && i < pSession->out.Outq.nItems; i++) {
        const BlockRef *p = QueueAt(&pSession->out.Outq, i);
        if (!(RefFlags(p) & (DB_MEDIA | DB_KEY)))
            nHeld = kQueueEnd;
        else if (nHeld == kQueueEnd && PaceHoldsBack(&pace, p))
            nHeld = i;
        else if (nHeld == kQueueEnd)
            PaceAdvance(&pace, p);
    }
    return nHeld;
}

int PaceIsMidPicture(const Session *pSession)
{
    if (!PlaysStandard(pSession) || pSession->out.bInterleaved || pSession->nState != STATE_PLAYING)
        return 0;
    const BlockQueue *pQueue = &pSession->out.Outq;
    uint32_t i = 0;
    while (i < pQueue->nItems && !(RefFlags(QueueAt(pQueue, i)) & DB_MEDIA))
        i++;
    return i < pQueue->nItems && QueueAt(pQueue, i)->pBlock->nTimestamp == pSession->play.nPlayPos;
}

int PaceKeepsAll(const Session *pSession)
{
    Pace pace = PaceOf(pSession);
    const BlockRef *pHead = QueueFirst(&pSession->out.Outq);
    return !pHead || (pace.bPaused && PaceHoldsBack(&pace, pHead));
}

void PaceStart(Session *pSession, uint32_t nBlocks)
{
    pSession->flow.nStartBlocks = nBlocks;
    pSession->flow.nCatchUpMs = 0;
    pSession->flow.nCatchUpClock = ClockMs();
}

void PaceRaise(Session *pSession, uint32_t nNow)
{
    SessionFlow *pFlow = &pSession->flow;
    if (pFlow->nRoom > 0)
        pFlow->nCatchUpMs += kCatchUpSpeed * std::min(nNow - pFlow->nCatchUpClock, kCatchUpStepMs);
    pFlow->nCatchUpClock = nNow;
}

}  // namespace orx
