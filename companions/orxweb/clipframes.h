// The sound of a clip, frame by frame in order: units of AAC as they are recorded, or what other sound was
// encoded to, which then stands in the cache file. One thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "orxweb/clipfile.h"
#include "orxweb/clipsurvey.h"
#include "orxzmf/soundclock.h"

namespace orx {

struct ClipFrame {
    int64_t nAt = 0;  // ticks of the sound's track
    uint32_t nTicks = 0;
    uint32_t nBytes = 0;
    uint64_t nSource = 0;   // of its record in the recording, or where it stands in the cache file
    uint32_t nSkip = 0;     // units of that record before it
    uint32_t nDropped = 0;  // units that are left out between the frame before and this one
};

struct ClipFrames {
    const ClipSurvey *pSurvey = nullptr;  // not owned
    int bUnits = 0;                       // they are units of the recording
    SoundClock clock;
    size_t nItem = 0;   // whose units are handed out
    uint64_t nPos = 0;  // of its record
    uint32_t nInItem = 0;
    size_t nNext = 0;  // unit, or encoded frame
    std::vector<ClipFrame> coded;
};

// Readies them; sound that needs it is encoded into the cache file, which takes long. What cannot be is left
// out of the survey. pfnMeanwhile is called again and again. Returns 0 when *pbStop was set or the file
// cannot be written.
int ClipFramesBegin(ClipFrames *pFrames, ClipSurvey *pSurvey, int fd, uint64_t nFileBytes, ClipFileOut *pOut,
                    const std::atomic<int> *pbStop, void (*pfnMeanwhile)());

// Returns 1, or 0 behind the last one.
int ClipFramesNext(ClipFrames *pFrames, ClipFrame *pOut);

}  // namespace orx
