#include "server/media/distribute.h"

#include <sys/socket.h>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "runtime/slice.h"
#include "server/core/settings.h"
#include "server/media/cache.h"
#include "server/media/outqueue.h"
#include "server/media/recordcontrol.h"
#include "server/media/reports.h"
#include "server/media/rtcp.h"
#include "server/media/send.h"

namespace orx {

// Of memory: a start of no more is one step, a millisecond or two.
static constexpr uint32_t kStartBytes = 4 << 20;
// Of a slice, for one player: eight times the clock is not looked at.
static constexpr uint32_t kFlushWork = 32;
// So long the rest of a burst waits for the next read: longer than pictures of 25 a second are apart. With
// LowDelay, so long a picture that is not whole waits for more of it.
static constexpr int32_t kHeldMs = 50;
static constexpr int32_t kHeldLowMs = 5;

// Of what is left in a queue. Returns 0 for a player that is to be ended.
static int KeepBounds(Session *pSession, unsigned nMost)
{
    if (QueueKeepsGroups(pSession))
        return QueueKeepBounds(pSession);
    if (QueueIsFull(pSession) && !QueueRelieve(pSession))
        return 0;
    return pSession->out.Outq.nItems <= nMost;
}

// Sends what waits, and a report when one is due. Returns 0 when that failed, or left more than nMost blocks,
// or more than a queue may hold of a player that nothing is dropped for.
static int Flush(Session *pSession, unsigned nMost)
{
    if (!SendDataEx(pSession, nullptr, 1))
        return 0;
    if (pSession->out.Outq.nItems > 0 && !KeepBounds(pSession, nMost))
        return 0;
    if (pSession->nFlags & SESSION_RTCP)
        SendRtcpReport(pSession);
    return 1;
}

// The session whose media that waits takes most; null when none waits at all.
static Session *LargestQueue()
{
    Session *pMost = nullptr;
    for (Session *p = FirstSession(); p; p = NextSession(p))
        if (!(p->nFlags & SESSION_PUSHER) &&
            SessionMediaWaiting(p) > (pMost ? SessionMediaWaiting(pMost) : 0))
            pMost = p;
    return pMost;
}

// Makes a queue smaller, as a full one: unless its peer reads, the session loses the media or ends.
static void QueueGive(Session *pSession)
{
    int64_t nBefore = SessionMediaWaiting(pSession);
    int bSent = SendDataEx(pSession, nullptr, 1);
    if (bSent && SessionMediaWaiting(pSession) <= nBefore / 2)
        return;
    pSession->start.pNext = nullptr;
    if (bSent && QueueRelieve(pSession) && SessionMediaWaiting(pSession) <= nBefore / 2)
        return;
    print("QueueGive()->DestroySession()!\r\n");
    SessionNoteEnd(pSession,
                   "it was too slow: its queue was the largest when CacheMegabytesTotal was reached");
    SessionEnd(pSession);
    QueueEmpty(&pSession->out.Outq);  // now, or others would give for bytes that are about to go
}

// Of all queues the largest gives, whoever the newest packet is for: who reads has a small one.
static void QueuesBound()
{
    int64_t nMost = Megabytes(g_settings.nCacheMegabytesTotal);
    while (nMost && g_server.nQueuedBytes + BytesLeft() > nMost) {
        Session *pMost = LargestQueue();
        if (!pMost)
            return;
        QueueGive(pMost);
    }
}

static int IsOverBound(const Session *pSession)
{
    return SessionMediaWaiting(pSession) - pSession->flow.nStartHeld > kQueueBytes;
}

// Whether a crowded queue need not be tried again yet: its socket was full a moment ago, or its timer runs.
// It is with the packet that takes it over its bound.
static int WaitsForRoom(Session *pSession, unsigned nItems, uint32_t nNow)
{
    if (!QueueKeepsGroups(pSession))
        return 0;
    SessionFlow *pFlow = &pSession->flow;
    if (pSession->nFlags & SESSION_CATCHES_UP)
        return 1;
    int bOver = IsOverBound(pSession);
    if (bOver && !pFlow->bOver)
        return 0;
    pFlow->bOver = bOver;
    uint32_t nLeft = pFlow->nLeft;
    return QueueIsBlocked(pSession, nNow) ||
           (nLeft > 0 && nItems >= nLeft && nItems <= nLeft + kFlushAtOnceAbove);
}

// Returns 0 when that ended the session.
static int PushPacket2SessionQueue(Session *pSession, DataBlock *pBlock, uint32_t nNow)
{
    if (QueuePacket(pSession, pBlock, nNow) < 0)
        return 1;
    unsigned nItems = pSession->out.Outq.nItems;
    if ((nItems <= kFlushAtOnceAbove && !QueueIsFull(pSession)) || WaitsForRoom(pSession, nItems, nNow))
        return 1;
    QueueTellCrowded(pSession, nNow);
    int bKeep = Flush(pSession, kGiveUpAbove);
    pSession->flow.nLeft = pSession->out.Outq.nItems;
    pSession->flow.bOver = IsOverBound(pSession);
    if (bKeep)
        return 1;
    print("PushPacket2SessionQueue()->DestroySession()!\r\n");
    SessionNoteEnd(pSession, "it was too slow: more waited than its queue may hold");
    SessionEnd(pSession);
    return 0;
}

// Writes an event packet's payload straight to a subscriber.
static void SendEventMsg2SubscribeClient(Session *pSession, const DataBlock *pBlock)
{
    constexpr uint32_t kHead = kInterleaveBytes + kRtpHeaderBytes;
    if (pBlock->len < kHead || !pSession->peer.Reply)
        return;
    size_t nLen = pBlock->len - kHead;
    // what is sent past the queue must not cut into a block that has left in part
    const BlockRef *pWaiting = QueueFirst(&pSession->out.Outq);
    int bMidBlock = pWaiting && pWaiting->nSent > 0;
    ssize_t n =
        bMidBlock ? -1 : send(pSession->peer.Reply->fd, BlockData(pBlock) + kHead, nLen, MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(nLen))
        return;
    print("SendEventMsg2SubscribeClient()->DestroySession()!\r\n");
    SessionNoteEnd(pSession, "it did not take an event");
    SessionEnd(pSession);
}

// Whether a player that has lost groups does not wait for the next key frame any more.
static inline int TakesPacket(Session *pSession, const DataBlock *pBlock)
{
    if (pSession->flow.bSkips && BlockStartsKey(pBlock))
        pSession->flow.bSkips = 0;
    return !pSession->flow.bSkips;
}

static void FanOut(Program *pProg, DataBlock *pBlock)
{
    int bEvent = pProg->desc.nDataTrack >= 0 && BlockData(pBlock)[1] == 2 * pProg->desc.nDataTrack;
    uint32_t nNow = pProg->bTimesQueues ? ClockMs() : 0;
    Session *pNext;
    for (Session *p = FirstPlayer(pProg); p; p = pNext) {
        pNext = NextPlayer(p);
        if (p->nState == STATE_PLAYING && !p->start.pNext && TakesPacket(p, pBlock) &&
            !PushPacket2SessionQueue(p, pBlock, nNow))
            continue;
        if (bEvent && (p->nFlags & SESSION_SUBSCRIBER))
            SendEventMsg2SubscribeClient(p, pBlock);
    }
}

static void LearnSsrc(Program *pProg, const DataBlock *pBlock)
{
    if (pProg->cache.nSerial != 0 || pProg->cache.ssrc != 0)
        return;
    pProg->cache.ssrc = GetBe(BlockData(pBlock) + 12, 4);
    print("Program(%s)->ssrc=%u\r\n", pProg->szName, pProg->cache.ssrc);
}

void CachePacketEx(Program *pProg, DataBlock *pBlock)
{
    int bRet = BlockListAppend(&pProg->cache.Pktq, pBlock);
    ORX_ASSERT(bRet, "bRet");
    pBlock->nSerial = pProg->cache.nSerial;
    CacheNote(&pProg->cache, pBlock);
    FanOut(pProg, pBlock);
    LearnSsrc(pProg, pBlock);
    RecordersWrite(pProg, pBlock);
    pProg->cache.nSerial++;
    CacheTrim(pProg, pBlock->nTimestamp);
    CacheBound(pProg);
    QueuesBound();  // what no cache holds any more is theirs
}

static void PrintCounts(const Program *pProg, const Session *pSession)
{
    print("FillBufferAtFirstPlay(Cache Packets:In=%u, Out=%u)\r\n", ListCount(&pProg->cache.Pktq),
          pSession->out.Outq.nItems);
}

// Queues copies from a block on, for a slice of time but kStartBytes at least. Returns how many.
static uint32_t FillSlice(Session *pSession, DataBlock *p, int bFirst)
{
    Slice slice = SliceBegin();
    uint32_t nQueued = 0;
    uint32_t nSinceLook = 0;
    int64_t nBefore = pSession->out.Outq.sum.nBytes;
    for (int bOver = 0; p && !bOver; p = NextBlock(p)) {
        nSinceLook += BlockBytes(p);
        if (nSinceLook >= kStartBytes) {
            bOver = SliceOver(&slice, kSliceLook);
            nSinceLook = 0;
        }
        nQueued += QueuePacket(pSession, p, 0) >= 0;
    }
    pSession->start.pNext = p;
    pSession->start.nSerial = p ? p->nSerial : 0;
    pSession->flow.nStartHeld += pSession->out.Outq.sum.nBytes - nBefore;
    if (bFirst)
        SendStartBurst(pSession, nQueued);
    else
        SendStartMore(pSession, nQueued);
    return nQueued;
}

// The block that a start goes on with. When it was freed meanwhile, the first behind it.
static DataBlock *NextOfStart(const Session *pSession)
{
    const PacketCache *pCache = &pSession->pProg->cache;
    uint32_t nSerial = pSession->start.nSerial;
    if (ClockDiff(nSerial, pCache->nWhole) >= 0)
        return pSession->start.pNext;
    auto *p = ListFirstOf<DataBlock>(&pCache->Pktq);
    while (p && ClockDiff(p->nSerial, nSerial) < 0)
        p = NextBlock(p);
    return p;
}

static int OnStartOn(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    SessionStart *pStart = &pSession->start;
    if (pStart->pNext && pSession->nState == STATE_PLAYING)
        FillSlice(pSession, NextOfStart(pSession), 0);
    else
        pStart->pNext = nullptr;
    if (!SendDataEx(pSession, nullptr, 1))
        SessionEnd(pSession);
    QueuesBound();
    pStart->bTask = pStart->pNext && !pSession->bEnded;
    return pStart->bTask ? 1 : -1;
}

int FillBufferAtFirstPlay(Session *pSession)
{
    Program *pProg = pSession->pProg;
    SessionStart *pStart = &pSession->start;
    if (!pProg)
        return 1;
    ReportsAhead(pSession);
    DataBlock *p = CacheLastKey(pProg);
    pStart->pNext = nullptr;
    if (!p) {
        if (ListCount(&pProg->cache.Pktq) > 0)
            print("FillBufferAtFirstPlay() did not find the next KeyFrame to fill packet!\r\n");
        PrintCounts(pProg, pSession);
        return 0;
    }
    pSession->flow.nStartHeld = 0;
    pSession->flow.bSkips = 0;
    uint32_t nQueued = FillSlice(pSession, p, 1);
    PrintCounts(pProg, pSession);
    if (pStart->pNext && !pStart->bTask) {
        pStart->bTask = 1;
        SessionSchedule(pSession, OnStartOn, 1);
    }
    return nQueued > 0;
}

// Flushes players for a slice of time.
static void FlushSlice(Program *pProg)
{
    PlayerFlush *pFlush = &pProg->flush;
    Slice slice = SliceBegin();
    unsigned nAbove = HasLowDelay(pProg) ? 0 : kFlushAfterReadAbove;
    int bOver = 0;
    while (pFlush->pNext && !bOver) {
        Session *p = pFlush->pNext;
        pFlush->pNext = NextPlayer(p);
        if (p->nState != STATE_PLAYING || p->out.Outq.nItems <= nAbove ||
            (p->flow.bBlocked && QueueIsBlocked(p, ClockMs())))
            continue;
        if (!Flush(p, UINT32_MAX))  // nothing was queued: how much waits was looked at when it was
            SessionEnd(p);
        bOver = SliceOver(&slice, kFlushWork);
    }
}

// The next slice of a flush, in a task of its own, so that others come between.
static int OnFlushOn(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pPusher = SessionOfTask(pTask);
    Program *pProg = pPusher ? pPusher->pProg : nullptr;
    if (!pProg || pProg->pPusher != pPusher)
        return -1;
    PlayerFlush *pFlush = &pProg->flush;
    FlushSlice(pProg);
    if (!pFlush->pNext && pFlush->bAgain) {
        pFlush->pNext = FirstPlayer(pProg);
        pFlush->bAgain = 0;
    }
    pFlush->bTask = pFlush->pNext != nullptr;
    if (!pFlush->bTask)
        return -1;
    return HasLowDelay(pProg) ? 0 : 1;
}

void FlushPlayers(Program *pProg)
{
    PlayerFlush *pFlush = &pProg->flush;
    pFlush->bWaits = pFlush->bDue = pFlush->bHeld = 0;
    pFlush->bAgain = pFlush->bTask;
    if (pFlush->bTask)
        return;
    pFlush->pNext = FirstPlayer(pProg);
    FlushSlice(pProg);
    pFlush->bTask = pFlush->pNext && pProg->pPusher;
    if (pFlush->bTask)
        SessionSchedule(pProg->pPusher, OnFlushOn, 1);
}

void FlushNote(Program *pProg, MediaInfo *pInfo, const uint8_t *pRtp)
{
    constexpr uint8_t kMarker = 0x80;
    PlayerFlush *pFlush = &pProg->flush;
    pFlush->bWaits = 1;
    if (!(pInfo->nMediaType & MEDIA_VIDEO_MASK)) {
        pFlush->bDue = 1;
        return;
    }
    uint32_t nStamp = GetBe(pRtp + 4, 4);
    int bEnds = (pRtp[1] & kMarker) != 0;
    pFlush->bDue |= bEnds || (pInfo->bOpenPicture && nStamp != pInfo->nOpenStamp);
    pInfo->bOpenPicture = !bEnds;
    pInfo->nOpenStamp = nStamp;
}

static int32_t HeldMs(const Program *pProg)
{
    return HasLowDelay(pProg) ? kHeldLowMs : kHeldMs;
}

static int OnHeld(Task *pTask, uint32_t, uint32_t nNow, uint32_t)
{
    Session *pPusher = SessionOfTask(pTask);
    Program *pProg = pPusher ? pPusher->pProg : nullptr;
    if (!pProg || pProg->pPusher != pPusher)
        return -1;
    PlayerFlush *pFlush = &pProg->flush;
    int32_t nLeftMs = HeldMs(pProg) - ClockDiff(nNow, pFlush->nHeldClock);
    if (pFlush->bHeld && nLeftMs > 1)
        return nLeftMs;
    pFlush->bTimer = 0;
    if (pFlush->bHeld)
        FlushPlayers(pProg);
    return -1;
}

void FlushLater(Program *pProg)
{
    PlayerFlush *pFlush = &pProg->flush;
    if (pFlush->bHeld)
        return;
    pFlush->bHeld = 1;
    pFlush->nHeldClock = ClockMs();
    if (pFlush->bTimer || !pProg->pPusher)
        return;
    pFlush->bTimer = 1;
    SessionSchedule(pProg->pPusher, OnHeld, static_cast<uint32_t>(HeldMs(pProg)));
}

void FlushWhole(Program *pProg)
{
    if (pProg->flush.bDue)
        FlushPlayers(pProg);
    else if (pProg->flush.bWaits)
        FlushLater(pProg);
}

}  // namespace orx
