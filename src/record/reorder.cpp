#include "record/reorder.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/console.h"

namespace orx {

constexpr int kMostAhead = 3000;   // further on is another count of numbers, as is
constexpr int kMostBehind = -100;  // further back (RFC 3550, appendix A.1)
constexpr uint32_t kSeenBits = 64;
constexpr int kBeforeFirst = 16;  // numbers that the first packet may have overtaken

static ReorderSlot *SlotOf(Reorder *pReorder, uint16_t nNumber)
{
    return &pReorder->slots[nNumber % kReorderPackets];
}

// The number that is due goes by, with its packet or without.
static void StepOn(Reorder *pReorder, int bSeen)
{
    pReorder->nNext++;
    pReorder->nSeen = pReorder->nSeen << 1 | static_cast<uint64_t>(bSeen);
    pReorder->nLost += !bSeen && !pReorder->bBegins;
    pReorder->bBegins &= !bSeen;
}

// Hands on the packet that is due and waits. Returns as the sink.
static int HandOn(Reorder *pReorder, const ReorderSink *pSink)
{
    ReorderSlot *pSlot = SlotOf(pReorder, pReorder->nNext);
    uint8_t *pData = std::exchange(pSlot->pData, nullptr);
    pReorder->nHeld--;
    StepOn(pReorder, 1);
    int bOn = pSink->pfnTake(pSink->pContext, pData, pSlot->nBytes);
    free(pData);
    return bOn;
}

// Hands on what is due and waits, up to the next hole.
static int HandOnRun(Reorder *pReorder, const ReorderSink *pSink)
{
    while (SlotOf(pReorder, pReorder->nNext)->pData)
        if (!HandOn(pReorder, pSink))
            return 0;
    return 1;
}

// Goes on by one number, whether its packet is there or not.
static int PassOne(Reorder *pReorder, const ReorderSink *pSink)
{
    if (SlotOf(pReorder, pReorder->nNext)->pData)
        return HandOn(pReorder, pSink);
    StepOn(pReorder, 0);
    return 1;
}

// Goes on until nNumber is at most nAhead numbers ahead. Where nobody waits any more the rest is one step.
static int PassUntil(Reorder *pReorder, uint16_t nNumber, uint16_t nAhead, const ReorderSink *pSink)
{
    auto nEnd = static_cast<uint16_t>(nNumber - nAhead);
    while (pReorder->nHeld > 0 && pReorder->nNext != nEnd)
        if (!PassOne(pReorder, pSink))
            return 0;
    auto nRest = static_cast<uint16_t>(nEnd - pReorder->nNext);
    pReorder->nNext = nEnd;
    pReorder->nLost += pReorder->bBegins ? 0 : nRest;
    pReorder->nSeen = nRest < kSeenBits ? pReorder->nSeen << nRest : 0;
    return 1;
}

static int Hold(Reorder *pReorder, uint16_t nNumber, const uint8_t *pData, size_t nBytes, uint32_t nNowMs)
{
    ReorderSlot *pSlot = SlotOf(pReorder, nNumber);
    if (pSlot->pData)  // the same once more: two numbers of one slot are never ahead at once
        return 1;
    pSlot->pData = static_cast<uint8_t *>(malloc(nBytes ? nBytes : 1));
    if (!pSlot->pData) {
        print("NOT enough memory to hold a packet!\r\n");
        return 1;
    }
    memcpy(pSlot->pData, pData, nBytes);
    pSlot->nBytes = static_cast<uint32_t>(nBytes);
    pSlot->nCameMs = nNowMs;
    pReorder->nHeld++;
    return 1;
}

static void NoteLate(Reorder *pReorder, int nBehind)
{
    auto nBit = static_cast<uint32_t>(nBehind - 1);
    int bTwice = nBit < kSeenBits && (pReorder->nSeen >> nBit & 1);
    pReorder->nLate += !bTwice;
}

// A number that is far off. Returns 1 when it follows another one like it: the sender counts anew.
static int CountsAnew(Reorder *pReorder, uint16_t nNumber)
{
    int bAnew = pReorder->bStray && pReorder->nStray == nNumber;
    pReorder->bStray = 1;
    pReorder->nStray = static_cast<uint16_t>(nNumber + 1);
    return bAnew;
}

// Begins with nNumber, or one shortly before it. What waits of the count before goes out first.
static int BeginAt(Reorder *pReorder, uint16_t nNumber, const ReorderSink *pSink)
{
    while (pReorder->nHeld > 0)
        if (!PassOne(pReorder, pSink))
            return 0;
    pReorder->bStarted = pReorder->bBegins = 1;
    pReorder->nNext = static_cast<uint16_t>(nNumber - kBeforeFirst);
    pReorder->nSeen = 0;
    return 1;
}

int ReorderPut(Reorder *pReorder, uint16_t nNumber, const uint8_t *pData, size_t nBytes, uint32_t nNowMs,
               const ReorderSink *pSink)
{
    int nAhead = static_cast<int16_t>(nNumber - pReorder->nNext);
    int bFar = pReorder->bStarted && (nAhead > kMostAhead || nAhead < kMostBehind);
    if (bFar && !CountsAnew(pReorder, nNumber)) {
        pReorder->nLate++;
        return 1;
    }
    pReorder->bStray &= bFar;
    if (bFar || !pReorder->bStarted) {
        if (!BeginAt(pReorder, nNumber, pSink))
            return 0;
        nAhead = kBeforeFirst;
        pReorder->bStray = 0;
    }
    if (nAhead < 0) {
        NoteLate(pReorder, -nAhead);
        return 1;
    }
    constexpr int kMost = kReorderPackets - 1;
    if (nAhead > kMost && !(PassUntil(pReorder, nNumber, kMost, pSink) && HandOnRun(pReorder, pSink)))
        return 0;
    if (nNumber != pReorder->nNext)
        return Hold(pReorder, nNumber, pData, nBytes, nNowMs);
    StepOn(pReorder, 1);
    return pSink->pfnTake(pSink->pContext, pData, nBytes) && HandOnRun(pReorder, pSink);
}

// How long the packet that has waited longest does so.
static uint32_t LongestWait(const Reorder *pReorder, uint32_t nNowMs)
{
    uint32_t nMost = 0;
    for (const ReorderSlot &slot : pReorder->slots)
        if (slot.pData && nNowMs - slot.nCameMs > nMost)
            nMost = nNowMs - slot.nCameMs;
    return nMost;
}

int ReorderExpire(Reorder *pReorder, uint32_t nNowMs, const ReorderSink *pSink)
{
    while (pReorder->nHeld > 0 && LongestWait(pReorder, nNowMs) >= kReorderMs) {
        while (!SlotOf(pReorder, pReorder->nNext)->pData)
            StepOn(pReorder, 0);
        if (!HandOnRun(pReorder, pSink))
            return 0;
    }
    return 1;
}

int ReorderDueMs(const Reorder *pReorder, uint32_t nNowMs)
{
    if (pReorder->nHeld == 0)
        return -1;
    uint32_t nWait = LongestWait(pReorder, nNowMs);
    return nWait < kReorderMs ? static_cast<int>(kReorderMs - nWait) : 0;
}

void ReorderReset(Reorder *pReorder)
{
    for (ReorderSlot &slot : pReorder->slots)
        free(slot.pData);
    *pReorder = Reorder();
}

}  // namespace orx
