// What a recording takes from the description of a program: the codecs of its video and audio. Scheduler
// thread only.
#pragma once

#include <cstdint>
#include <string_view>

#include "record/codec.h"

namespace orx {

struct SdpCodec {
    const Codec *pCodec = nullptr;  // null without the medium, and for a codec that cannot be recorded
    std::string_view format;        // its format line, a view of the description (see SdpReadFormat)
    uint32_t nRate = 0;             // of its clock, Hz; 0 when it is not told
    char szName[16] = "";           // in normal form or, of a codec not known, as it stands; empty without
};
struct SdpCodecs {
    SdpCodec video;
    SdpCodec audio;
};

// Reads at most two media sections that are of use. Faults are printed and end the scan. nUser:
// CODEC_RECORDING, or CODEC_WIDE_RECORDING where files of version 101 may be meant.
void SdpScanCodecs(const char *szSdp, SdpCodecs *pOut, CodecUser nUser = CODEC_WIDE_RECORDING);

// The procedure for a codec; null for one that cannot be recorded (printed, szKind being "Video" or "Audio"),
// and silently without the medium.
DepacketProc SdpDepacketiser(const SdpCodec *pCodec, const char *szKind);

}  // namespace orx
