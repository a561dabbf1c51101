#include "base/datablock.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "base/assertion.h"
#include "base/console.h"

namespace orx {

// A few spare bytes behind the data: the first is the NUL.
static constexpr size_t kTailBytes = 4;

// A record with room for nRoom bytes behind it.
static DataBlock *Make(size_t nRoom, size_t nLen, uint32_t nFlags)
{
    void *pMemory = malloc(sizeof(DataBlock) + nRoom);
    if (!pMemory) {
        print("malloc() failed within MakeDataBlock()!\r\n");
        return nullptr;
    }
    auto *pBlock = new (pMemory) DataBlock;
    pBlock->nFlags = nFlags;
    pBlock->len = static_cast<uint16_t>(nLen);
    pBlock->pData = reinterpret_cast<uint8_t *>(pBlock + 1);
    return pBlock;
}

DataBlock *MakeDataBlock(const void *pData, size_t nLen, int bMedia, int bVideo, int bKey)
{
    return MakeDataBlock2(pData, nLen,
                          (bMedia ? DB_MEDIA : 0U) | (bVideo ? DB_VIDEO : 0U) | (bKey ? DB_KEY : 0U));
}

DataBlock *MakeDataBlock2(const void *pData, size_t nLen, uint32_t nFlags)
{
    ORX_ASSERT(nLen < 65536, "len < 65536");
    DataBlock *pBlock = Make(nLen + kTailBytes, nLen, nFlags);
    if (!pBlock)
        return nullptr;
    if (nLen > 0)
        memcpy(pBlock->pData, pData, nLen);
    pBlock->pData[nLen] = 0;
    return pBlock;
}

DataBlock *MakeChunkBlock(Chunk *pChunk, uint32_t nAt, size_t nLen, uint32_t nFlags)
{
    ORX_ASSERT(nLen < 65536, "len < 65536");
    DataBlock *pBlock = Make(0, nLen, nFlags);
    if (!pBlock)
        return nullptr;
    ChunkHold(pChunk);
    pBlock->pChunk = pChunk;
    pBlock->pData = ChunkBytes(pChunk) + nAt;
    return pBlock;
}

static int HasBytesApart(const DataBlock *pBlock)
{
    return !pBlock->pChunk && pBlock->pData != reinterpret_cast<const uint8_t *>(pBlock + 1);
}

void BlockFreeLast(DataBlock *pBlock)
{
    if (pBlock->pChunk)
        ChunkDrop(pBlock->pChunk);
    else if (HasBytesApart(pBlock))
        free(pBlock->pData);
    if (pBlock->nFlags & DB_LEFT)
        BytesLeftAdd(-int64_t{BlockBytes(pBlock)});
    free(pBlock);
}

void BlockSumTake(BlockSum *pSum, const BlockSum *pGone)
{
    pSum->nBytes -= pGone->nBytes;
    pSum->nOtherBytes -= pGone->nOtherBytes;
    pSum->nOthers -= pGone->nOthers;
    pSum->nKeys -= pGone->nKeys;
    pSum->nTotalled -= pGone->nTotalled;
    if (pSum->pTotal)
        *pSum->pTotal -= pGone->nTotalled;
}

// --- Of a cache ---

// What a block that comes, or goes, takes of the memory.
static int64_t CachedBytes(const DataBlock *pBlock, int bComes)
{
    Chunk *pChunk = pBlock->pChunk;
    if (!pChunk)
        return BlockBytes(pBlock);
    int bWhole = bComes ? ChunkCached(pChunk) : ChunkUncached(pChunk);
    return kBlockOverhead + (bWhole ? int64_t{pChunk->nSize} : 0);
}

static void Enter(void *pUser, DataBlock *pBlock)
{
    int64_t nBytes = CachedBytes(pBlock, 1);
    BlockCount(static_cast<BlockSum *>(pUser), pBlock->nFlags, nBytes, nBytes, 1);
}

static void Leave(void *pUser, DataBlock *pBlock)
{
    int64_t nBytes = CachedBytes(pBlock, 0);
    BlockCount(static_cast<BlockSum *>(pUser), pBlock->nFlags, nBytes, nBytes, -1);
}

static void FreeCached(void *pUser, void *pItem)
{
    auto *pBlock = static_cast<DataBlock *>(pItem);
    Leave(pUser, pBlock);
    if (pBlock->nRefs > 1 && !pBlock->pChunk) {
        pBlock->nFlags |= DB_LEFT;
        BytesLeftAdd(BlockBytes(pBlock));
    }
    FreeDataBlock(pBlock);
}

void BlockListInit(List *pList, BlockSum *pSum)
{
    ListInit(pList, pSum);
    ListUsedDefMap(pList, 0);
    ListDataProc(pList, FreeCached, nullptr);
}

int BlockListAppend(List *pList, DataBlock *pBlock)
{
    pBlock->nFlags |= DB_CACHED;
    Enter(pList->pUser, pBlock);
    return ListAppend(pList, pBlock);
}

void BlockListFree(List *pList, DataBlock *pBlock)
{
    ORX_ASSERT(pBlock->node.pList == pList, "p->pList==pList");
    ListUnlink(pList, &pBlock->node, 0);
    FreeCached(pList->pUser, pBlock);
}

void BlockListCopyOut(List *pList, DataBlock *pBlock)
{
    if (!pBlock->pChunk)
        return;
    auto *pBytes = static_cast<uint8_t *>(malloc(pBlock->len + kTailBytes));
    if (!pBytes)
        return;
    memcpy(pBytes, pBlock->pData, pBlock->len);
    pBytes[pBlock->len] = 0;
    Leave(pList->pUser, pBlock);
    ChunkDrop(pBlock->pChunk);
    pBlock->pChunk = nullptr;
    pBlock->pData = pBytes;
    Enter(pList->pUser, pBlock);
}

}  // namespace orx
