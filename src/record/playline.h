// The time line on which a player is given a recording. It has the times of the records; but where those
// jump, or stand still, it goes on in real time; and where only key frames are played, forwards or backwards,
// it goes on with their distances divided by the scale. No locking inside: one thread at a time.
#pragma once

#include <cstdint>

#include "record/rtpout.h"

namespace orx {

struct PlayLineTrack {
    int bKnown = 0;       // a record has come; the rest is set
    uint32_t nLast = 0;   // its time, scaled
    uint32_t nStep = 0;   // from the one before, when that was forwards
    uint32_t nShift = 0;  // what its times get
};

struct PlayLine {
    int nScale = 1;        // 1, or of key frames: 2 to 16, or -1 to -16 backwards
    uint32_t nStart = 0;   // ms, where playing with this scale began: there both times are the same
    uint32_t nLatest = 0;  // ms, on the line
    uint32_t nShift = 0;   // that the last jump made
    uint32_t nStands = 0;  // records since the line went on
    int bPictures = 0;     // there are some
    PlayLineTrack tracks[kMaxTracks];
};

enum PlayLineFault {
    LINE_FOLLOWS,  // the recording
    LINE_JUMPS,    // here the recording does, and the line does not
    LINE_STANDS,   // the recording has begun to
};

// Begins anew at a time of the recording, ms.
void PlayLineBegin(PlayLine *pLine, uint32_t nMs, int nScale);

// The time on the line, ms, of the next record, of track nTrack (0..2).
uint32_t PlayLineTime(PlayLine *pLine, int nTrack, int bPicture, uint32_t nMs, PlayLineFault *pFault);

// The time of the recording, ms, at a time of the line; exact, or up to a scale later.
uint32_t PlayLineMedia(const PlayLine *pLine, uint32_t nLineMs);

// The RTP time stamp that stands for a time of the line, in us, on a clock of nRate Hz.
inline uint32_t PlayStamp(uint32_t nRate, int64_t nUs)
{
    return static_cast<uint32_t>(nUs * nRate / 1000000);
}

}  // namespace orx
