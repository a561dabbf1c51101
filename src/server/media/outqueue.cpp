#include "server/media/outqueue.h"

#include <algorithm>
#include <cstdio>

#include "base/console.h"
#include "base/eventlog.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/core/sessionpeer.h"

namespace orx {

static constexpr int32_t kTellEveryMs = 10000;  // of one player

int QueuePacket(Session *pSession, DataBlock *pBlock, uint32_t nClock)
{
    int nTrack = BlockTrack(pBlock);
    nTrack = nTrack >= 0 ? TrackIfSetUp(pSession, nTrack)
                         : TrackOfPayload(pSession, BlockData(pBlock)[kInterleaveBytes + 1] & 0x7F,
                                          TrackChoice::First);
    if (nTrack < 0)
        return -1;
    if (pSession->flow.nBlockedSends >= kBlockedSends && !(pBlock->nFlags & DB_VIDEO))
        return -1;
    uint8_t nFrom = pSession->out.bInterleaved ? 0 : kInterleaveBytes;
    BlockRef ref{BlockHold(pBlock), nClock, 0, nFrom, static_cast<int8_t>(nTrack)};
    return QueueAppend(&pSession->out.Outq, ref) ? nTrack : -1;
}

int64_t QueueBefore(Session *pSession, DataBlock *pBlock, uint32_t nBefore)
{
    BlockQueue *pQueue = &pSession->out.Outq;
    if (nBefore >= pQueue->nItems)
        nBefore = pQueue->nItems;
    else if (QueueAt(pQueue, nBefore)->nSent > 0)
        nBefore++;
    return QueueInsert(pQueue, nBefore, {pBlock}) ? int64_t{nBefore} : -1;
}

// Whether the player gets key frames, so that playing can go on with one.
static int HasGroups(const Session *pSession)
{
    int nVideo = pSession->pProg->desc.nVideoTrack;
    return nVideo >= 0 && nVideo < pSession->out.nTracks && pSession->tracks[nVideo].bSetUp &&
           (pSession->out.Outq.sum.nKeys > 0 || pSession->pProg->cache.held.nKeys > 0);
}

// The place of the first media that waits; that behind the last one when none does.
static uint32_t FirstMedia(const BlockQueue *pQueue)
{
    uint32_t i = 0;
    while (i < pQueue->nItems && !(RefFlags(QueueAt(pQueue, i)) & DB_MEDIA))
        i++;
    return i;
}

// How long the media at the head has waited; 0 of a start.
static int32_t WaitedMs(const Session *pSession)
{
    const BlockQueue *pQueue = &pSession->out.Outq;
    uint32_t i = FirstMedia(pQueue);
    uint32_t nClock = i < pQueue->nItems ? QueueAt(pQueue, i)->nClock : 0;
    return nClock != 0 ? ClockDiff(ClockMs(), nClock) : 0;
}

// What waits without that of a start.
static int64_t WaitingBytes(const Session *pSession)
{
    return SessionMediaWaiting(pSession) - pSession->flow.nStartHeld;
}

static void SaySlow(const Session *pSession, const char *szWhat)
{
    char szPeer[kAddrTextSize];
    SessionRemoteText(pSession, szPeer);
    EventSay(EventLevel::Warn, "player.slow",
             {EventText("peer", szPeer), EventText("program", pSession->pProg->Uri),
              EventText("user", pSession->viewer.szUser),
              EventNumber("waiting_kb", SessionMediaWaiting(pSession) / 1024),
              EventNumber("waiting_ms", WaitedMs(pSession)), EventText("what", szWhat)});
}

void QueueTell(const Session *pSession, const char *szWhat)
{
    char szPeer[kAddrTextSize];
    SessionRemoteText(pSession, szPeer);
    unsigned nKilobytes = static_cast<unsigned>(SessionMediaWaiting(pSession) / 1024);
    unsigned nMs = static_cast<unsigned>(WaitedMs(pSession));
    const char *szUri = pSession->pProg->Uri;
    print("Player(%s) of %s: %u KB and %u ms wait, %s.\r\n", szPeer, szUri, nKilobytes, nMs, szWhat);
    log("Player(%s) of %s: %u KB and %u ms wait, %s", szPeer, szUri, nKilobytes, nMs, szWhat);
    SaySlow(pSession, szWhat);
}

void QueueTellCrowded(Session *pSession, uint32_t nNow)
{
    SessionFlow *pFlow = &pSession->flow;
    if (QueueKeepsGroups(pSession) && pFlow->nCrowdedClock != 0 &&
        ClockDiff(nNow, pFlow->nCrowdedClock) < kTellEveryMs)
        return;
    pFlow->nCrowdedClock = nNow;
    print("PushPacket2SessionQueue(): session->Outq.nItems=%u\r\n", pSession->out.Outq.nItems);
}

// Says what was dropped, once in a while.
static void TellDropped(Session *pSession, uint32_t nGroups)
{
    SessionFlow *pFlow = &pSession->flow;
    pFlow->nDropped += nGroups;
    pSession->told.nDroppedGroups += nGroups;
    if (nGroups == 0 || (pFlow->bTold && ClockDiff(ClockMs(), pFlow->nToldClock) < kTellEveryMs))
        return;
    char szWhat[64];
    snprintf(szWhat, sizeof(szWhat), "%u groups were dropped", pFlow->nDropped);
    QueueTell(pSession, szWhat);
    pFlow->nDropped = 0;
    pFlow->bTold = 1;
    pFlow->nToldClock = ClockMs();
}

int QueueRelieve(Session *pSession)
{
    SessionFlow *pFlow = &pSession->flow;
    if (!g_settings.bAutoDrop || !pSession->pProg || !pSession->pProg->bLive)
        return 0;
    if (QueueKeepsGroups(pSession)) {
        QueueDropMedia(pSession);
        pFlow->bSkips = HasGroups(pSession);
        TellDropped(pSession, 1);
        return 1;
    }
    pFlow->nBlockedSends = std::max(pFlow->nBlockedSends, kBlockedSends);
    QueueDropCrowded(pSession);
    print("Player Client(socket=0x%x) has a full queue, its media is dropped!\r\n",
          SessionPeerPort(pSession)->fd);
    if (pSession->told.nDroppedGroups++ == 0)
        SaySlow(pSession, "its media is dropped");
    return !QueueIsFull(pSession);
}

// The place of the first group that has not begun to leave; that behind the last one when there is none. A
// start always counts as begun.
static uint32_t FirstUnbegun(const Session *pSession)
{
    const BlockQueue *pQueue = &pSession->out.Outq;
    uint32_t i = FirstMedia(pQueue);
    if (i < pQueue->nItems && (pSession->flow.nStartHeld > 0 || QueueAt(pQueue, i)->nSent > 0))
        i++;
    while (i < pQueue->nItems && !BlockStartsKey(QueueAt(pQueue, i)->pBlock))
        i++;
    return i;
}

// Of a queue with a group.
static uint32_t LastGroup(const BlockQueue *pQueue)
{
    uint32_t i = pQueue->nItems - 1;
    while (i > 0 && !BlockStartsKey(QueueAt(pQueue, i)->pBlock))
        i--;
    return i;
}

// Drops the media from a place up to another. Returns how many groups began.
static uint32_t DropGroups(Session *pSession, uint32_t nFrom, uint32_t nUntil)
{
    BlockQueue *pQueue = &pSession->out.Outq;
    uint32_t nBefore = pQueue->sum.nKeys;
    QueueDropIf(pQueue, nFrom, nUntil, [](const BlockRef *p) { return RefFlags(p) & DB_MEDIA; });
    return nBefore - pQueue->sum.nKeys;
}

// Whether the group that has begun to leave, and alone waits, is longer than one that the cache holds.
static int IsEndless(const Session *pSession)
{
    uint32_t nMegabytes = g_settings.nCacheMegabytes ? g_settings.nCacheMegabytes : kGroupMegabytes;
    return WaitingBytes(pSession) > Megabytes(nMegabytes);
}

// Of the groups that have not begun to leave the newest stays, unless it is over a bound as well: then
// playing goes on with the next that comes.
static void DropToNewest(Session *pSession)
{
    const BlockQueue *pQueue = &pSession->out.Outq;
    uint32_t nFirst = FirstUnbegun(pSession);
    if (nFirst == pQueue->nItems) {
        pSession->flow.bSkips = IsEndless(pSession);
        return;
    }
    uint32_t nGroups = DropGroups(pSession, nFirst, LastGroup(pQueue));
    uint32_t nNewest = LastGroup(pQueue);
    if (WaitingBytes(pSession) > kQueueBytes ||
        ClockDiff(ClockMs(), QueueAt(pQueue, nNewest)->nClock) > kQueueMs) {
        nGroups += DropGroups(pSession, nNewest, kQueueEnd);
        pSession->flow.bSkips = 1;
    }
    TellDropped(pSession, nGroups);
}

int QueueKeepBounds(Session *pSession)
{
    if (pSession->flow.bSkips || (WaitingBytes(pSession) <= kQueueBytes && WaitedMs(pSession) <= kQueueMs))
        return 1;
    if (!g_settings.bAutoDrop) {
        QueueTell(pSession, "it is closed");
        SessionNoteEnd(pSession, "it was too slow: more waited than its queue may hold");
        return 0;
    }
    if (HasGroups(pSession)) {
        DropToNewest(pSession);
        return 1;
    }
    QueueDropMedia(pSession);
    TellDropped(pSession, 1);
    return 1;
}

int RepliesPileUp(const Session *pSession)
{
    const BlockSum *pQueued = &pSession->out.Outq.sum;
    int64_t nMost = Megabytes(g_settings.nCacheMegabytes);
    return pQueued->nOthers > kRepliesAbove || (nMost && pQueued->nOtherBytes > nMost);
}

// Whoever plays a recording sees numbers without a hole across pauses and jumps (RFC 2326, appendix B), and
// so does not wait for packets that never come.
static void GiveNumberBack(Session *pSession, const BlockRef *pRef)
{
    if (!(RefFlags(pRef) & DB_MEDIA) || !pSession->pProg || pSession->pProg->bLive)
        return;
    int nTrack = TrackOfRef(pSession, pRef);
    if (nTrack >= 0)
        pSession->tracks[nTrack].nNextSeq--;
}

// Drops the blocks that have all of the flags.
static void DropWaiting(Session *pSession, uint32_t nFlags)
{
    QueueDropIf(&pSession->out.Outq, 0, kQueueEnd, [=](const BlockRef *p) {
        int bDrop = p->nSent == 0 && (RefFlags(p) & nFlags) == nFlags;
        if (bDrop)
            GiveNumberBack(pSession, p);
        return bDrop;
    });
    pSession->flow.nStartHeld = 0;
}

void QueueDropAll(Session *pSession)
{
    DropWaiting(pSession, 0);
}

void QueueDropMedia(Session *pSession)
{
    DropWaiting(pSession, DB_MEDIA);
}

void QueueDropCrowded(Session *pSession)
{
    const BlockRef *pHead = QueueFirst(&pSession->out.Outq);
    if (pHead && pHead->nSent == 0)
        QueueTake(&pSession->out.Outq, 1);
    QueueDropMedia(pSession);
}

}  // namespace orx
