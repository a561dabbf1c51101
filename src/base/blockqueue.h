// What waits to leave for one peer: references to blocks, in a ring that grows. No locking: scheduler thread
// only.
#pragma once

#include <cstdint>

#include "base/datablock.h"

namespace orx {

struct BlockRef {
    DataBlock *pBlock = nullptr;  // held
    uint32_t nClock = 0;          // of a live player's media ClockMs when it was queued, or 0
    uint16_t nSent = 0;           // bytes of RefData that have left
    uint8_t nFrom = 0;            // bytes of the block's head that are not for this peer
    int8_t nTrack = -1;  // of media its track, where whoever queued it has looked; -1: its payload type tells
};
static_assert(sizeof(BlockRef) <= 16);

// What is to be sent of a block, RefLen bytes.
inline const uint8_t *RefData(const BlockRef *pRef)
{
    return pRef->pBlock->pData + pRef->nFrom;
}
inline uint32_t RefLen(const BlockRef *pRef)
{
    return pRef->pBlock->len - uint32_t{pRef->nFrom};
}
inline uint32_t RefFlags(const BlockRef *pRef)
{
    return pRef->pBlock->nFlags;
}

// What a reference counts in its queue: as much as a block of its own would, so that a bound is one of media,
// however many share it.
inline uint32_t RefBytes(const BlockRef *pRef)
{
    return kBlockOverhead + RefLen(pRef);
}

// What it alone takes of the memory: of a cached packet the bytes are the cache's, or count as left (see
// BytesLeft).
inline int64_t RefOwnBytes(const BlockRef *pRef)
{
    return RefFlags(pRef) & DB_CACHED ? int64_t{sizeof(BlockRef)} : int64_t{RefBytes(pRef)};
}

constexpr uint32_t kQueueEnd = UINT32_MAX;  // as a place: behind the last one

struct BlockQueue {
    BlockRef *pRing = nullptr;  // owned
    uint32_t nRoom = 0;         // of the ring: 0 or a power of two
    uint32_t nFirst = 0;        // where the first one is
    uint32_t nItems = 0;
    BlockSum sum;  // what they come to. *pTotal gets the memory that they alone take
};

// The reference at a place, 0 the first; the place is less than nItems.
inline BlockRef *QueueAt(const BlockQueue *pQueue, uint32_t nAt)
{
    return &pQueue->pRing[(pQueue->nFirst + nAt) & (pQueue->nRoom - 1)];
}
// The first one; null when there is none.
inline BlockRef *QueueFirst(const BlockQueue *pQueue)
{
    return pQueue->nItems > 0 ? QueueAt(pQueue, 0) : nullptr;
}

// Puts a reference, which the queue holds from here on, at the end, or at a place up to nItems: those from
// there on move up. Places and pointers into the queue count until the next such call. Returns where it is,
// or null without memory, which is printed: it is given back then.
int QueueGrow(BlockQueue *pQueue);
inline BlockRef *QueueAppend(BlockQueue *pQueue, BlockRef ref)
{
    if (pQueue->nItems == pQueue->nRoom && !QueueGrow(pQueue)) {
        FreeDataBlock(ref.pBlock);
        return nullptr;
    }
    BlockRef *pRef = QueueAt(pQueue, pQueue->nItems++);
    *pRef = ref;
    BlockCount(&pQueue->sum, RefFlags(pRef), RefBytes(pRef), RefOwnBytes(pRef), 1);
    return pRef;
}
BlockRef *QueueInsert(BlockQueue *pQueue, uint32_t nAt, BlockRef ref);

// Has the one at a place hold a block of its own, which may be changed. Returns 1, or 0 without memory.
int QueueOwn(BlockQueue *pQueue, uint32_t nAt);

// Gives back the first nCount; the one at a place; all.
void QueueTake(BlockQueue *pQueue, uint32_t nCount);
void QueueRemove(BlockQueue *pQueue, uint32_t nAt);
void QueueEmpty(BlockQueue *pQueue);

// Gives back those from a place up to another that bDrop(ref) is said of.
template <typename Drop>
void QueueDropIf(BlockQueue *pQueue, uint32_t nFrom, uint32_t nUntil, Drop bDrop)
{
    uint32_t nTo = nFrom;
    for (uint32_t i = nFrom; i < pQueue->nItems; i++) {
        BlockRef *pRef = QueueAt(pQueue, i);
        if (i < nUntil && bDrop(pRef)) {
            BlockCount(&pQueue->sum, RefFlags(pRef), RefBytes(pRef), RefOwnBytes(pRef), -1);
            FreeDataBlock(pRef->pBlock);
        } else {
            *QueueAt(pQueue, nTo++) = *pRef;
        }
    }
    pQueue->nItems = nTo < pQueue->nItems ? nTo : pQueue->nItems;
}

}  // namespace orx
