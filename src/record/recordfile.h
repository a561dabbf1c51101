// One file of a recording while it is written: header, key-frame index, SDP and application data, the
// records, and at the end its completion and its final name. A recording of several files opens the same
// record again for each, and description, application data and label go on into the next. The thread that
// records only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "record/fileout.h"
#include "record/keyindex.h"
#include "record/rules.h"
#include "record/storage.h"
#include "record/zmfile.h"

namespace orx {

// What was recorded up to some place of a file.
struct RecordCounts {
    uint32_t uDuration = 0;  // latest time of a record, ms
    uint32_t uVideoSamples = 0;
    uint32_t uTextSamples = 0;
    uint32_t uUserSamples = 0;
    uint32_t uSampleCount = 0;
    uint32_t uKeyFrames = 0;
};

struct RecordFile {
    char *szBelow = nullptr;  // root that no file of it leaves, and none replaces another; owned, null: none
    char *szFile = nullptr;   // path without ".tm!", owned; kept after the close
    int fdDir = -1;           // directory that it lies in, owned; with szBelow only
    const RecordRules *pRules = nullptr;  // of the recording, not owned; null: those of RecordRules
    OpenRecording open;  // keeps the clean-up away from the file's directory, and others from its name
    FileOut out;
    ZMFileHeader head;            // its counters are filled in when the file is completed
    char *pszSdp = nullptr;       // owned, head.nSdpSize bytes, NUL-padded, and a NUL
    uint8_t *pAppData = nullptr;  // owned, head.nAppDataBytes
    time_t tFileStart = 0;        // when the head was written

    uint32_t uDataBeginOffset = 0;  // position of the first record, 0 until the head is written
    uint32_t uDuration = 0;         // largest time stamp, ms from the start of the file; the caller raises it
    uint32_t uVideoSamples = 0;
    uint32_t uTextSamples = 0;
    uint32_t uUserSamples = 0;
    uint32_t uSampleCount = 0;  // records written
    uint32_t uKeyFrames = 0;
    KeyIndex index;
    RecordCounts all;      // of the records so far
    RecordCounts reached;  // of those that are in the file, not only in its buffer
    uint64_t nSynced = 0;  // bytes that a power cut leaves; 0: not even the name
};

// Makes szFile, under its name with ".tm!" behind it; under the next free name where another recording has
// it or, with szBelow or where nothing is to be lost, where a file has it. Returns 1 or 0.
int RecordFileOpen(RecordFile *pFile, const char *szFile);
int RecordFileIsOpen(const RecordFile *pFile);

// Keeps the description with room behind it for the range line of a completed file; a range line that it has
// is left out. The description that is kept already may be given again. Returns 1, or 0 when it is longer
// than the format can hold or memory runs out.
int RecordFileSetSdp(RecordFile *pFile, const char *szSdp);
// Keeps nBytes opaque bytes. The first call, before the head is written, fixes the room for them; later ones
// may change what is in it. Returns 1, or 0 when there is none.
int RecordFileSetAppData(RecordFile *pFile, uint32_t nBytes, const void *pData);

// Writes header, index, SDP and application data. Returns 1, or 0 on a write error.
int RecordFileWriteHead(RecordFile *pFile);

// Counts a key frame whose record comes next, with an index entry when it is its turn. Returns 1 or -1.
int RecordFileAddKeyFrame(RecordFile *pFile, uint32_t nTimeMs);
// Appends one record; nTimeMs counts from the start of the file, nType is SampleType(), with SAMPLE_WIDE when
// it makes the file one of version 101. Returns 1 or -1.
int RecordFileWriteRecord(RecordFile *pFile, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                          uint32_t nType);

// Brings to the file what is in memory. Returns 1, or 0 on a write error.
int RecordFileFlush(RecordFile *pFile);
// Has the disk keep what is in the file, and its name.
void RecordFileSync(RecordFile *pFile);

// Completes the file when its head was written, closes it and gives it its final name. Returns 1, or 0 when
// something was lost. Where nothing is to be lost, a write error costs the records that did not fit only.
int RecordFileClose(RecordFile *pFile);

// The path that follows one that was not built from the date: its stem, up to the first '-' of the name, with
// the time of now. Returns 1, or 0 for a path without directory or one that does not fit.
int RecordFileNextPath(const RecordFile *pFile, char *szOut, size_t nSize);
// Readies the record for the next file of the recording: counters, index, and the description without the
// range line of the file before. Returns 1, or 0 without memory.
int RecordFileBeginNext(RecordFile *pFile);

// Removes the file, which is closed, if there is one.
void RecordFileRemove(RecordFile *pFile);
// Frees what the record owns; the file is closed.
void RecordFileFree(RecordFile *pFile);

}  // namespace orx
