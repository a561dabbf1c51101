// Key-frame tests on the RTP packets of a video track. Any thread, one at a time for a track.
#pragma once

#include <cstdint>

#include "record/rtppacket.h"

namespace orx {

// What a test remembers from packet to packet of one track.
struct KeyWatch {
    int bKeySeen = 0;       // nKeyTime is set: every RTP time stamp is valid, 0 too
    uint32_t nKeyTime = 0;  // RTP time stamp of the last packet flagged: each picture is flagged once
    // The last packet ended a frame, so that the next begins one; before the first packet, too. Parameter
    // sets behind it open a new picture even when its time stamp is that of the last.
    int bAfterMarker = 1;
};

// Says whether a packet starts a key frame. Every packet of the track is to be shown, in order.
using KeyFrameProc = int (*)(KeyWatch *pWatch, const RtpPacket *pPacket);
int IsKeyH264(KeyWatch *pWatch, const RtpPacket *pPacket);
int IsKeyH265(KeyWatch *pWatch, const RtpPacket *pPacket);
int IsKeyJpeg(KeyWatch *pWatch, const RtpPacket *pPacket);
int IsKeyGeneric(KeyWatch *pWatch, const RtpPacket *pPacket);  // a codec that is only relayed

}  // namespace orx
