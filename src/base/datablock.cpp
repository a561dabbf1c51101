#include "base/datablock.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "base/assertion.h"
#include "base/console.h"

namespace orx {

// A few spare bytes behind the data: the first is the NUL.
static constexpr size_t kTailBytes = 4;

static DataBlock *Make(const void *pData, size_t nLen, uint32_t nFlags)
{
    void *pMemory = malloc(sizeof(DataBlock) + nLen + kTailBytes);
    if (!pMemory) {
        print("malloc() failed within MakeDataBlock()!\r\n");
        return nullptr;
    }
    auto *pBlock = new (pMemory) DataBlock;
    pBlock->nFlags = nFlags;
    pBlock->len = static_cast<uint16_t>(nLen);
    if (nLen > 0)
        memcpy(BlockData(pBlock), pData, nLen);
    BlockData(pBlock)[nLen] = 0;
    return pBlock;
}

DataBlock *MakeDataBlock(const void *pData, size_t nLen, int bMedia, int bVideo, int bKey)
{
    ORX_ASSERT(nLen < 65536, "len < 65536");
    return Make(pData, nLen, (bMedia ? DB_MEDIA : 0U) | (bVideo ? DB_VIDEO : 0U) | (bKey ? DB_KEY : 0U));
}

DataBlock *MakeDataBlock2(const void *pData, size_t nLen, uint32_t nFlags)
{
    ORX_ASSERT(nLen < 65536, "len < 65536");
    return Make(pData, nLen, nFlags);
}

void FreeDataBlock(DataBlock *pBlock)
{
    free(pBlock);
}

// nSign 1: the block comes, -1: it goes.
static inline void Count(void *pUser, const DataBlock *pBlock, int nSign)
{
    auto *pSum = static_cast<BlockSum *>(pUser);
    if (!pSum)
        return;
    int64_t nBytes = nSign * static_cast<int64_t>(BlockBytes(pBlock));
    pSum->nBytes += nBytes;
    if (pSum->pTotal && (pBlock->nFlags & DB_MEDIA))
        *pSum->pTotal += nBytes;
    if ((pBlock->nFlags & (DB_MEDIA | DB_KEY)) == DB_MEDIA || (pBlock->nFlags & DB_QUESTION))
        return;
    if (pBlock->nFlags & DB_MEDIA) {
        pSum->nKeys += static_cast<uint32_t>(nSign);
        return;
    }
    pSum->nOtherBytes += nBytes;
    pSum->nOthers += static_cast<uint32_t>(nSign);
}

static void FreeDataBlockItem(void *pUser, void *pItem)
{
    auto *pBlock = static_cast<DataBlock *>(pItem);
    Count(pUser, pBlock, -1);
    FreeDataBlock(pBlock);
}

void BlockListInit(List *pList, BlockSum *pSum)
{
    ListInit(pList, pSum);
    ListUsedDefMap(pList, 0);
    ListDataProc(pList, FreeDataBlockItem, nullptr);
}

int BlockListAppend(List *pList, DataBlock *pBlock)
{
    Count(pList->pUser, pBlock, 1);
    return ListAppend(pList, pBlock);
}

void BlockListFree(List *pList, DataBlock *pBlock)
{
    ORX_ASSERT(pBlock->node.pList == pList, "p->pList==pList");
    ListUnlink(pList, &pBlock->node, 0);
    FreeDataBlockItem(pList->pUser, pBlock);
}

int BlockListInsert(List *pList, DataBlock *pBlock, DataBlock *pReferer, int bAfter)
{
    Count(pList->pUser, pBlock, 1);
    return ListInsert(pList, pBlock, pReferer, bAfter);
}

}  // namespace orx
