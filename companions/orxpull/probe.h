// What a camera sends, measured for a few seconds: a line for each track on standard output. Main thread.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "orxpull/pullsettings.h"
#include "record/codec.h"
#include "shared/loop.h"

namespace orx {

// What is seen of one track.
struct ProbeTrack {
    PlayTrack told;                 // by the description
    const Codec *pCodec = nullptr;  // null: not known
    uint32_t nWidth = 0, nHeight = 0;
    KeyWatch watch;
    uint32_t nPackets = 0;
    uint32_t nFirst = 0;               // stamp of the first packet
    std::set<int32_t> pictures, keys;  // stamps behind that one; some cameras send the same again, or go back
};

ProbeTrack ProbeTrackOf(const PlayTrack *pTold);
// One RTP packet of it.
void ProbePacket(ProbeTrack *pTrack, const uint8_t *pData, size_t nBytes);
// Whether pictures have told everything.
int ProbeIsSure(const ProbeTrack *pTrack);
// "video: H264 1280x720, 25 pictures a second, 2.0 s between key frames"
std::string ProbeLine(const ProbeTrack *pTrack);

// Asks the camera and prints. Returns the exit code: 0, or 1 with the reason on standard error.
int ProbeRun(Loop *pLoop, const PullSource *pSource);

}  // namespace orx
