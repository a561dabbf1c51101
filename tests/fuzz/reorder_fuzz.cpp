// Datagrams of a pusher: 3 bytes each say by how much the number differs from the one before, and how many ms go by. A
// packet is handed on once at most, in order, and not long after it came.
#include "record/reorder.h"

#include <cstdlib>

#include "fuzz/fuzz.h"

using namespace orx;

namespace {

struct Seen {
    uint32_t nNowMs = 0;
    uint16_t nLast = 0;
    int bAny = 0;
    uint32_t nTaken = 0;
    int nMore = 0;  // the sink wants no more behind so many; negative: it does
};

}  // namespace

static int Take(void *pContext, const uint8_t *pData, size_t nBytes)
{
    auto *pSeen = static_cast<Seen *>(pContext);
    ORX_ASSERT(nBytes == 6, "whole");
    auto nNumber = static_cast<uint16_t>(GetBe(pData, 2));
    uint32_t nWaited = pSeen->nNowMs - GetBe(pData + 2, 4);
    // one that begins anew may go back, by more than what a late one could
    uint32_t nAhead = static_cast<uint16_t>(nNumber - pSeen->nLast);
    ORX_ASSERT(!pSeen->bAny || (nAhead > 0 && nAhead < 0xFFFF - 64), "in order");
    ORX_ASSERT(nWaited <= kReorderMs, "in time");
    pSeen->nLast = nNumber;
    pSeen->bAny = 1;
    pSeen->nTaken++;
    return pSeen->nMore-- != 0;
}

// As the server's timer does. Returns 0 when the sink wants no more.
static int WaitUntil(Reorder *pReorder, uint32_t nEndMs, Seen *pSeen, const ReorderSink *pSink)
{
    for (;;) {
        int nDueMs = ReorderDueMs(pReorder, pSeen->nNowMs);
        if (nDueMs < 0 || static_cast<uint32_t>(nDueMs) > nEndMs - pSeen->nNowMs)
            break;
        pSeen->nNowMs += static_cast<uint32_t>(nDueMs);
        if (!ReorderExpire(pReorder, pSeen->nNowMs, pSink))
            return 0;
    }
    pSeen->nNowMs = nEndMs;
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    Reorder reorder;
    Seen seen;
    ReorderSink sink{Take, &seen};
    ByteReader in{pData, nBytes};
    uint8_t nFirst = static_cast<uint8_t>(ReadBe(&in, 1));
    seen.nMore = nFirst < 64 ? nFirst : -1;
    uint16_t nNumber = 65500;
    uint32_t nPut = 0;
    for (int bGoOn = 1; in.nLeft >= 3 && bGoOn; nPut++) {
        nNumber = static_cast<uint16_t>(nNumber + ReadBe(&in, 2));
        bGoOn = WaitUntil(&reorder, seen.nNowMs + ReadBe(&in, 1), &seen, &sink);
        uint8_t packet[6];
        PutBe(packet, 2, nNumber);
        PutBe(packet + 2, 4, seen.nNowMs);
        if (bGoOn)
            bGoOn = ReorderPut(&reorder, nNumber, Exact(packet, 6).get(), 6, seen.nNowMs, &sink);
        ORX_ASSERT(reorder.nHeld <= kReorderPackets, "what waits has a bound");
    }
    ORX_ASSERT(seen.nTaken <= nPut, "once");
    ReorderReset(&reorder);
    return 0;
}
