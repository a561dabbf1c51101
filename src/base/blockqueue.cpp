#include "base/blockqueue.h"

#include <cstdlib>
#include <utility>

#include "base/assertion.h"
#include "base/console.h"

namespace orx {

constexpr uint32_t kLeastRoom = 16;
constexpr uint32_t kKeptRoom = 64;  // of an empty queue: a kilobyte

int QueueGrow(BlockQueue *pQueue)
{
    uint32_t nRoom = pQueue->nRoom ? 2 * pQueue->nRoom : kLeastRoom;
    auto *pRing = static_cast<BlockRef *>(malloc(nRoom * sizeof(BlockRef)));
    if (!pRing) {
        print("malloc() failed within QueueGrow()!\r\n");
        return 0;
    }
    for (uint32_t i = 0; i < pQueue->nItems; i++)
        pRing[i] = *QueueAt(pQueue, i);
    free(pQueue->pRing);
    pQueue->pRing = pRing;
    pQueue->nRoom = nRoom;
    pQueue->nFirst = 0;
    return 1;
}

BlockRef *QueueInsert(BlockQueue *pQueue, uint32_t nAt, BlockRef ref)
{
    ORX_ASSERT(nAt <= pQueue->nItems, "nAt <= nItems");
    if (!QueueAppend(pQueue, ref))
        return nullptr;
    if (nAt < pQueue->nItems / 2) {  // a reply stands before a whole start: those before it move down
        pQueue->nFirst--;
        for (uint32_t i = 0; i < nAt; i++)
            *QueueAt(pQueue, i) = *QueueAt(pQueue, i + 1);
    } else {
        for (uint32_t i = pQueue->nItems - 1; i > nAt; i--)
            *QueueAt(pQueue, i) = *QueueAt(pQueue, i - 1);
    }
    *QueueAt(pQueue, nAt) = ref;
    return QueueAt(pQueue, nAt);
}

int QueueOwn(BlockQueue *pQueue, uint32_t nAt)
{
    BlockRef *pRef = QueueAt(pQueue, nAt);
    const DataBlock *pOld = pRef->pBlock;
    DataBlock *pOwn = MakeDataBlock2(pOld->pData, pOld->len, pOld->nFlags & ~(DB_CACHED | DB_LEFT));
    if (!pOwn)
        return 0;
    pOwn->nTimestamp = pOld->nTimestamp;
    pOwn->nSerial = pOld->nSerial;
    BlockCount(&pQueue->sum, RefFlags(pRef), RefBytes(pRef), RefOwnBytes(pRef), -1);
    FreeDataBlock(std::exchange(pRef->pBlock, pOwn));
    BlockCount(&pQueue->sum, RefFlags(pRef), RefBytes(pRef), RefOwnBytes(pRef), 1);
    return 1;
}

void QueueTake(BlockQueue *pQueue, uint32_t nCount)
{
    ORX_ASSERT(nCount <= pQueue->nItems, "nCount <= nItems");
    BlockSum gone;
    for (uint32_t i = 0; i < nCount; i++) {
        const BlockRef *pRef = QueueAt(pQueue, i);
        BlockCount(&gone, RefFlags(pRef), RefBytes(pRef), RefOwnBytes(pRef), 1);
        FreeDataBlock(pRef->pBlock);
    }
    BlockSumTake(&pQueue->sum, &gone);
    pQueue->nFirst += nCount;
    pQueue->nItems -= nCount;
    if (pQueue->nItems == 0 && pQueue->nRoom > kKeptRoom) {
        free(pQueue->pRing);
        pQueue->pRing = nullptr;
        pQueue->nRoom = 0;
    }
}

void QueueRemove(BlockQueue *pQueue, uint32_t nAt)
{
    QueueDropIf(pQueue, nAt, nAt + 1, [](const BlockRef *) { return 1; });
}

void QueueEmpty(BlockQueue *pQueue)
{
    QueueTake(pQueue, pQueue->nItems);
    free(pQueue->pRing);
    pQueue->pRing = nullptr;
    pQueue->nRoom = 0;
}

}  // namespace orx
