// One packet or one reply text: a record with its flags and times, and bytes that lie behind it or in the
// chunk that they were received into. Held once, whoever waits for it: counted by reference. No locking:
// scheduler thread only, but for blocks that their maker alone has.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/chunk.h"
#include "base/linkedlist.h"

namespace orx {

enum : uint32_t {
    DB_MEDIA = 1,     // an RTP media packet
    DB_KEY = 2,       // start of a key frame; set for RTCP reports as well
    DB_VIDEO = 4,     // a video packet
    DB_QUESTION = 8,  // a player's request on its way to the pusher (see questions.h)
    DB_JUMP = 16,     // the stamps of its track jump with this packet
    DB_SPLIT = 32,    // and are the first of the program that do: recordings go on in a new file
    DB_CACHED = 64,   // it is or was in a program's cache, which counts its memory
    DB_LEFT = 128,    // it was, and has bytes of its own (see BytesLeft)
};
constexpr uint32_t kBlockTrackShift = 8;  // from this bit on: 1 + its track; 0 when its payload type tells

struct DataBlock {
    ListNode node;        // first, so that lists use the default map mode 0
    uint32_t nFlags = 0;  // DB_...
    uint16_t len = 0;     // bytes of data
    uint32_t nRefs = 1;   // who holds it: its maker, or the list that took it from there, and queues
    // Media time in milliseconds, equal for all packets of one frame; of a question ClockMs when it was
    // asked.
    uint32_t nTimestamp = 0;
    // The program's packet number when the block was cached; of a question the handle of who asks.
    uint32_t nSerial = 0;
    Chunk *pChunk = nullptr;   // that the bytes are in; null: they are the block's own
    uint8_t *pData = nullptr;  // not to be changed once a queue holds the block
};
static_assert(offsetof(DataBlock, node) == 0, "lists map a block to its node at the very start");

// Whether a picture that can be decoded by itself begins with the block.
inline int BlockStartsKey(const DataBlock *pBlock)
{
    return (pBlock->nFlags & (DB_VIDEO | DB_KEY)) == (DB_VIDEO | DB_KEY);
}

// The track that is noted with the block, -1 for none.
inline int BlockTrack(const DataBlock *pBlock)
{
    return static_cast<int>(pBlock->nFlags >> kBlockTrackShift) - 1;
}

// The data of a block: len bytes, and a NUL unless they are in a chunk.
inline uint8_t *BlockData(DataBlock *pBlock)
{
    return pBlock->pData;
}
inline const uint8_t *BlockData(const DataBlock *pBlock)
{
    return pBlock->pData;
}

// The neighbours of a block in its list; null at the ends.
inline DataBlock *NextBlock(const DataBlock *pBlock)
{
    return reinterpret_cast<DataBlock *>(pBlock->node.pNext);
}
inline DataBlock *PrevBlock(const DataBlock *pBlock)
{
    return reinterpret_cast<DataBlock *>(pBlock->node.pPrev);
}

// Makes a block with a copy of nLen (below 65536, an assertion) bytes of pData; null when memory runs out,
// which is printed. The caller holds the only reference, and gives it to a list or queue, or back with
// FreeDataBlock.
DataBlock *MakeDataBlock(const void *pData, size_t nLen, int bMedia, int bVideo, int bKey);

// The same with the flags word given.
DataBlock *MakeDataBlock2(const void *pData, size_t nLen, uint32_t nFlags);

// The same of bytes that stay where they are, from nAt on in a chunk.
DataBlock *MakeChunkBlock(Chunk *pChunk, uint32_t nAt, size_t nLen, uint32_t nFlags);

// One more, and one less, who holds the block; the last one frees it. FreeDataBlock accepts null.
inline DataBlock *BlockHold(DataBlock *pBlock)
{
    pBlock->nRefs++;
    return pBlock;
}
void BlockFreeLast(DataBlock *pBlock);
inline void FreeDataBlock(DataBlock *pBlock)
{
    if (pBlock && --pBlock->nRefs == 0)
        BlockFreeLast(pBlock);
}

// What a block takes of the memory: its head, its data, and what comes with every allocation.
constexpr uint32_t kBlockOverhead = sizeof(DataBlock) + 16;
inline uint32_t BlockBytes(const DataBlock *pBlock)
{
    return kBlockOverhead + pBlock->len;
}

// What the blocks of a list or queue come to.
struct BlockSum {
    int64_t nBytes = 0;         // of memory, of all blocks
    int64_t nOtherBytes = 0;    // of those that are neither media nor questions: replies, reports
    uint32_t nOthers = 0;       // how many those are
    uint32_t nKeys = 0;         // how many blocks of media start a key frame
    int64_t nTotalled = 0;      // what *pTotal has of them
    int64_t *pTotal = nullptr;  // bytes of media in this list and others together; not owned, may be null
};

// Counts a block that comes (nSign 1) or goes (-1) and takes nBytes of the memory; *pTotal counts nOwn of
// them.
inline void BlockCount(BlockSum *pSum, uint32_t nFlags, int64_t nBytes, int64_t nOwn, int nSign)
{
    pSum->nBytes += nSign * nBytes;
    if (nFlags & DB_MEDIA) {
        pSum->nTotalled += nSign * nOwn;
        if (pSum->pTotal)
            *pSum->pTotal += nSign * nOwn;
        pSum->nKeys += nFlags & DB_KEY ? static_cast<uint32_t>(nSign) : 0;
    } else if (!(nFlags & DB_QUESTION)) {
        pSum->nOtherBytes += nSign * nBytes;
        pSum->nOthers += static_cast<uint32_t>(nSign);
    }
}

// Takes what the blocks of another sum, which is in no total, came to.
void BlockSumTake(BlockSum *pSum, const BlockSum *pGone);

// Readies pList as a cache of blocks that it holds: embedded nodes. Of a chunk that its blocks are in all
// bytes count, and once. What it gives back leaves *pSum, and what BlockListAppend enters is added to it.
void BlockListInit(List *pList, BlockSum *pSum);
int BlockListAppend(List *pList, DataBlock *pBlock);
// Takes a block out and gives it back.
void BlockListFree(List *pList, DataBlock *pBlock);
// Gives a block bytes of its own, so that it keeps no chunk; without memory for them all stays as it is.
void BlockListCopyOut(List *pList, DataBlock *pBlock);

}  // namespace orx
