// The numbers of a push that outlives the camera's sessions: behind a pause the camera comes back with other
// sources, sequence numbers, stamps and perhaps another wall clock, and what goes to Orx goes on behind what
// went before. Nothing is changed until then. The loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orx {

struct LineTrack {
    int nRate = 0;           // of its stamps, Hz
    int bKnown = 0;          // a packet has gone; what follows is set
    int bJoins = 0;          // its next packet is the first of another source
    uint32_t nOwnSsrc = 0;   // the camera's
    uint32_t nGoneSsrc = 0;  // that it had before; the same where it had no other
    uint32_t nSsrc = 0;      // from here on as they went
    uint16_t nLastSeq = 0;
    uint32_t nLastStamp = 0;  // the latest one: pictures may come in another order than they are shown in
    uint64_t nLastMs = 0;     // when that went
    uint16_t nSeqShift = 0;   // added to what comes
    uint32_t nStampShift = 0;
    int bTold = 0;  // a sender report has gone: its two times
    uint64_t nToldNtp = 0;
    uint32_t nToldStamp = 0;
    uint64_t nToldMs = 0;
};

struct PushLine {
    std::vector<LineTrack> tracks;  // one for each, with nRate
    uint64_t nNtpShift = 0;         // added to the wall clock in reports, the same for all tracks
    int bClockJoins = 0;            // the next report tells of another wall clock
};

// The camera's next packets are those of another session.
void LineJoin(PushLine *pLine);

// A packet of RTP of a track (an index into tracks): puts the numbers into it with which it goes on. Returns
// 1, or 0 for what is no RTP.
int LineRtp(PushLine *pLine, size_t nTrack, uint8_t *pPacket, size_t nBytes, uint64_t nNowMs);

// A compound of RTCP. Returns the bytes of it that are to go on, which are fewer where it says goodbye: the
// push has not ended; 0: none.
size_t LineRtcp(PushLine *pLine, size_t nTrack, uint8_t *pPacket, size_t nBytes, uint64_t nNowMs);

}  // namespace orx
