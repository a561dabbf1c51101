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

enum class RecordStart {
    Runs,     // or as many run already as a program may have
    NoSpace,  // the file cannot be made or has no room, which is printed
    Fault,    // a peer assertion failed and was survived: the program is none that can be recorded
};

// Begins a recording of a live program, for an alarm with what the cache holds of the time before.
RecordStart StartRecord(Program *pProg, const RecordOrder *pOrder);

// Ends the first manual recording; others end only by their limits.
void StopRecord(Program *pProg);

// Hands a cached packet to every running writer of the program; one that ends or fails is closed and leaves.
void RecordersWrite(Program *pProg, const DataBlock *pBlock);

// Stops and closes every writer of the program, the last one first.
void RecordersClose(Program *pProg);

}  // namespace orx
