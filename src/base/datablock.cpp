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

static void FreeDataBlockItem(void * /*pContext*/, void *pItem)
{
    FreeDataBlock(static_cast<DataBlock *>(pItem));
}

void BlockListInit(List *pList, void *pContext)
{
    ListInit(pList, pContext);
    ListUsedDefMap(pList, 0);
    ListDataProc(pList, FreeDataBlockItem, nullptr);
}

}  // namespace orx
