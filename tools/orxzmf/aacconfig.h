// What a decoder has to know of AAC (ISO 14496-3), which a recording has in its description.
#pragma once

#include <cstdint>
#include <string>

#include "record/sdpscan.h"

namespace orx {

struct AacConfig {
    std::string bytes;         // the configuration itself
    uint32_t nObjectType = 0;  // of the core: 2 is AAC-LC
    uint32_t nRateIndex = 0;   // of the core's sampling rate; 15: one that the table does not have
    uint32_t nChannels = 0;    // as configured: 7 means 8
};

// Reads the configuration of an audio track. Returns 1, or 0 when it has none that can be read.
int AacConfigRead(const SdpCodec &audio, AacConfig *pOut);

// What goes before a unit of nBytes in a file of bare AAC (ADTS). Empty when the form cannot say it.
std::string AdtsHead(const AacConfig &config, uint32_t nBytes);

}  // namespace orx
