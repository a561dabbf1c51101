// Recording of live programs: starting and stopping writers, and feeding those that run. Scheduler thread
// only.
#pragma once

#include "base/datablock.h"
#include "record/storage.h"
#include "record/zmfile.h"
#include "server/core/program.h"

namespace orx {

// What is to be recorded, and where.
struct RecordOrder {
    int nKind = RECORD_MANUAL;
    int nLimitSeconds = 0;               // 0: none
    int bNamed = 0;                      // by the request, otherwise by the date layout
    char szFile[kStoragePathSize] = "";  // its name; empty when that is too long
};

// Begins a recording of a live program that has a writer free, for an alarm with what the cache holds of the
// time before. Returns 1, or 0 (printed) when the file cannot be made or has no room.
int StartRecord(Program *pProg, const RecordOrder *pOrder);

// Ends the first manual recording; others end only by their limits.
void StopRecord(Program *pProg);

// Hands a cached packet to every running writer of the program; one that ends or fails is closed and leaves.
void RecordersWrite(Program *pProg, const DataBlock *pBlock);

// Stops and closes every writer of the program, the last one first.
void RecordersClose(Program *pProg);

}  // namespace orx
