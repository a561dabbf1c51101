#include "soundclock.h"

#include <algorithm>
#include <cmath>

namespace orx {

constexpr int64_t kGapMs =
    60;  // stamps later than this leave a gap: more than jitter, less than three packets
constexpr int64_t kOverlapMs = 200;  // stamps earlier than this: the sound overlaps
constexpr double kSmoothSeconds = 4;
constexpr int64_t kSteerFromMs = 15;
constexpr int64_t kSteerToMs = 3;
constexpr int64_t kMostOf = 100;  // a piece changes by at most this part of it, which nobody hears

void SoundClockBlock(SoundClock *pClock, int64_t nTimeMs, int64_t nSamples)
{
    int64_t nDue = nTimeMs * pClock->nRate / 1000;
    if (pClock->nNext < 0 || nDue > pClock->nNext + kGapMs * pClock->nRate / 1000) {
        pClock->nNext = nDue;
        pClock->dOffset = 0;
        pClock->bSteering = 0;
        return;
    }
    auto dOffset = static_cast<double>(nDue - pClock->nNext);
    double dPart = static_cast<double>(nSamples) / (kSmoothSeconds * static_cast<double>(pClock->nRate));
    pClock->dOffset += (dOffset - pClock->dOffset) * std::min(1.0, dPart);
    if (-dOffset > static_cast<double>(kOverlapMs * pClock->nRate) / 1000)
        pClock->dOffset = dOffset;
}

int SoundClockPiece(SoundClock *pClock, int64_t nSamples, int64_t *pnAt, int64_t *pnLonger)
{
    double dMs = pClock->dOffset * 1000 / static_cast<double>(pClock->nRate);
    if (dMs < -kOverlapMs) {
        pClock->dOffset += static_cast<double>(nSamples);
        pClock->nDropped += nSamples;
        return 0;
    }
    pClock->bSteering = std::fabs(dMs) > (pClock->bSteering ? kSteerToMs : kSteerFromMs);
    int64_t nMost = pClock->bSteering ? std::max<int64_t>(1, nSamples / kMostOf) : 0;
    *pnAt = pClock->nNext;
    *pnLonger = std::clamp<int64_t>(std::llrint(pClock->dOffset), -nMost, nMost);
    pClock->dOffset -= static_cast<double>(*pnLonger);
    pClock->nNext += nSamples + *pnLonger;
    return 1;
}

}  // namespace orx
