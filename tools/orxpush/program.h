// One program that orxpush feeds: its connection, its RTP streams, and its answers to what the server asks.
#pragma once

#include <cstdio>
#include <string>

#include "client/rtppack.h"
#include "client/rtspclient.h"
#include "options.h"
#include "source.h"

namespace orx {

enum PushTrackKind { PUSH_VIDEO, PUSH_AUDIO, PUSH_DATA, PUSH_TRACK_KINDS };

struct PushProgram {
    const PushOptions *pOptions = nullptr;  // not owned
    const PushSource *pSource = nullptr;    // not owned
    int nNumber = 0;
    RtspClient client;
    RtpStream streams[PUSH_TRACK_KINDS];
    int nChannels[PUSH_TRACK_KINDS] = {-1, -1, -1};  // interleaved channel of RTP; -1 without that track
    uint32_t nFirstTimes[PUSH_TRACK_KINDS] = {};     // RTP time of media time 0
    size_t nPicture = 0;                             // the next picture of the source
    uint64_t nUnits[PUSH_TRACK_KINDS] = {};          // pictures, blocks of sound, data packets made so far
    long nCredit = 0;   // bytes that the rate allows the pictures so far, less those used
    int bSleeping = 0;  // the server has asked for silence
    int bFailed = 0;
    FILE *pDump = nullptr;  // owned
    uint64_t nPackets = 0, nBytes = 0;

    PushProgram() = default;
    ~PushProgram();
    PushProgram(const PushProgram &) = delete;
    PushProgram &operator=(const PushProgram &) = delete;
};

// Connects, announces, sets up and starts program number nNumber. Returns 1, or 0 after saying why on
// standard error.
int PushProgramStart(PushProgram *pProgram, const PushOptions *pOptions, const PushSource *pSource,
                     int nNumber);
// Sends the next unit of a track, due at that media time. A lost connection sets bFailed.
void PushProgramSend(PushProgram *pProgram, PushTrackKind kind, uint64_t nMediaUs);
// Sends a sender report for each track.
void PushProgramReport(PushProgram *pProgram, uint64_t nMediaUs);
// Answers what the server has asked meanwhile. A lost connection sets bFailed.
void PushProgramServe(PushProgram *pProgram);
// Takes leave with TEARDOWN.
void PushProgramStop(PushProgram *pProgram);

}  // namespace orx
