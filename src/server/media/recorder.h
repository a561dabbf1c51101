// One running recording: packets are copied on the scheduler thread, and the disk thread has the writer that
// makes files of them. Scheduler thread only.
#pragma once

#include <atomic>

#include "base/datablock.h"
#include "record/rules.h"
#include "record/storage.h"
#include "record/zmfile.h"
#include "server/core/heldjob.h"
#include "server/core/program.h"
#include "server/core/settings.h"

namespace orx {

struct ZMFWriter;

// What is to be recorded, and where.
struct RecordOrder {
    int nKind = RECORD_MANUAL;
    int nLimitSeconds = 0;               // 0: none
    int bNamed = 0;                      // by the request, otherwise by the date layout
    char szFile[kStoragePathSize] = "";  // its name; empty when that is too long
    int bAgain = 0;                      // the last try failed: another failure says nothing
};

// What the settings say of the files when a recording begins, and for as long as it goes on: the disk thread
// does not look at the settings, which may be read anew meanwhile.
struct FilePlan {
    char szRoot[kRecordPathSize] = "";
    int bConfined = 0;
    uint32_t nMinutePerFile = 0;
    RecordRules rules;
};

struct Recorder {
    DiskLane lane;
    int nKind = 0;
    uint32_t nBornMs = 0;                                   // ClockMs
    FilePlan plan;                                          // does not change
    const char *szEndReason = "its program gives no more";  // where nobody asked for its end; static
    char szUri[256] = "";                                   // of the program
    std::atomic<int> bOver{0};  // nothing is written any more: the disk thread has closed the writer
    // A hole that the queue for the disk has left: nothing is taken up to the next key frame.
    int bHole = 0;
    uint32_t nHoleMs = 0;  // ClockMs when it began
    int bSplit = 0;        // a jump lies in it
    // The disk thread's.
    int bOpened = 0;               // a file was open; to be read by others once bOver is set
    ZMFWriter *pWriter = nullptr;  // null before the file is open, and when it is closed
    Recorder *pNextOpen = nullptr;
};

// The job that opens a recording and writes what the cache held of the time before.
struct RecorderOpening {
    HeldJob held;   // first
    int bOpen = 0;  // when it is done: it runs
};

// Makes a recording of a live program, nPreRecord seconds of the cache included, and the job that opens it,
// which the caller posts in its lane before anything is written. Both are given to the caller. Null without
// memory.
Recorder *RecorderNew(const Program *pProg, const RecordOrder *pOrder, uint32_t nPreRecord,
                      RecorderOpening **ppOpening);

// In how many ms a recording that began under other settings would begin its next file, 0 when it would begin
// none; -1: the settings are the same still.
int RecorderRenewMs(const Recorder *pRecorder, const Program *pProg);

// Posts that job for nobody who waits.
void RecorderOpen(Recorder *pRecorder, RecorderOpening *pOpening);

// Hands over a copy of a packet. What the queue for the disk has no room for is left out, up to a key frame.
void RecorderWrite(Recorder *pRecorder, const Program *pProg, const DataBlock *pBlock);

// The job that stops the recording behind all that was handed over; it and the recorder go with its pfnFree.
// bTold: the name of the file is printed. Null without memory: nothing can be stopped then.
HeldJob *RecorderClosing(Recorder *pRecorder, int bTold);
// Posts that job for nobody who waits.
void RecorderClose(Recorder *pRecorder);

// The files that are being written.
struct RecorderFacts {
    const char *szProgram;
    const char *szFile;  // its final path
    int nKind;           // RECORD_...
    uint64_t nBytes;
    uint32_t nSeconds;
};
// Calls for each of them. Disk thread.
void RecorderEachOpen(void (*pfnTake)(void *pContext, const RecorderFacts *pFacts), void *pContext);

}  // namespace orx
