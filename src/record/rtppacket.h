// RTP packets taken apart (RFC 3550, section 5), and the words of the H.264 payload (RFC 6184). Any thread.
#pragma once

#include <cstdint>

namespace orx {

// An RTP packet taken apart.
struct RtpPacket {
    int bMarker = 0;
    uint16_t nSeq = 0;
    uint32_t nRtpTime = 0;
    const uint8_t *pPayload = nullptr;
    uint32_t nPayload = 0;
};
// Returns 1, or 0 when the bytes are no whole RTP packet.
int RtpPacketParse(const uint8_t *pPacket, uint32_t nBytes, RtpPacket *pOut);

// Unit types of H.264 (RFC 6184, section 5.2), and the bits of a fragment's second byte.
enum NalType : uint8_t { NAL_IDR = 5, NAL_SPS = 7, NAL_LAST_SINGLE = 23, NAL_STAP_A = 24, NAL_FU_A = 28 };
constexpr uint8_t FU_START = 0x80;
constexpr uint8_t FU_END = 0x40;

}  // namespace orx
