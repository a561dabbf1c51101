// Recording of live programs: the method RECORDEX, and the feeding of running writers. Scheduler thread only.
#pragma once

#include "base/datablock.h"
#include "server/core/program.h"

namespace orx {

int HandleRecordEx(Session *pSession, Port *pPort, Request *pRequest);

// Hands a cached packet to every running writer of the program; one that ends or fails is closed and leaves.
void RecordersWrite(Program *pProg, const DataBlock *pBlock);

// Stops and closes every writer of the program, the last one first.
void RecordersClose(Program *pProg);

}  // namespace orx
