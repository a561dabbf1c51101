// What the head of an .mp4 says of a track's codec: the boxes that decoders are set up with (ISO 14496-14
// and -15), and the names that browsers ask by (RFC 6381). Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "record/codec.h"
#include "record/paramsets.h"

namespace orx {

struct ClipVideo {
    const Codec *pCodec = nullptr;  // null without pictures
    uint32_t nWidth = 0;
    uint32_t nHeight = 0;
    ParamSets sets;         // the first ones; owned, see ClipVideoFree
    int bSetsInside = 0;    // they change: pictures keep theirs
    uint32_t nDelayMs = 0;  // pictures are decoded in another order: so much later than their times
};

struct ClipAudio {
    std::string config;  // of AAC; empty without sound
    uint32_t nObjectType = 2;
    uint32_t nRate = 0;  // of the track's clock, Hz
    uint32_t nChannels = 1;
};

void ClipVideoFree(ClipVideo *pVideo);

// Reads the size out of the sequence parameter set. Returns 1, or 0 when there is none that can be read.
int ClipVideoMeasure(ClipVideo *pVideo);

// The sample description's box with what belongs in it.
std::string ClipVideoEntry(const ClipVideo *pVideo);
std::string ClipAudioEntry(const ClipAudio *pAudio);

// Their names for the "codecs" parameter; empty without the track.
std::string ClipVideoName(const ClipVideo *pVideo);
std::string ClipAudioName(const ClipAudio *pAudio);

}  // namespace orx
