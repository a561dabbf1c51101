// A walk through the heads of a recording's records, in steps: a file may be of any size, and who walks holds
// everybody up. Small records are read many at a time. No locking inside: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/zmfile.h"

namespace orx {

struct RecordWalk {
    int fd = -1;              // not owned
    uint64_t nFileBytes = 0;  // where the file ends
    uint64_t nNext = 0;       // position behind the last record visited
    uint64_t nPos = 0;        // of the last record visited
    uint32_t nWork = 0;       // what the step may still do

    uint8_t *pBlock = nullptr;  // room for more than a chunk at a time, not owned; null: chunk
    uint32_t nBlock = 0;        // bytes of it
    uint8_t chunk[2048];
    uint64_t nChunkPos = 0;  // of the chunk's first byte
    uint32_t nChunk = 0;     // bytes in it
};

// What a step may do, in records; reading a chunk counts as kChunkWork of them. A step then takes some 5 ms.
constexpr uint32_t kStepWork = 200000;
constexpr uint32_t kChunkWork = 32;
constexpr uint32_t kAllWork = UINT32_MAX;  // no steps

// A walk through the open file fd, of nFileBytes, from the record at nPos on.
RecordWalk RecordWalkFrom(int fd, uint64_t nFileBytes, uint64_t nPos, uint32_t nWork);

// Whether the head of the next record was read already.
int RecordWalkHolds(const RecordWalk *pWalk);
// The head of the next whole record: 1. 0 when none follows, -1 when the step is over (give nWork anew).
int RecordWalkNext(RecordWalk *pWalk, ZMFRecordHead *pHead);

// Reads up to nBytes from a position of a file. Returns how many there were.
size_t ReadAt(int fd, uint64_t nPos, void *pOut, size_t nBytes);

}  // namespace orx
