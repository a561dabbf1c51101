// The recording reader: hands out the sample records of one file in order, seeks to a time, and steps from
// key frame to key frame. Files come from anywhere: nothing in one is trusted, and nothing outside its data
// is read. Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "record/zmfile.h"

namespace orx {

struct Measured;

// A seek that takes several steps.
struct SeekState {
    int bActive = 0;
    uint32_t nTimeMs = 0;
    uint64_t nNext = 0;    // where it goes on
    uint64_t nKeyPos = 0;  // of the latest key frame, 0 before the first
};

struct KeyFrame {
    uint64_t nPos = 0;  // from the start of the file
    uint32_t nTimeMs = 0;
};

// Where ZMFReaderNextKey is.
constexpr uint32_t kKeysAhead = 1024;
struct KeyWay {
    int bBegun = 0;  // its first key frame was handed out: this one is the last that was
    KeyFrame at;
    int bWalking = 0;           // the search takes another step
    uint64_t nNext = 0;         // where it goes on
    uint64_t nEnd = 0;          // backwards: it ends there
    uint64_t nStart = 0;        // and began there
    uint32_t nKeys = 0;         // key frames from nStart on, not handed out
    KeyFrame *pKeys = nullptr;  // of kKeysAhead, owned
};

struct ZMFReader {
    char *szFile = nullptr;  // owned
    ZMFileHeader head;
    ZMFIndexEntry *pIndex = nullptr;  // owned; positions from the start of the file, times as in the file
    uint32_t nIndex = 0;
    char *szSdp = nullptr;   // owned, with a range line when the duration is known
    uint32_t uDuration = 0;  // ms
    int bInterrupted = 0;    // never closed: duration and counters come from a walk through the records
    Measured *pMeasured = nullptr;  // of an interrupted file, owned
    uint32_t uDataBeginOffset = 0;
    int fd = -1;
    uint64_t nFileBytes = 0;

    uint8_t *pBuffer = nullptr;  // owned, nBuffer bytes; at most 4 MB, or as it was opened
    uint32_t nBuffer = 0;
    uint32_t nHeld = 0;       // bytes in the buffer
    uint32_t nRead = 0;       // of them, handed out already
    uint64_t nBufferPos = 0;  // position of the buffer's first byte in the file
    int bEof = 0;             // the buffer reaches to the end of the file
    uint32_t nRecords = 0;    // handed out
    uint32_t nCurrentMs = 0;  // time of the last record handed out, or reached by a seek
    int bCurrent = 0;         // there is such a time

    SeekState seek;
    int bExactSeek = 0;  // the caller's: see ZMFReaderSeek
    KeyWay way;
    KeyFrame *pKeyFrames = nullptr;  // table of the key-frame mode, owned
    int nKeyFrames = 0;
    int nKeyPos = 0;  // index into it; -1 before the first, nKeyFrames behind the last
};

// Opens a recording with a read buffer of nBuffer bytes, which grows to the largest record. A file that its
// writer did not close is walked through for its duration, unless that is remembered. Null when it is no
// recording or broken. Close with ZMFReaderClose, which accepts null.
ZMFReader *ZMFReaderOpen(const char *szFile, uint32_t nBuffer);
// The same in steps (nWork: see recordwalk.h): null with *pbMore 1 when the walk is not at its end. The next
// call for the file goes on with it. szBelow: null as well for a file that does not lie below this directory.
ZMFReader *ZMFReaderOpenStep(const char *szFile, uint32_t nBuffer, uint32_t nWork, int *pbMore,
                             const char *szBelow = nullptr);
void ZMFReaderClose(ZMFReader *pReader);

// The next record, its 8-byte head included, with its length in *pnBytes; valid until the next call of any
// operation that reads. Null at the end: *pnBytes is then 0 when the file ends with its last record, and -1
// when something follows that is no whole record.
const uint8_t *ZMFReaderNextSample(ZMFReader *pReader, int *pnBytes);

// Moves to the key frame that playback from nTimeMs starts with: the last one up to the first record of that
// time or later; with bExactSeek the last one of that time or earlier, else the first one. Returns its
// record, which is the next one to be handed out, and its time in *pnReachedMs. Null, with the position kept,
// from the duration on or when there is none.
const uint8_t *ZMFReaderSeek(ZMFReader *pReader, uint32_t nTimeMs, uint32_t *pnReachedMs);
// The same in steps: null with *pbMore 1 when the search is not at its end. The next call for the same time
// goes on with it.
const uint8_t *ZMFReaderSeekStep(ZMFReader *pReader, uint32_t nTimeMs, uint32_t nWork, uint32_t *pnReachedMs,
                                 int *pbMore);

// Readies stepping from key frame to key frame, nMoveKeyFrames (not 0) saying in which direction. Returns 1,
// or 0 when the file has none.
int ZMFReaderSetupKeyFrameMode(ZMFReader *pReader, int nMoveKeyFrames);
// Steps by nMoveKeyFrames, back when negative, at most to the first or last. Returns the record, which is the
// next one to be handed out, with its time; null, with the position kept, at the end in that direction.
const uint8_t *ZMFReaderSeek2KeyFrame(ZMFReader *pReader, int nMoveKeyFrames, uint32_t *pnTimeMs);

// Playing by key frames, from where a seek has led, which comes first: hands out the next one in a direction
// (1 or -1) that lies at least nGapMs from the one before, or on the other side of it, where times jump.
// Results of ZMFReaderNextSample; null with *pbMore 1 when the search takes another step. The index leads it,
// and what it has looked through and not used is remembered. ZMFReaderBeginKeys: behind each seek, before the
// first.
void ZMFReaderBeginKeys(ZMFReader *pReader);
const uint8_t *ZMFReaderNextKey(ZMFReader *pReader, int nDirection, uint32_t nGapMs, uint32_t nWork,
                                int *pnBytes, int *pbMore);

const char *ZMFReaderSdp(const ZMFReader *pReader);
uint32_t ZMFReaderDuration(const ZMFReader *pReader);  // ms
// Copies the application data. Returns its size, 0 when there is none, -1 when nSize is too small or it
// cannot be read.
int ZMFReaderAppData(ZMFReader *pReader, void *pOut, uint32_t nSize);
// When the file was begun; 0 when its text is no time.
time_t ZMFReaderStartTime(const ZMFReader *pReader);

}  // namespace orx
