#include "orxweb/liveclock.h"

#include <cstdlib>

#include "base/bytes.h"

namespace orx {

constexpr int64_t kJumpMs = 10000;  // a step that far from the time that went by is none of the media
constexpr int64_t kBackMs = 1000;   // pictures that are shown in another order go back by less
constexpr int64_t kApartMs = 10;    // by less nobody hears or sees that two tracks are apart
constexpr int64_t kFarMs = 8000;    // by more the tracks have clocks of their own
constexpr size_t kSenderReport = 28;
constexpr unsigned kTypeSender = 200;

static int64_t MsOf(const LiveTrackClock *pTrack, int64_t nTicks)
{
    return nTicks * 1000 / pTrack->nRate;
}

// Where the sender's reports put a stamp on its own clock.
static int64_t ToldMs(const LiveTrackClock *pTrack, uint32_t nStamp)
{
    return pTrack->nToldMs + MsOf(pTrack, static_cast<int32_t>(nStamp - pTrack->nToldStamp));
}

// A track's first packet lies where it comes in, or where reports put it beside the other.
static void Begin(LiveClock *pClock, LiveTrackClock *pTrack, uint32_t nStamp, uint64_t nNowMs)
{
    if (!pClock->bBegun)
        pClock->nBeginMs = nNowMs;
    pClock->bBegun = 1;
    pTrack->bKnown = 1;
    pTrack->nLastStamp = nStamp;
    pTrack->nShiftMs = static_cast<int64_t>(nNowMs - pClock->nBeginMs);
    if (!pTrack->bTold)
        return;
    int64_t nToldMs = ToldMs(pTrack, nStamp);
    if (!pClock->bTold)
        pClock->nToldMs = pTrack->nShiftMs - nToldMs;
    pClock->bTold = 1;
    int64_t nMs = nToldMs + pClock->nToldMs;
    if (nMs >= 0 && std::llabs(nMs - pTrack->nShiftMs) < kFarMs)
        pTrack->nShiftMs = nMs;
}

int64_t LiveClockPacket(LiveClock *pClock, int nTrack, uint32_t nStamp, uint64_t nNowMs)
{
    LiveTrackClock *pTrack = &pClock->tracks[nTrack];
    int bFirst = !pTrack->bKnown;
    if (bFirst)
        Begin(pClock, pTrack, nStamp, nNowMs);
    pTrack->nTicks += static_cast<int32_t>(nStamp - pTrack->nLastStamp);
    pTrack->nLastStamp = nStamp;
    int64_t nMs = MsOf(pTrack, pTrack->nTicks) + pTrack->nShiftMs;
    auto nGoneMs = static_cast<int64_t>(nNowMs - pTrack->nArrivedMs);
    if (!bFirst && (nMs - pTrack->nLastMs > nGoneMs + kJumpMs || nMs - pTrack->nLastMs < -kBackMs)) {
        pTrack->nShiftMs += pTrack->nLastMs + nGoneMs + 1 - nMs;
        nMs = pTrack->nLastMs + nGoneMs + 1;
        pTrack->bTold = 0;  // it was told of the stamps before
    }
    pTrack->nLastMs = nMs;
    pTrack->nArrivedMs = nNowMs;
    return nMs;
}

void LiveClockReport(LiveClock *pClock, int nTrack, const uint8_t *pData, size_t nBytes)
{
    LiveTrackClock *pTrack = &pClock->tracks[nTrack];
    if (nBytes < kSenderReport || pData[0] >> 6 != 2 || pData[1] != kTypeSender)
        return;
    int64_t nSeconds = GetBe(pData + 8, 4);
    int64_t nPart = GetBe(pData + 12, 4);
    if (nSeconds == 0 && nPart == 0)  // it knows no wall clock
        return;
    pTrack->bTold = 1;
    pTrack->nToldMs = nSeconds * 1000 + (nPart * 1000 >> 32);
    pTrack->nToldStamp = GetBe(pData + 16, 4);
    if (!pTrack->bKnown)
        return;
    int64_t nStep = MsOf(pTrack, static_cast<int32_t>(pTrack->nToldStamp - pTrack->nLastStamp));
    int64_t nMs = MsOf(pTrack, pTrack->nTicks) + nStep + pTrack->nShiftMs;
    if (!pClock->bTold) {
        pClock->bTold = 1;
        pClock->nToldMs = nMs - pTrack->nToldMs;
        return;
    }
    int64_t nError = pTrack->nToldMs + pClock->nToldMs - nMs;
    // pictures stay where they are, and the sound, which is steered, comes to them
    if (nTrack == 0)
        pClock->nToldMs -= nError;
    else if (std::llabs(nError) > kApartMs && std::llabs(nError) < kFarMs)
        pTrack->nShiftMs += nError;
}

}  // namespace orx
