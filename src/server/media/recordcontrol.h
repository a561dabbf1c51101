// Recording of live programs: which recordings run, and who feeds them. A program of [STORAGE] RecordAlways
// has one of its own, which nobody but its pusher ends and which begins again by itself. Scheduler thread
// only.
#pragma once

#include "base/datablock.h"
#include "server/core/program.h"
#include "server/media/recorder.h"

namespace orx {

enum class RecordStart {
    Runs,     // or as many run already as a program may have
    NoSpace,  // the file cannot be made or has no room, which is printed
    Fault,    // a peer assertion failed and was survived: the program is none that can be recorded
    Waits,    // the disk is at it: the request is held, and StartRecord called again
};

// Begins a recording of the session's program, for an alarm with what the cache holds of the time before.
RecordStart StartRecord(Session *pSession, const RecordOrder *pOrder);

// Ends the first manual recording of the session's program; others end only by their limits. Returns 1, or 0
// when the request is held until that is done, and StopRecord called again.
int StopRecord(Session *pSession);

// Whether a program of this path is one of [STORAGE] RecordAlways.
int RecordedAlways(const char *szPath);
// Whether the program is to get all that its camera sees, for a recording that runs or will.
int RecordersWant(const Program *pProg);

// Hands a cached packet to every running recording of the program; one that has ended leaves.
void RecordersWrite(Program *pProg, const DataBlock *pBlock);

// The settings were read anew: which programs are recorded always is looked at again, and where their files
// go. A recording of theirs goes on in the new place when it would begin its next file.
void RecordersFollowSettings();

// Stops every recording of the program.
void RecordersClose(Program *pProg);

}  // namespace orx
