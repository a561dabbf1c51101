// The recording writer: turns the RTP packets of one live program into a chain of recording files. It
// rebuilds whole frames, gathers audio into blocks, indexes key frames, begins a new file after a set time or
// when space runs short, and ends by itself after a set total time.
//
// Order of use: create, ZMFWriterSetReserveMinSpace, ZMFWriterSetLabel, ZMFWriterSetSdp, ZMFWriterSetLimits,
// ZMFWriterWriteHead, then packets until a result below 1; ZMFWriterFree in every case. Times handed in are
// milliseconds of a 32-bit clock that may wrap. One thread for all writers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "record/depacketise.h"
#include "record/recordfile.h"
#include "record/storageroom.h"

namespace orx {

constexpr uint32_t kAudioBlockBytes = 32768;  // audio payload that one record holds: 4 seconds of G.711

enum class WriterState {
    Running,    // a file is open, until the recording has ended
    AwaitKey,   // between two files: the next key frame begins one
    AwaitRoom,  // between two files: goes on to AwaitKey when ZMFWriterTick finds room
};

struct ZMFWriter {
    char *szRoot = nullptr;     // root of the recordings, owned; null when the file was named by the client
    char *szProgram = nullptr;  // directory below it, owned; null with szRoot
    RecordRules rules;          // set by the caller, before the first packet at the latest
    RecordFile file;            // the current one; closed between two, and after the end

    uint32_t nTimeBase = 0;       // time that is 0 in the file
    uint32_t nBaseCount = 0;      // records of the file when the time base was taken
    uint32_t nTimeStampBase = 0;  // ms added to every time after a pause
    int bRebase = 0;              // the next sample becomes the new time base

    uint8_t *pAudio = nullptr;  // audio block, owned, kAudioBlockBytes; made with the first sample
    uint32_t nAudioDataBytes = 0;
    uint32_t nAudioTime = 0;  // of the block's first sample, with its type word
    uint32_t nAudioType = 0;
    uint32_t nAudioTicks = 0;  // length of what it holds, as the audio track counts

    time_t tRecordStart = 0;       // when the first head was written, 0 before
    uint32_t nSecondsPerFile = 0;  // 0: no limit
    uint32_t nTotalSeconds = 0;    // 0: no limit
    uint32_t nSpaceInMB = 0;       // space to keep free, 0: not looked at
    int bDeleteOldest = 0;         // make that space by deleting the oldest recordings

    WriterState eState = WriterState::Running;  // the others with rules.bNeverLose only
    int bRollDue = 0;                           // the next key frame begins a new file
    int bPaused = 0;                            // for want of room, which was said
    int64_t nRecordStartMs = 0;                 // by RecordSteadyMs, as those that follow
    int64_t nFileStartMs = 0;
    int64_t nLookMs = 0;  // when the clocks were compared last, 0: never
    time_t tLook = 0;     // and what the wall clock said
    StorageRoom room;
    int64_t nRoomRetryMs = 0;  // not before that is room looked for again in vain
    int64_t nSyncMs = 0;       // of the last one
    uint32_t nAudioSeen = 0;   // bytes of the audio block that ZMFWriterTick saw

