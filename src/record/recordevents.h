// What the log of events says of recordings: file, reason, and how much is free where it lies. Asks the file
// system, so the thread that records only.
#pragma once

#include "base/eventlog.h"

namespace orx {

struct RecordEvent {
    const char *szProgram = nullptr;  // path or directory of the program; null: it is in no such one
    const char *szFile = nullptr;
    const char *szReason = nullptr;  // in words; null: none is needed
    int nErrno = 0;                  // 0: none
    int nSeconds = -1;               // that the file plays; below 0: it is not told
};

// Says it; texts for as long as the call.
void RecordSay(EventLevel eLevel, const char *szEvent, const RecordEvent &event);

// Megabytes free for everybody where the path lies, or is to lie; -1 when that cannot be told.
int64_t RecordFreeMegabytes(const char *szPath);

}  // namespace orx
