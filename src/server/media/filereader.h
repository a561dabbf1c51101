// A recording that is played: the disk thread reads ahead, and the scheduler thread takes the records.
// Scheduler thread only.
#pragma once

#include "server/core/heldjob.h"
#include "server/core/program.h"

namespace orx {

struct ZMFReader;

struct FileReader {
    DiskLane lane;
    const char *szSdp = nullptr;                   // of the reader, which does not change it
    uint32_t uDuration = 0;                        // ms
    List batches;                                  // records that were read ahead, the next ones first; owned
    int bEnd = 0;                                  // nothing follows them
    int bReading = 0;                              // the next batch is being read
    int bSeeking = 0;                              // none is read, until it is known where
    int bWanted = 0;                               // somebody was told to wait for the next batch
    int nInRefill = 0;                             // the player's: records of one that is not complete
    Program *pProg = nullptr;                      // whose it is, not owned
    void (*pfnArrived)(Program *pProg) = nullptr;  // called when a batch is there that was waited for
    ZMFReader *pFile = nullptr;                    // the disk thread's, owned
    int nDirection = 0;   // the disk thread's: of key frames, 1 or -1; 0: all records
    uint32_t nGapMs = 0;  // the disk thread's: from one key frame to the next, at least
};

// The job that opens a file and looks a long one through, and the lane that it is posted in. Null without
// memory. szBelow: see ZMFReaderOpenStep.
HeldJob *FileReaderOpening(const char *szFile, const char *szBelow, DiskLane **ppLane);
// The reader that the job has opened, which is the caller's; null when there is none. The job goes.
FileReader *FileReaderOpened(HeldJob *pHeld);
// A reader of a file that is open, whose owner it becomes; null, with the file closed, without memory.
FileReader *FileReaderNew(ZMFReader *pFile);
// Closes and frees it once the disk is done with it; accepts null.
void FileReaderClose(FileReader *pReader);

// A seek: to the key frame that playing from nMs starts with.
struct FileSeek {
    uint32_t nMs = 0;
    int bExact = 0;      // see ZMFReaderSeek
    int nDirection = 0;  // what is read from there on: see FileReader
    uint32_t nGapMs = 0;
};
// The job for it, to be posted in the reader's lane. Null without memory.
HeldJob *FileReaderSeeking(FileReader *pReader, const FileSeek *pSeek);
// What became of it: 1 with the time that was reached, or 0, and the file goes on where it was. The job goes.
int FileReaderSought(HeldJob *pHeld, uint32_t *pReachedMs);

// The next record, its head included, valid until the next call. Null with *pbEnd 1 at the end, with 0 when
// it is still being read: pfnArrived says when it is there.
const uint8_t *FileReaderNext(FileReader *pReader, uint32_t *pnBytes, int *pbEnd);

}  // namespace orx
