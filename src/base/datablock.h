// One packet or one reply text, in one allocation: header, data, a NUL behind the data.
// No locking: a block belongs to the thread that owns the list it is in.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/linkedlist.h"

namespace orx {

enum : uint32_t {
    DB_MEDIA = 1,     // an RTP media packet
    DB_KEY = 2,       // start of a key frame; set for RTCP reports as well
    DB_VIDEO = 4,     // a video packet
    DB_QUESTION = 8,  // a player's request on its way to the pusher (see questions.h)
    DB_JUMP = 16,     // the stamps of its track jump with this packet
    DB_SPLIT = 32,    // and are the first of the program that do: recordings go on in a new file
};
constexpr uint32_t kBlockTrackShift = 8;  // from this bit on: 1 + its track; 0 when its payload type tells

struct DataBlock {
    ListNode node;        // first, so that lists use the default map mode 0
    uint32_t nFlags = 0;  // DB_...
    uint16_t len = 0;     // bytes of data
    uint16_t sent = 0;    // bytes of data already written to the socket
    // Media time in milliseconds, equal for all packets of one frame; of a question ClockMs when it was
    // asked.
    uint32_t nTimestamp = 0;
    // The program's packet number when the block was cached; in the queue of a live player ClockMs when it
    // was pushed, or 0; of a question the handle of who asks.
    uint32_t nSerial = 0;
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

// The data of a block: len bytes and a NUL.
inline uint8_t *BlockData(DataBlock *pBlock)
{
    return reinterpret_cast<uint8_t *>(pBlock + 1);
}
inline const uint8_t *BlockData(const DataBlock *pBlock)
{
    return reinterpret_cast<const uint8_t *>(pBlock + 1);
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
// which is printed. The caller owns the block until a list takes it; free it with FreeDataBlock.
DataBlock *MakeDataBlock(const void *pData, size_t nLen, int bMedia, int bVideo, int bKey);

// The same with the flags word given.
DataBlock *MakeDataBlock2(const void *pData, size_t nLen, uint32_t nFlags);

// Frees a block that is in no list; accepts null.
void FreeDataBlock(DataBlock *pBlock);

// What a block takes of the memory: its head, its data, and what comes with every allocation.
constexpr uint32_t kBlockOverhead = sizeof(DataBlock) + 16;
inline uint32_t BlockBytes(const DataBlock *pBlock)
{
    return kBlockOverhead + pBlock->len;
}

// What the blocks of a list come to.
struct BlockSum {
    int64_t nBytes = 0;         // of memory, of all blocks
    int64_t nOtherBytes = 0;    // of those that are neither media nor questions: replies, reports
    uint32_t nOthers = 0;       // how many those are
    uint32_t nKeys = 0;         // how many blocks of media start a key frame
    int64_t *pTotal = nullptr;  // bytes of media in this list and others together; not owned, may be null
};

// Readies pList as a queue of blocks that it owns: embedded nodes, blocks freed with FreeDataBlock. What it
// frees leaves *pSum (null: nobody counts), and what the operations below enter is added to it. Blocks are
// taken out by freeing them.
void BlockListInit(List *pList, BlockSum *pSum);
// As ListAppend and ListInsert.
int BlockListAppend(List *pList, DataBlock *pBlock);
int BlockListInsert(List *pList, DataBlock *pBlock, DataBlock *pReferer, int bAfter);
// As ListRemove with freeing.
void BlockListFree(List *pList, DataBlock *pBlock);

}  // namespace orx
