// What the packetisers need to know of one player: how its packets travel, where they queue, and the RTP
// state of its tracks. A session embeds one. Scheduler thread only.
#pragma once

#include <cstdint>

#include "base/blockqueue.h"

namespace orx {

constexpr int kMaxTracks = 8;             // tracks that one player can set up
constexpr uint32_t kInterleaveBytes = 4;  // '$', channel, 16-bit length (RFC 2326, section 10.12)
constexpr uint32_t kRtpHeaderBytes = 12;  // RFC 3550, section 5.1, without contributing sources

struct RtpTrack {
    int bSetUp = 0;
    uint32_t nMediaType = 0;  // MEDIA_...
    uint8_t nPayloadType = 0;
    uint32_t nSsrc = 0;          // synchronisation source written into packets and reports
    uint16_t nNextSeq = 0;       // sequence number of the next packet that is made here
    uint32_t nTimeScale = 0;     // RTP clock rate in Hz
    uint32_t nUnitTicks = 1024;  // AAC: how far a unit goes on this clock
    uint32_t nStampBase = 0;     // added to every time stamp
    uint32_t nNextStamp = 0;     // G.711 stamped by its samples: where the last packet ends
};

struct RtpOut {
    int bInterleaved = 0;         // packets carry the 4-byte prefix of the RTSP connection
    int bSampleStamps = 0;        // G.711 is stamped by its samples, and packets may be of any length
    uint8_t *pScratch = nullptr;  // room for one packet while it is built; from malloc, the owner's
    uint32_t nScratch = 0;        // its size
    BlockQueue Outq;              // waits to be sent
    int nTracks = 0;
    RtpTrack *tracks[kMaxTracks] = {};  // the owner's records
};

}  // namespace orx
