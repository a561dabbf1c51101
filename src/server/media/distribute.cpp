#include "server/media/distribute.h"

#include <sys/socket.h>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/media/outqueue.h"
#include "server/media/recordcontrol.h"
#include "server/media/rtcp.h"
#include "server/media/send.h"
#include "server/core/settings.h"

namespace orx {

// Key frames kept from before the span: what a quarter of the longest span (a minute) holds at one a second.
static constexpr uint32_t kMaxKeptKeys = 15;
static constexpr uint32_t kMaxCachedBlocks = 150000;  // a minute and a quarter of 20 Mbit/s

static int BlockMarker(const DataBlock *pBlock)
{
    return BlockData(pBlock)[kInterleaveBytes + 1] >> 7;
}

// Sends what waits, and a report when one is due. 0 when the player is to be given up.
static int Flush(Session *pSession)
{
    if (!SendDataEx(pSession, nullptr, 1) ||
        ListCount(&pSession->out.Outq) > kGiveUp + pSession->output.nStartBlocks)
        return 0;
    if (pSession->nFlags & SESSION_RTCP)
        SendRtcpReport(pSession);
    return 1;
}

// Returns 0 when that ended the session.
static int PushPacket2SessionQueue(Session *pSession, const DataBlock *pBlock)
{
    if (QueueCopy(pSession, pBlock) < 0)
        return 1;
    unsigned nItems = ListCount(&pSession->out.Outq);
    if (nItems <= kFlushAtOnce)
        return 1;
    print("PushPacket2SessionQueue(): session->Outq.nItems=%u\r\n", nItems);
    if (Flush(pSession))
        return 1;
    print("PushPacket2SessionQueue()->DestroySession()!\r\n");
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
    auto *pWaiting = ListFirstOf<DataBlock>(&pSession->out.Outq);
    int bMidBlock = pWaiting && pWaiting->sent > 0;
    ssize_t n =
        bMidBlock ? -1 : send(pSession->peer.Reply->fd, BlockData(pBlock) + kHead, nLen, MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(nLen))
        return;
    print("SendEventMsg2SubscribeClient()->DestroySession()!\r\n");
    SessionEnd(pSession);
}

static void FanOut(Program *pProg, const DataBlock *pBlock)
{
    int bEvent = pProg->desc.nDataTrack >= 0 && BlockData(pBlock)[1] == 2 * pProg->desc.nDataTrack;
    Session *pNext;
    for (Session *p = FirstPlayer(pProg); p; p = pNext) {
        pNext = NextPlayer(p);
        if (p->nState == STATE_PLAYING && !PushPacket2SessionQueue(p, pBlock))
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

// Frees the blocks from pFrom up to pUntil (not included; null: to the end).
static void FreeUncached(Program *pProg, DataBlock *pFrom, const DataBlock *pUntil)
{
    while (pFrom != pUntil) {
        DataBlock *pNext = NextBlock(pFrom);
        ListRemove(&pProg->cache.Pktq, pFrom, 1);
        pFrom = pNext;
    }
}

// The first key frame within the span of the newest packet that follows the end of a frame within the span.
static DataBlock *FindKeyInSpan(const Program *pProg, DataBlock *pFrom, uint32_t nNow)
{
    int bFrameEnded = 0;
    for (DataBlock *p = pFrom; p; p = NextBlock(p)) {
        if (!(p->nFlags & DB_VIDEO) ||
            ClockDiff(nNow, p->nTimestamp) >= static_cast<int32_t>(pProg->cache.nCacheLimit))
            continue;
        if (bFrameEnded && (p->nFlags & DB_KEY))
            return p;
        bFrameEnded |= BlockMarker(p);
    }
    return nullptr;
}

// Without a key frame to start from, only whole frames within the span stay.
static void TrimWithoutKey(Program *pProg, DataBlock *pFrom, uint32_t nNow)
{
    print("Warning: Could NOT find the next KeyFrame to remove the items that's before it.\r\n");
    int bFrameEnded = 0;
    DataBlock *p = pFrom;
    while (p && !(bFrameEnded &&
                  ClockDiff(nNow, p->nTimestamp) < static_cast<int32_t>(pProg->cache.nCacheLimit))) {
        if (p->nFlags & DB_VIDEO)
            bFrameEnded = BlockMarker(p);
        p = NextBlock(p);
    }
    FreeUncached(pProg, pFrom, p);
    pProg->cache.pCacheCursor = p;
}

// Of the blocks from pFrom up to the key frame pKey, only whole key frames stay.
static void KeepKeyFrames(Program *pProg, DataBlock *pFrom, DataBlock *pKey)
{
    int bKept = 0;
    uint32_t nKeptTime = 0;
    while (pFrom != pKey) {
        DataBlock *pNext = NextBlock(pFrom);
        int bVideo = (pFrom->nFlags & DB_VIDEO) != 0;
        if (bVideo && (pFrom->nFlags & DB_KEY)) {
            bKept = 1;
            nKeptTime = pFrom->nTimestamp;
            pProg->cache.nKeptKeys++;
        } else if (!bVideo || !bKept || pFrom->nTimestamp != nKeptTime) {
            ListRemove(&pProg->cache.Pktq, pFrom, 1);
        }
        pFrom = pNext;
    }
}

static void LimitKeptKeys(Program *pProg)
{
    while (pProg->cache.nKeptKeys > kMaxKeptKeys) {
        auto *pFirst = ListFirstOf<DataBlock>(&pProg->cache.Pktq);
        DataBlock *p = pFirst;
        while (p && p != pProg->cache.pCacheCursor && p->nTimestamp == pFirst->nTimestamp)
            p = NextBlock(p);
        FreeUncached(pProg, pFirst, p);
        pProg->cache.nKeptKeys--;
    }
}

// Whether a pusher's time has gone back so far, or stood still for so long, that trimming would wait for it
// while the cache takes all memory.
static int HasRunAway(const Program *pProg, int32_t nAge, int32_t nGrowLimit)
{
    return g_settings.bSurvivePeerFaults &&
           (nAge < -nGrowLimit || ListCount(&pProg->cache.Pktq) > kMaxCachedBlocks);
}

// Begins the cache anew with its newest block.
static void RestartCache(Program *pProg)
{
    print("Program(%s): its time stamps have run away, the cache begins anew.\r\n", pProg->szName);
    FreeUncached(pProg, ListFirstOf<DataBlock>(&pProg->cache.Pktq),
                 reinterpret_cast<DataBlock *>(pProg->cache.Pktq.pLast));
    pProg->cache.pCacheCursor = nullptr;
    pProg->cache.nKeptKeys = 0;
}

static void TrimCache(Program *pProg, uint32_t nNow)
{
    auto *pStart = pProg->cache.pCacheCursor;
    if (!pStart) {
        pStart = ListFirstOf<DataBlock>(&pProg->cache.Pktq);
        pProg->cache.nKeptKeys = 0;  // those kept before count again as they are passed
    }
    int32_t nAge = ClockDiff(nNow, pStart->nTimestamp);
    auto nGrowLimit = static_cast<int32_t>(pProg->cache.nCacheLimit + pProg->cache.nCacheLimit / 4);
    if (HasRunAway(pProg, nAge, nGrowLimit)) {
        RestartCache(pProg);
        return;
    }
    if (nAge <= nGrowLimit)
        return;
    DataBlock *pKey = FindKeyInSpan(pProg, pStart, nNow);
    if (!pKey) {
        TrimWithoutKey(pProg, pStart, nNow);
        return;
    }
    pProg->cache.pCacheCursor = pKey;
    KeepKeyFrames(pProg, pStart, pKey);
    LimitKeptKeys(pProg);
}

void CachePacketEx(Program *pProg, DataBlock *pBlock)
{
    int bRet = ListAppend(&pProg->cache.Pktq, pBlock);
    ORX_ASSERT(bRet, "bRet");
    pBlock->nSerial = pProg->cache.nSerial;
    FanOut(pProg, pBlock);
    LearnSsrc(pProg, pBlock);
    RecordersWrite(pProg, pBlock);
    pProg->cache.nSerial++;
    TrimCache(pProg, pBlock->nTimestamp);
}

static void PrintCounts(const Program *pProg, const Session *pSession)
{
    print("FillBufferAtFirstPlay(Cache Packets:In=%u, Out=%u)\r\n", ListCount(&pProg->cache.Pktq),
          ListCount(&pSession->out.Outq));
}

// The start of the newest key frame in the cache, or null.
static DataBlock *FindLastKey(const Program *pProg)
{
    auto *p = reinterpret_cast<DataBlock *>(pProg->cache.Pktq.pLast);
    while (p && (p->nFlags & (DB_VIDEO | DB_KEY)) != (DB_VIDEO | DB_KEY))
        p = PrevBlock(p);
    return p;
}

int FillBufferAtFirstPlay(Session *pSession)
{
    Program *pProg = pSession->pProg;
    if (!pProg)
        return 1;
    DataBlock *p = FindLastKey(pProg);
    if (!p) {
        if (ListCount(&pProg->cache.Pktq) > 0)
            print("FillBufferAtFirstPlay() did not find the next KeyFrame to fill packet!\r\n");
        PrintCounts(pProg, pSession);
        return 0;
    }
    unsigned nQueued = 0;
    for (; p; p = NextBlock(p))
        nQueued += QueueCopy(pSession, p) >= 0;
    PrintCounts(pProg, pSession);
    SendStartBurst(pSession, nQueued);
    return nQueued > 0;
}

void FlushPlayers(Program *pProg)
{
    Session *pNext;
    for (Session *p = FirstPlayer(pProg); p; p = pNext) {
        pNext = NextPlayer(p);
        if (p->nState != STATE_PLAYING || ListCount(&p->out.Outq) <= kFlushAfterRead)
            continue;
        if (!SendDataEx(p, nullptr, 1))
            SessionEnd(p);
        else if (p->nFlags & SESSION_RTCP)
            SendRtcpReport(p);
    }
}

}  // namespace orx
