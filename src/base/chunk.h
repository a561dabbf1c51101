// Memory that a connection receives into, one read behind the other, and in which what was received stays for
// as long as somebody needs a piece of it. No locking: scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

struct Chunk {
    uint32_t nSize = 0;    // bytes, which follow this record
    uint32_t nBlocks = 0;  // DataBlocks with bytes here
    uint32_t nCached = 0;  // of them those in a program's cache
    int bFilled = 1;       // a connection still receives into it
    int bLeft = 0;         // no cache counts it, and blocks keep it
};

// The bytes of all chunks, and of all blocks with bytes of their own, that have left their cache and that
// queues still hold.
int64_t BytesLeft();
void BytesLeftAdd(int64_t nBytes);

inline uint8_t *ChunkBytes(Chunk *pChunk)
{
    return reinterpret_cast<uint8_t *>(pChunk + 1);
}

// A chunk that its maker fills; null without memory. ChunkLeave: it does no longer; the last block frees it,
// or this when there is none. Accepts null.
Chunk *ChunkNew(uint32_t nSize);
void ChunkLeave(Chunk *pChunk);

// A block has bytes here, or had the last time.
inline void ChunkHold(Chunk *pChunk)
{
    pChunk->nBlocks++;
}
void ChunkDrop(Chunk *pChunk);

// A block of it is in a cache, or is no longer. Returns 1 when the cache is to count the whole chunk, or not
// any more.
int ChunkCached(Chunk *pChunk);
int ChunkUncached(Chunk *pChunk);

}  // namespace orx
