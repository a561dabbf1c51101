#include "base/chunk.h"

#include <cstdlib>
#include <new>

namespace orx {

static int64_t g_nBytesLeft;

int64_t BytesLeft()
{
    return g_nBytesLeft;
}

void BytesLeftAdd(int64_t nBytes)
{
    g_nBytesLeft += nBytes;
}

static void SetLeft(Chunk *pChunk, int bLeft)
{
    if (pChunk->bLeft != bLeft)
        g_nBytesLeft += bLeft ? pChunk->nSize : -int64_t{pChunk->nSize};
    pChunk->bLeft = bLeft;
}

Chunk *ChunkNew(uint32_t nSize)
{
    void *pMemory = malloc(sizeof(Chunk) + nSize);
    if (!pMemory)
        return nullptr;
    auto *pChunk = new (pMemory) Chunk;
    pChunk->nSize = nSize;
    return pChunk;
}

void ChunkLeave(Chunk *pChunk)
{
    if (!pChunk)
        return;
    pChunk->bFilled = 0;
    if (pChunk->nBlocks == 0)
        free(pChunk);
}

void ChunkDrop(Chunk *pChunk)
{
    if (--pChunk->nBlocks > 0)
        return;
    SetLeft(pChunk, 0);
    if (!pChunk->bFilled)
        free(pChunk);
}

int ChunkCached(Chunk *pChunk)
{
    SetLeft(pChunk, 0);
    return pChunk->nCached++ == 0;
}

int ChunkUncached(Chunk *pChunk)
{
    if (--pChunk->nCached > 0)
        return 0;
    SetLeft(pChunk, 1);  // until its last block is gone, which may be now
    return 1;
}

}  // namespace orx
