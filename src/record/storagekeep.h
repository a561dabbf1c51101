// Recordings are kept for so many days: what is older goes, of every program, in steps. No locking inside:
// the thread that records only.
#pragma once

#include <cstdint>

#include "record/daywalk.h"

namespace orx {

struct StorageKeep {
    DayWalk walk;
    int bWalking = 0;       // days are still looked for
    char szFirst[16] = "";  // the oldest day that stays, YYYYMMDD
    PathList tree;          // what is in the day that goes, directories behind what is in them, itself last
    const char *szDay = nullptr;  // that day, the walk's
};

// Begins with the days below szRoot that are more than nDays (>0) days old.
void StorageKeepBegin(StorageKeep *pKeep, const char *szRoot, uint32_t nDays);
// One step: a directory read, or one file deleted, which is logged. A day in or below which a file is being
// written stays until the next time. Returns 1 while there is more to do, then 0.
int StorageKeepStep(StorageKeep *pKeep);
// Gives back what it holds; also in between.
void StorageKeepFree(StorageKeep *pKeep);

}  // namespace orx