    DepacketProc pfnVideo = nullptr;  // by the SDP's codec; null without one that is known
    DepacketProc pfnAudio = nullptr;
    Depacketiser video;
    Depacketiser audio;
    int bSaidVideo = 0;  // that it is left out
    int bSaidAudio = 0;
};

// A writer with its first file open, in the date layout below szRoot (ending in '/') or with a name given.
// nKind is a RECORD_... value, szLabel may be null. Null when the kind is none, the file cannot be made, or
// without memory. Confined, or with szBelow, all its files lie below szRoot or szBelow, wherever links lead,
// and where a name is taken they get the next free one, as they do with pRules that lose nothing and wherever
// another recording has it. pRules may be null.
ZMFWriter *ZMFWriterCreate(const char *szRoot, const char *szProgram, int nKind, const char *szLabel,
                           int bConfined = 0, const RecordRules *pRules = nullptr);
ZMFWriter *ZMFWriterCreateFile(const char *szFile, int nKind, const char *szLabel,
                               const char *szBelow = nullptr, const RecordRules *pRules = nullptr);

// Stops the recording and frees the writer; accepts null. The file of a writer that never got an SDP is
// removed.
void ZMFWriterFree(ZMFWriter *pWriter);
// The same, but the current file is removed in any case.
void ZMFWriterDiscard(ZMFWriter *pWriter);

// Takes the description of the program: it is kept in the file and decides how packets are read. Only once.
// Returns 1, or 0 when it is empty, longer than the format can hold, or memory runs out.
int ZMFWriterSetSdp(ZMFWriter *pWriter, const char *szSdp);
// Keeps nBytes opaque bytes in the file. The first call, before the head is written, fixes the room for them;
// later ones may change what is in it. Returns 1, or 0 when there is none.
int ZMFWriterSetAppData(ZMFWriter *pWriter, uint32_t nBytes, const void *pData);
void ZMFWriterSetLabel(ZMFWriter *pWriter, const char *szLabel);  // at most 32 characters are used
int ZMFWriterSetLimits(ZMFWriter *pWriter, uint32_t nSecondsPerFile, uint32_t nTotalSeconds);
// Keeps nSpaceInMB (>0) megabytes free where the files go, and makes that room now. Returns 1, or 0 when
// there is not so much and nothing (more) may be deleted.
int ZMFWriterSetReserveMinSpace(ZMFWriter *pWriter, uint32_t nSpaceInMB, int bDeleteOldest);
// The same a step at a time, for who serves others in between.
RoomResult ZMFWriterReserveStep(ZMFWriter *pWriter, uint32_t nSpaceInMB, int bDeleteOldest);

// Writes header, index, SDP and application data. Returns 1, or 0 on a write error.
int ZMFWriterWriteHead(ZMFWriter *pWriter);

// Completes and closes the current file and gives it its final name; does nothing when none is open.
void ZMFWriterStop(ZMFWriter *pWriter);
// Begins the next file; none may be open. Returns 1, 0 for want of space, -1 on an error.
int ZMFWriterCreateNextFile(ZMFWriter *pWriter);

// Records one RTP packet, or one sample. chMedia is 'v', 'a', or anything else for messages, of which those
// that begin with "ALARM:" are kept; nType is SampleType(). Returns 1 when it was written or left out, 0 when
// the recording ended by a limit or for want of space, -1 on an error. After a result below 1 the writer can
// only be freed.
int ZMFWriterWriteRtpPacket(ZMFWriter *pWriter, const uint8_t *pPacket, uint32_t nBytes, char chMedia,
                            uint32_t nTimeMs);
int ZMFWriterWriteSample(ZMFWriter *pWriter, const uint8_t *pData, uint32_t nBytes, uint32_t nTimeMs,
                         uint32_t nType);

// With rules.bNeverLose faults of the disk and of times end the file and not the recording: it is completed,
// and the next one begins with the next key frame; what comes before that is left out.

// What is to be done each second, whether packets come or not: memory goes to the file, and with
// rules.bNeverLose the disk is told to keep it, clocks are compared, and room is looked at and made, a few
// steps at a time. Returns 1; 0 when the recording ended by a limit; the writer can then only be freed.
int ZMFWriterTick(ZMFWriter *pWriter);
// One more step to make room, for who has time between two seconds. Returns 1 while there are more.
int ZMFWriterRoomStep(ZMFWriter *pWriter);

// Says that packets are missing before the next one, which begins a key frame: what was begun of sound and
// picture ends here.
void ZMFWriterMarkHole(ZMFWriter *pWriter);

// Says that the clock of the media jumps with the next packet: the file ends here. Does nothing without
// rules.bNeverLose.
void ZMFWriterMarkJump(ZMFWriter *pWriter);

// Leaves out the time until the next sample: it follows 20 ms after the last one.
void ZMFWriterPause(ZMFWriter *pWriter);

int ZMFWriterRecordKind(const ZMFWriter *pWriter);
// The name that the current file will have. Returns its length, or 0 when the file is closed (or does not
// fit).
int ZMFWriterFileName(const ZMFWriter *pWriter, char *szOut, size_t nSize);

}  // namespace orx
