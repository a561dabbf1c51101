#include "server/media/cache.h"

#include <algorithm>

#include "base/console.h"
#include "runtime/clock.h"
#include "server/core/settings.h"

namespace orx {

// Key frames kept from before the span: what a quarter of the longest span (a minute) holds at one a second.
static constexpr uint32_t kMaxKeptKeys = 15;
static constexpr uint32_t kLongGroupMegabytes = 32;  // of a group longer than the span, without a bound
static constexpr uint32_t kRatePeriodMs = 1000;
static constexpr uint32_t kMaxCachedBlocks = 150000;  // a minute and a quarter of 20 Mbit/s

static int BlockMarker(const DataBlock *pBlock)
{
    return BlockData(pBlock)[kInterleaveBytes + 1] >> 7;
}

static DataBlock *LastBlock(const Program *pProg)
{
    return reinterpret_cast<DataBlock *>(pProg->cache.Pktq.pLast);
}

static void FreeBlock(PacketCache *pCache, DataBlock *pBlock)
{
    if (ClockDiff(pBlock->nSerial + 1, pCache->nWhole) > 0)
        pCache->nWhole = pBlock->nSerial + 1;
    if (pBlock == pCache->pLastKey)
        pCache->pLastKey = nullptr;
    BlockListFree(&pCache->Pktq, pBlock);
}

// Frees the blocks from pFrom up to pUntil (not included; null: to the end).
static void FreeUncached(Program *pProg, DataBlock *pFrom, const DataBlock *pUntil)
{
    while (pFrom != pUntil) {
        DataBlock *pNext = NextBlock(pFrom);
        FreeBlock(&pProg->cache, pFrom);
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

// Encoders put half a minute and more between key frames: all since the last one stays, up to the bound of
// the cache, so that a player begins with a whole picture.
static int KeepsLongGroup(const Program *pProg)
{
    uint32_t nMegabytes = g_settings.nCacheMegabytes ? g_settings.nCacheMegabytes : kLongGroupMegabytes;
    return pProg->standards.bPushers && pProg->cache.pLastKey &&
           pProg->cache.held.nBytes <= Megabytes(nMegabytes);
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
            BlockListCopyOut(&pProg->cache.Pktq, pFrom);
        } else if (!bVideo || !bKept || pFrom->nTimestamp != nKeptTime) {
            FreeBlock(&pProg->cache, pFrom);
        } else {
            BlockListCopyOut(&pProg->cache.Pktq, pFrom);
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
    FreeUncached(pProg, ListFirstOf<DataBlock>(&pProg->cache.Pktq), LastBlock(pProg));
    pProg->cache.pCacheCursor = nullptr;
    pProg->cache.nKeptKeys = 0;
}

// How much is pushed, by the time of its stamps: of each second, and less from the seconds before.
static void NoteRate(PacketCache *pCache, const DataBlock *pBlock)
{
    pCache->nRateBytes += pBlock->len;
    uint32_t nMs = pBlock->nTimestamp - pCache->nRateFrom;
    if (nMs < kRatePeriodMs)
        return;
    pCache->nBytesPerMs = std::max(pCache->nRateBytes / nMs, pCache->nBytesPerMs / 8 * 7);
    pCache->nRateFrom = pBlock->nTimestamp;
    pCache->nRateBytes = 0;
}

void CacheNote(PacketCache *pCache, DataBlock *pBlock)
{
    if (BlockStartsKey(pBlock))
        pCache->pLastKey = pBlock;
    NoteRate(pCache, pBlock);
}

void CacheTrim(Program *pProg, uint32_t nNow)
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
    int bLong = KeepsLongGroup(pProg);
    if (bLong && pStart == pProg->cache.pLastKey)
        return;
    DataBlock *pKey = FindKeyInSpan(pProg, pStart, nNow);
    if (!pKey && bLong)
        pKey = pProg->cache.pLastKey;
    if (!pKey) {
        TrimWithoutKey(pProg, pStart, nNow);
        return;
    }
    pProg->cache.pCacheCursor = pKey;
    KeepKeyFrames(pProg, pStart, pKey);
    LimitKeptKeys(pProg);
}

static int StartsGroup(const DataBlock *pBlock)
{
    return (pBlock->nFlags & DB_KEY) != 0;
}

// Frees the first block. What lies before the cursor are kept key frames; without a cursor the next trim
// begins with the first block that is there.
static void FreeFirst(PacketCache *pCache)
{
    auto *pFirst = ListFirstOf<DataBlock>(&pCache->Pktq);
    if (pFirst == pCache->pCacheCursor)
        pCache->pCacheCursor = nullptr;
    else if (pCache->pCacheCursor && StartsGroup(pFirst))
        pCache->nKeptKeys--;
    FreeBlock(pCache, pFirst);
}

// Frees the oldest group; of the last one its oldest packet. The cache holds more than one.
static void FreeOldest(PacketCache *pCache)
{
    auto *pFirst = ListFirstOf<DataBlock>(&pCache->Pktq);
    int bGroup = pCache->held.nKeys > (StartsGroup(pFirst) ? 1U : 0U);
    do
        FreeFirst(pCache);
    while (bGroup && !StartsGroup(ListFirstOf<DataBlock>(&pCache->Pktq)));
}

// The program whose cache takes most, of those that have something to give; null when there is none.
static Program *LargestCache()
{
    Program *pMost = nullptr;
    for (Program *p = FirstProgram(); p; p = NextProgram(p))
        if (ListCount(&p->cache.Pktq) > 1 && (!pMost || p->cache.held.nBytes > pMost->cache.held.nBytes))
            pMost = p;
    return pMost;
}

void CacheBound(Program *pProg)
{
    int64_t nMost = Megabytes(g_settings.nCacheMegabytes);
    while (nMost && pProg->cache.held.nBytes > nMost && ListCount(&pProg->cache.Pktq) > 1)
        FreeOldest(&pProg->cache);
    int64_t nMostTotal = Megabytes(g_settings.nCacheMegabytesTotal);
    while (nMostTotal && g_server.nCachedBytes > nMostTotal) {
        Program *pMost = LargestCache();
        if (!pMost)
            return;
        FreeOldest(&pMost->cache);
    }
}

DataBlock *CacheLastKey(const Program *pProg)
{
    if (pProg->cache.pLastKey || pProg->cache.held.nKeys == 0)
        return pProg->cache.pLastKey;
    auto *p = LastBlock(pProg);
    while (p && !BlockStartsKey(p))
        p = PrevBlock(p);
    return p;
}

}  // namespace orx
