// What becomes of the recordings that lie below RecordPath while the server runs: interrupted ones are
// repaired once, and those that are older than [STORAGE] KeepDays go, at start and each hour. All of it in
// steps on the disk thread, which others use in between.
#pragma once

#include "record/daywalk.h"

namespace orx {

// Begins. pInterrupted: the files to be repaired, which are taken over; the list is empty then. Once the
// scheduler and the disk thread run; main thread.
void StorageCareStart(PathList *pInterrupted);

// KeepDays may have changed: what is too old by it goes at the next look, which there is one of at once where
// there was none. Scheduler thread.
void StorageCareFollowSettings();

// Has what is under way end with the step that it is at: an interrupted file is found again at the next
// start. Before the disk thread is stopped; main thread.
void StorageCareStop();

}  // namespace orx
