// Completes recordings that their writer did not close: what a clean close would have put into header, index
// and description is found by a walk through the records, and a record that was not written to its end is cut
// off. It goes in steps, so that whoever repairs can do other work in between. The header, which tells a
// closed file from an open one, is written last, when all else has reached the disk: a file whose repair was
// cut short is repaired again. Any thread, one at a time for a repair.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "record/keyindex.h"
#include "record/recordwalk.h"
#include "record/zmfile.h"

namespace orx {

constexpr uint32_t kRepairBlockBytes = 1U << 20;  // read at a time

enum ZMFRepairResult : int {
    ZMF_REPAIR_BROKEN =
        -1,  // szReason says why; the file is as it was or, after a write error, interrupted still
    ZMF_REPAIR_MORE = 0,   // takes another step
    ZMF_REPAIR_WHOLE = 1,  // was closed by its writer or repaired before, and is left alone
    ZMF_REPAIR_DONE = 2,   // is closed now
};

enum ZMFRepairStage : uint8_t { REPAIR_WALK, REPAIR_TAIL, REPAIR_TABLES, REPAIR_HEAD, REPAIR_END };

struct ZMFRepair {
    int fd = -1;                // owned
    uint8_t *pBlock = nullptr;  // owned, kRepairBlockBytes
    struct stat info {};        // when it was opened
    ZMFRepairStage nStage = REPAIR_WALK;
    ZMFRepairResult nResult = ZMF_REPAIR_MORE;  // of the last step
    const char *szReason = "";                  // with ZMF_REPAIR_BROKEN
    ZMFileHeader before;                        // as it was
    ZMFileHeader head;                          // as it will be
    KeyIndex index;
    RecordWalk walk;
    uint64_t nBytes = 0;  // of the file
    uint64_t nDone = 0;   // how far it was read
    uint64_t nCut = 0;    // bytes of an unfinished record that are cut off at the end
    uint64_t nLost = 0;   // bytes behind the last whole record that nobody can read, and which stay
};

// Readies the repair of a file. Returns 1, or 0 with the reason when it cannot be opened (errno) or is no
// recording that this system's writer made (errno 0). Undo with ZMFRepairClose in either case.
int ZMFRepairOpen(ZMFRepair *pRepair, const char *szFile);

// Goes on; reads one block at most, or writes. After a result other than ZMF_REPAIR_MORE it gives the same.
ZMFRepairResult ZMFRepairStep(ZMFRepair *pRepair);

void ZMFRepairClose(ZMFRepair *pRepair);

}  // namespace orx
