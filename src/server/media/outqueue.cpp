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

int QueueCopy(Session *pSession, const DataBlock *pBlock)
{
    uint8_t nPayloadType = BlockData(pBlock)[kInterleaveBytes + 1] & 0x7F;
    int nTrack = BlockTrack(pBlock) >= 0 ? TrackNoted(pSession, pBlock)
                                         : TrackOfPayload(pSession, nPayloadType, TrackChoice::First);
    if (nTrack < 0)
        return -1;
    if (pSession->flow.nBlockedSends >= kBlockedSends && !(pBlock->nFlags & DB_VIDEO))
        return -1;
    uint32_t nSkip = pSession->out.bInterleaved ? 0 : kInterleaveBytes;
    DataBlock *pCopy = MakeDataBlock2(BlockData(pBlock) + nSkip, pBlock->len - nSkip, pBlock->nFlags);
    if (!pCopy) {
        print("MakeDataBlock() failed!\r\n");
        return -1;
    }
    pCopy->nTimestamp = pBlock->nTimestamp;
    BlockListAppend(&pSession->out.Outq, pCopy);
    return nTrack;
}

void QueueBefore(Session *pSession, DataBlock *pBlock, DataBlock *pBefore)
{
    if (pBefore)
        BlockListInsert(&pSession->out.Outq, pBlock, pBefore, pBefore->sent > 0);
    else
        BlockListAppend(&pSession->out.Outq, pBlock);
}

// Whether the player gets key frames, so that playing can go on with one.
static int HasGroups(const Session *pSession)
{
    int nVideo = pSession->pProg->desc.nVideoTrack;
    return nVideo >= 0 && nVideo < pSession->out.nTracks && pSession->tracks[nVideo].bSetUp &&
           (pSession->out.queued.nKeys > 0 || pSession->pProg->cache.held.nKeys > 0);
}

// The first block of media from p on; null when there is none.
static DataBlock *MediaFrom(DataBlock *p)
{
    while (p && !(p->nFlags & DB_MEDIA))
        p = NextBlock(p);
    return p;
}

// How long the media at the head has waited; 0 of a start.
static int32_t WaitedMs(const Session *pSession)
{
    const DataBlock *pHead = MediaFrom(ListFirstOf<DataBlock>(&pSession->out.Outq));
    return pHead && pHead->nSerial != 0 ? ClockDiff(ClockMs(), pHead->nSerial) : 0;
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
    print("PushPacket2SessionQueue(): session->Outq.nItems=%u\r\n", ListCount(&pSession->out.Outq));
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

// The first group that has not begun to leave; null when there is none. A start always counts as begun.
static DataBlock *FirstUnbegun(const Session *pSession)
{
    DataBlock *p = MediaFrom(ListFirstOf<DataBlock>(&pSession->out.Outq));
    if (p && (pSession->flow.nStartHeld > 0 || p->sent > 0))
        p = NextBlock(p);
    while (p && !BlockStartsKey(p))
        p = NextBlock(p);
    return p;
}

static DataBlock *LastGroup(const Session *pSession)
{
    auto *p = reinterpret_cast<DataBlock *>(pSession->out.Outq.pLast);
    while (p && !BlockStartsKey(p))
        p = PrevBlock(p);
    return p;
}

// Drops the media from pFrom up to pUntil (not included; null: to the end). Returns how many groups began.
static uint32_t DropGroups(Session *pSession, DataBlock *pFrom, const DataBlock *pUntil)
{
    uint32_t nBefore = pSession->out.queued.nKeys;
    while (pFrom != pUntil) {
        DataBlock *pNext = NextBlock(pFrom);
        if (pFrom->nFlags & DB_MEDIA)
            BlockListFree(&pSession->out.Outq, pFrom);
        pFrom = pNext;
    }
    return nBefore - pSession->out.queued.nKeys;
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
    DataBlock *pFirst = FirstUnbegun(pSession);
    if (!pFirst) {
        pSession->flow.bSkips = IsEndless(pSession);
        return;
    }
    DataBlock *pNewest = LastGroup(pSession);
    uint32_t nGroups = DropGroups(pSession, pFirst, pNewest);
    if (WaitingBytes(pSession) > kQueueBytes || ClockDiff(ClockMs(), pNewest->nSerial) > kQueueMs) {
        nGroups += DropGroups(pSession, pNewest, nullptr);
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
    const BlockSum *pQueued = &pSession->out.queued;
    int64_t nMost = Megabytes(g_settings.nCacheMegabytes);
    return pQueued->nOthers > kRepliesAbove || (nMost && pQueued->nOtherBytes > nMost);
}

// Whoever plays a recording sees numbers without a hole across pauses and jumps (RFC 2326, appendix B), and
// so does not wait for packets that never come.
static void GiveNumberBack(Session *pSession, const DataBlock *pBlock)
{
    if (!(pBlock->nFlags & DB_MEDIA) || !pSession->pProg || pSession->pProg->bLive)
        return;
    int nTrack = TrackOfBlock(pSession, pBlock);
    if (nTrack >= 0)
        pSession->tracks[nTrack].nNextSeq--;
}

// Drops the blocks that have all of the flags.
static void DropWaiting(Session *pSession, uint32_t nFlags)
{
    auto *p = ListFirstOf<DataBlock>(&pSession->out.Outq);
    while (p) {
        DataBlock *pNext = NextBlock(p);
        if (p->sent == 0 && (p->nFlags & nFlags) == nFlags) {
            GiveNumberBack(pSession, p);
            BlockListFree(&pSession->out.Outq, p);
        }
        p = pNext;
    }
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
    auto *pHead = ListFirstOf<DataBlock>(&pSession->out.Outq);
    if (pHead && pHead->sent == 0)
        BlockListFree(&pSession->out.Outq, pHead);
    QueueDropMedia(pSession);
}

}  // namespace orx
