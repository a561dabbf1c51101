// What a recording takes from the description of a program: the codecs of its video and audio. Scheduler
// thread only.
#pragma once

#include "record/depacketise.h"

namespace orx {

struct SdpCodecs {
    char szVideo[16] = "";  // "H264", "JPEG", or the name as it stands; empty without video
    char szAudio[16] =
        "";  // "AMR-NB", "AMR-WB", "PCMU", "PCMA", or the name as it stands; empty without audio
};

// Reads at most two media sections that are of use. Faults are printed and end the scan.
void SdpScanCodecs(const char *szSdp, SdpCodecs *pOut);

// The procedure for a codec name; null, printed, for one that cannot be recorded, and silently for an empty
// name.
DepacketProc SdpVideoDepacketiser(const char *szCodec);
DepacketProc SdpAudioDepacketiser(const char *szCodec);

}  // namespace orx
