// The times of a program's tracks on one line, in ms from its first packet on: from their RTP stamps (RFC
// 3550), and from the sender's reports, which say where the tracks stand to each other. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr int kLiveTracks = 2;

struct LiveTrackClock {
    int64_t nRate = 0;  // Hz, set before use
    int bKnown = 0;     // a packet came
    uint32_t nLastStamp = 0;
    int64_t nTicks = 0;       // since the first packet
    int64_t nShiftMs = 0;     // of that on the line
    int64_t nLastMs = 0;      // of the last packet
    uint64_t nArrivedMs = 0;  // when it came
    int bTold = 0;            // a report came
    uint32_t nToldStamp = 0;
    int64_t nToldMs = 0;  // of the sender's clock
};

struct LiveClock {
    LiveTrackClock tracks[kLiveTracks];
    int bBegun = 0;
    uint64_t nBeginMs = 0;
    int bTold = 0;        // a track's place on the sender's clock is known
    int64_t nToldMs = 0;  // what to add to that for the line
};

// The time of a packet that came at nNowMs. Stamps that jump go on with the arrival.
int64_t LiveClockPacket(LiveClock *pClock, int nTrack, uint32_t nStamp, uint64_t nNowMs);
// Takes a packet of RTCP in.
void LiveClockReport(LiveClock *pClock, int nTrack, const uint8_t *pData, size_t nBytes);

}  // namespace orx
