// What is changed in a live track's packets and reports, where they come in and before anybody else holds
// them. A track of which nothing is changed goes on byte for byte as it was pushed. Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "server/core/program.h"

namespace orx {

// Brings an RTP packet (RFC 3550, section 5.1) of at least 12 bytes, without the '$' head, to what the track
// is told as.
void RewritePacket(const TrackRewrite *pRewrite, uint8_t *pRtp, size_t nBytes);

// The same of a compound RTCP packet that RtcpReadCompound takes: the stamps of sender reports, and the SSRC
// of those and of descriptions.
void RewriteReport(const TrackRewrite *pRewrite, uint8_t *pRtcp, size_t nBytes);

// The first packet of another pusher, as it is pushed, of a clock of nRate Hz: the track goes on behind the
// last packet that was noted, the number by one, the stamp by the time that went by.
void RewriteResume(TrackRewrite *pRewrite, const uint8_t *pRtp, uint32_t nRate);

// Notes a packet as players get it.
void RewriteNote(TrackRewrite *pRewrite, const uint8_t *pRtp);

// Another pusher goes on with the track. nOwnType and nType: the payload type that its packets have, and that
// they get.
void RewriteContinue(TrackRewrite *pRewrite, int nOwnType, int nType);

// To be called behind each change of the fields.
void RewriteChanged(TrackRewrite *pRewrite);

}  // namespace orx
