// Packets that a network has brought out of order, put in order again by their 16-bit numbers (RFC 3550,
// section 5.1). What comes in order is handed on as it is, without a copy. Bounded: at most kReorderPackets
// wait, and no longer than kReorderMs. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr uint32_t kReorderPackets = 32;
constexpr uint32_t kReorderMs = 50;

// Gets each packet once, in order. Returns 0 when nothing more is wanted: the record may be gone then.
struct ReorderSink {
    int (*pfnTake)(void *pContext, const uint8_t *pData, size_t nBytes) = nullptr;
    void *pContext = nullptr;
};

struct ReorderSlot {
    uint8_t *pData = nullptr;  // owned, from malloc; null: nobody waits here
    uint32_t nBytes = 0;
    uint32_t nCameMs = 0;
};

struct Reorder {
    int bStarted = 0;                    // a packet has come; the next is set
    uint16_t nNext = 0;                  // number of the packet that is due
    int bBegins = 0;                     // nothing was handed on since it began: what is missing is not lost
    uint64_t nSeen = 0;                  // bit k: that of number nNext - 1 - k was handed on
    uint32_t nHeld = 0;                  // how many wait
    ReorderSlot slots[kReorderPackets];  // that of number n waits in n % kReorderPackets
    uint16_t nStray = 0;                 // with bStray: the number behind the last one that was far off
    int bStray = 0;
    uint32_t nLate = 0;  // came behind their time, and were dropped
    uint32_t nLost = 0;  // were not there at their time, the late ones included
};

// Takes a packet of that number. Packets that were handed on already, or are too late, are dropped; one that
// is far off only counts once a second one follows it, and then all begins anew there. The first one waits,
// too, as it may have overtaken others. nNowMs: any clock that wraps at 32 bits. Returns 1, or 0 when the
// sink wanted no more.
int ReorderPut(Reorder *pReorder, uint16_t nNumber, const uint8_t *pData, size_t nBytes, uint32_t nNowMs,
               const ReorderSink *pSink);

// Hands on what has waited for its time, without those that it waited for. Results as ReorderPut.
int ReorderExpire(Reorder *pReorder, uint32_t nNowMs, const ReorderSink *pSink);

// In how many ms the first of those that wait has waited for its time; -1 when none waits.
int ReorderDueMs(const Reorder *pReorder, uint32_t nNowMs);

// Frees what waits; the record can be used again.
void ReorderReset(Reorder *pReorder);

}  // namespace orx
