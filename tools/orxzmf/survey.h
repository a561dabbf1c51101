// What is in a recording, counted sample by sample, and what is wrong with it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recording.h"

namespace orx {

// What a recording is good for. The numbers are exit codes.
enum Verdict : int {
    VERDICT_SOUND = 0,
    VERDICT_UNREADABLE = 1,   // no recording, or not there
    VERDICT_INTERRUPTED = 3,  // sound but for its end, which was never written
    VERDICT_EMPTY = 4,        // without a picture
    VERDICT_DAMAGED = 5,
};

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
    int bInterrupted = 0;             // it was never closed
    std::vector<std::string> faults;  // what is damaged
    std::vector<std::string> notes;   // worth knowing, no fault
};

Verdict SurveyVerdict(const Survey &survey);
const char *VerdictName(Verdict nVerdict);

// Reads every sample of a recording that was just opened.
void SurveyRecording(Recording *pRecording, Survey *pOut);

}  // namespace orx
