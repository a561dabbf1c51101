#include "server/media/pace.h"

#include <algorithm>

#include "server/core/program.h"
#include "server/media/outqueue.h"

namespace orx {

static constexpr int32_t kFileLeadMs = 1000;  // a recording is sent at most this far ahead of real time
static constexpr uint32_t kCatchUpSpeed = 4;  // times real time, of what is ahead over UDP

// A start can be ten seconds of media, and a player's UDP socket holds a fraction of a second: at a multiple
// of real time nothing is lost. Time stamps that jump do not hold it up for longer than the cache should
// last.
static int CatchesUp(const Session *pSession)
{
    return pSession->flow.nStartBlocks > 0 && !pSession->out.bInterleaved &&
           ClockMs() - pSession->play.nPlayClock < pSession->pProg->cache.nCacheLimit;
}

// The media of a recording that is due.
static uint32_t DueMs(const SessionPlay *pPlay)
{
    return static_cast<uint32_t>(uint64_t{ClockMs() - pPlay->nPlayClock} * pPlay->nSpeed / 1000);
}

// What may be ahead of it. Over UDP it grows: a second of large pictures at once is more than a player's
// socket holds.
static int32_t LeadMs(const Session *pSession)
{
    if (!PlaysStandard(pSession) || pSession->out.bInterleaved)
        return kFileLeadMs;
    uint32_t nSince = std::min<uint32_t>(ClockMs() - pSession->play.nPlayClock, kFileLeadMs);
    return std::min(kFileLeadMs, static_cast<int32_t>((kCatchUpSpeed - 1) * nSince));
}

Pace PaceOf(const Session *pSession)
{
    if (!pSession->pProg || (pSession->nFlags & SESSION_PUSHER))
        return {};
    const SessionPlay *pPlay = &pSession->play;
    uint32_t nSent = pPlay->nPlayPos - pPlay->nPlayStart;
    if (pSession->pProg->bLive)
        return {CatchesUp(pSession), 0, pPlay->nPlayStart, pSession->flow.nCatchUpMs, nSent, 0};
    int bPaused = PlaysStandard(pSession) && pSession->nState == STATE_PAUSED;
    return {1, bPaused, pPlay->nPlayStart, DueMs(pPlay), nSent, LeadMs(pSession)};
}

DataBlock *PaceFirstHeld(const Session *pSession)
{
    Pace pace = PaceOf(pSession);
    DataBlock *pHeld = nullptr;
    for (auto *p = pace.bPaced ? ListFirstOf<DataBlock>(&pSession->out.Outq) : nullptr; p; p = NextBlock(p)) {
        if (!(p->nFlags & (DB_MEDIA | DB_KEY)))
            pHeld = nullptr;
        else if (!pHeld && PaceHoldsBack(&pace, p))
            pHeld = p;
        else if (!pHeld)
            PaceAdvance(&pace, p);
    }
    return pHeld;
}

int PaceKeepsAll(const Session *pSession)
{
    Pace pace = PaceOf(pSession);
    const auto *pHead = ListFirstOf<DataBlock>(&pSession->out.Outq);
    return !pHead || (pace.bPaused && PaceHoldsBack(&pace, pHead));
}

int PaceMayTakeStart(const Session *pSession)
{
    const SessionFlow *pFlow = &pSession->flow;
    return pFlow->nStartBlocks > 0 && pFlow->nAfterStart <= pFlow->nStartBytes &&
           ListCount(&pSession->out.Outq) < pFlow->nStartBlocks + kGiveUpAbove / 2 &&
           ClockMs() - pSession->play.nPlayClock < pSession->pProg->cache.nCacheLimit;
}

void PaceStart(Session *pSession, uint32_t nBlocks, uint32_t nBytes)
{
    pSession->flow.nStartBlocks = nBlocks;
    pSession->flow.nStartBytes = nBytes;
    pSession->flow.nAfterStart = 0;
    pSession->flow.nCatchUpMs = 0;
    pSession->flow.nCatchUpClock = ClockMs();
}

void PaceRaise(Session *pSession, uint32_t nNow)
{
    SessionFlow *pFlow = &pSession->flow;
    pFlow->nCatchUpMs += kCatchUpSpeed * std::min(nNow - pFlow->nCatchUpClock, kCatchUpStepMs);
    pFlow->nCatchUpClock = nNow;
}

}  // namespace orx
