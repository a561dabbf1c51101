// What the disk tells: free space, how old the recordings are, what is being written, and lists of
// recordings. Found on the disk thread in steps; who asks waits on a thread of the status socket, and not for
// long: a disk that stalls is an answer, too.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/daywalk.h"
#include "record/storage.h"

namespace orx {

struct DiskAsk;

constexpr size_t kMaxListed = 500;  // recordings in one answer
constexpr size_t kMaxDays = 20000;  // days of all programs that are looked at

enum DiskQuestion {
    DISK_PROBE,  // space, and whether the path can be written
    DISK_FACTS,  // the same, the days of all programs, and what is being written
    DISK_LIST,   // recordings of a program
};

// A file that is being written.
struct OpenFacts {
    char szProgram[256];
    char szFile[kStoragePathSize];  // that it will have
    int nKind;                      // RECORD_...
    uint64_t nBytes;
    uint32_t nSeconds;
};

struct ListedFacts {
    char szFile[kStoragePathSize];  // below the root
    char szStart[16];               // YYYYMMDD-hhmmss
    uint64_t nBytes;
    uint32_t nDurationMs;
    int nKind;
    const char *szState;  // "complete", "writing", "interrupted", "unreadable"
};

struct DiskAnswer {
    int nErrno = 0;  // of the path of recordings, which cannot be written; 0: it can
    uint64_t nFreeBytes = 0, nTotalBytes = 0;
    PathList days;               // "<program>/YYYYMMDD" below the root, by name
    OpenFacts *pOpen = nullptr;  // owned
    size_t nOpen = 0;
    ListedFacts *pListed = nullptr;  // owned
    size_t nListed = 0;
    int bMore = 0;   // there are more behind the last
    int bThere = 0;  // of a list: the program has a directory
};

// Asks the disk thread about the recordings below szRoot, and waits nMostMs at most, less after DiskAskStop.
// Of a list szProgram is the
// program, szDay a day or empty, and szAfter the last file of the list before, or empty. Returns what is
// told, which DiskAskFree frees, or null when the disk does not answer.
DiskAsk *DiskAskFor(DiskQuestion eQuestion, const char *szRoot, const char *szProgram, const char *szDay,
                    const char *szAfter, uint32_t nMostMs);
const DiskAnswer *DiskAnswerOf(const DiskAsk *pAsk);
void DiskAskFree(DiskAsk *pAsk);

// Nobody waits any more, from now on (1) or until it is taken back (0).
void DiskAskStop(int bStop);

}  // namespace orx
