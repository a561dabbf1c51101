// The packetisers: turn the samples of a recording into RTP packets for one player, in its output queue. Each
// packet is stamped with its media time in ms. Samples come from a file: what one can break ends its
// packetising. Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "record/rtpout.h"

namespace orx {

constexpr uint32_t kMaxPayload = 1460;  // media bytes of one packet
// Least size of RtpOut::pScratch: an aggregate of very small units is longer than a packet's payload.
constexpr uint32_t kMinScratch = 8192;

// Writes the 12 bytes of an RTP header (marker 0) for the track (0..2) at a time in ms and steps its sequence
// number on. Returns 1, or 0 when the track's clock rate is no multiple of 1000.
int SetRtpHeader(RtpOut *pOut, uint8_t *pHeader, int nTrackId, uint32_t nTimeMs);

// Each queues the packets of one sample (the record without its 8-byte head) and returns how many there are,
// 0 on failure; packets queued before a failure stay.
//
// H.264: units with their lengths (see NalNext); single units, STAP-A and FU-A (RFC 6184).
int Pack2Rtp264Block(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);
// H.265: the same; single units, aggregates and fragments (RFC 7798).
int Pack2Rtp265Block(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);
// AAC: units with 2-byte lengths; one in each packet, or a part of one (RFC 3640, AAC-hbr), at any clock
// rate.
int Pack2RtpAacBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);
// AMR: storage frames; octet-aligned packets of up to 15 frames (RFC 4867).
int Pack2RtpAmrBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);
// JPEG: an image in a JFIF file, or the payloads of one image as they were recorded (RFC 2435).
int Pack2RtpJpegBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);
// G.711: a multiple of 160 bytes, 20 ms in each packet; any number with bSampleStamps.
int Pack2RtpG711Block(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);
// One application message of at most 1460 bytes.
int Pack2RtpUserBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId);

}  // namespace orx
