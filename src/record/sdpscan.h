// What a recording takes from the description of a program: the codecs of its video and audio. Scheduler
// thread only.
#pragma once

#include "record/depacketise.h"

namespace orx {

struct SdpCodecs {
    // Names in normal form or, of a codec that cannot be recorded, as they stand; empty without the medium.
    char szVideo[16] = "";  // "H264", "JPEG"
    char szAudio[16] = "";  // "AMR-NB", "AMR-WB", "PCMU", "PCMA"
};

// Reads at most two media sections that are of use. Faults are printed and end the scan.
void SdpScanCodecs(const char *szSdp, SdpCodecs *pOut);

// The procedure for a codec name; null, printed, for one that cannot be recorded, and silently for an empty
// name.
DepacketProc SdpVideoDepacketiser(const char *szCodec);
DepacketProc SdpAudioDepacketiser(const char *szCodec);

}  // namespace orx
