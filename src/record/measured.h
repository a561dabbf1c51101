// What is known of recordings that their writer did not close: duration and counts, and where key frames lie.
// Finding it takes a walk through the whole file, so it is done in steps and remembered for the files that
// were asked for last. Scheduler thread only.
#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace orx {

// A key frame that a seek may begin at: for every time above nBefore it leads where the file's begin leads.
struct SeekPoint {
    uint64_t nPos = 0;     // from the start of the file
    uint32_t nBefore = 0;  // latest time of the records before, ms
    uint32_t nTimeMs = 0;  // its own
};

constexpr uint32_t kSeekPoints = 256;

struct Measured {
    uint32_t uDuration = 0;  // ms
    uint32_t uVideoSamples = 0;
    uint32_t uTextSamples = 0;
    uint32_t uUserSamples = 0;
    uint32_t uKeyFrames = 0;
    uint32_t nInterval = 1;  // every how many key frames one is a seek point
    uint32_t nPoints = 0;
    SeekPoint points[kSeekPoints];
};

// One step of measuring the open file fd, whose records begin at nBegin. Returns its result, which may change
// with the next call, or null: the file takes another step. nWork: see recordwalk.h.
const Measured *MeasureStep(int fd, const struct stat *pInfo, uint64_t nBegin, uint32_t nWork);

// Where a seek for nTimeMs begins: at the last point that leads there, at nStart at least; bExact: none that
// is later itself.
uint64_t MeasuredSeekStart(const Measured *pMeasured, uint32_t nTimeMs, uint64_t nStart, int bExact);

}  // namespace orx
