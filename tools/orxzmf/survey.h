// What is in a recording, counted sample by sample, and what is wrong with it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recording.h"

namespace orx {

struct Survey {
    uint32_t nVideo = 0;
    uint32_t nKeys = 0;
    uint32_t nAudio = 0;
    uint32_t nText = 0;
    uint32_t nUser = 0;
    uint32_t nOther = 0;
    uint64_t nVideoBytes = 0;
    uint64_t nAudioBytes = 0;
    uint32_t nLargest = 0;            // largest video frame, bytes
    uint32_t nLastTimeMs = 0;         // largest time stamp
    uint64_t nTail = 0;               // bytes behind the last whole record
    std::vector<std::string> faults;  // empty when the file is sound
    std::vector<std::string> notes;   // worth knowing, no fault
};

// Reads every sample of a recording that was just opened.
void SurveyRecording(Recording *pRecording, Survey *pOut);

}  // namespace orx
