// The index of key frames of a recording while it grows: one entry for every key frame at first, and when all
// are in use for every second, every fourth, and so on, so that it reaches over a file of any length. Any
// thread.
#pragma once

#include <cstdint>

#include "record/zmfile.h"

namespace orx {

struct KeyIndex {
    ZMFIndexEntry entries[DEF_IDX_COUNT];
    uint32_t nUsed = 0;
    uint16_t nInterval = 1;  // every how many key frames one has an entry
};

// Whether it takes KeyIndexHalve before the next key frame.
int KeyIndexIsFull(const KeyIndex *pIndex);
// Keeps every second entry.
void KeyIndexHalve(KeyIndex *pIndex);

// Adds the key frame that comes after uKeyFrames others, if it is its turn. Its record lies nPos bytes behind
// the data offset.
void KeyIndexAdd(KeyIndex *pIndex, uint32_t uKeyFrames, uint64_t nPos, uint32_t nTimeMs);

// Writes the kZmfIdxBytes of the block at pOut; unused entries are 0.
void KeyIndexEncode(const KeyIndex *pIndex, uint8_t *pOut);

}  // namespace orx
