// RTP and RTCP packets as both sides of a connection need them (RFC 3550, RFC 2326 section 10.12). Any
// thread.
// Written apart from the server's own, which it helps to test (see rtspclient.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orx {

constexpr size_t kRtpHeadBytes = 12;   // without contributing sources
constexpr size_t kFrameHeadBytes = 4;  // '$', channel, 16-bit length

struct RtpHead {
    int bMarker = 0;
    uint8_t nPayloadType = 0;
    uint16_t nSequence = 0;
    uint32_t nTimestamp = 0;
    uint32_t nSsrc = 0;
    size_t nHeadBytes = kRtpHeadBytes;  // where the payload starts, sources and extension passed
};

// Returns 1, or 0 with *pOut untouched for what is no RTP packet of version 2.
int RtpParseHead(const void *pPacket, size_t nBytes, RtpHead *pOut);
// Writes the 12 bytes of a head without sources or extension; nHeadBytes is not looked at.
void RtpWriteHead(void *pPacket, const RtpHead *pHead);

// Appends '$', the channel and the length; the packet of nBytes (below 65536) is to follow.
void FrameAddHead(std::string *pOut, int nChannel, size_t nBytes);

// A receiver report (28 + 4 bytes) about one source, with an empty description.
std::string RtcpReceiverReport(uint32_t nOwnSsrc, uint32_t nSourceSsrc, uint32_t nHighestSequence);
// A sender report of wall clock now, and a description with the given name.
std::string RtcpSenderReport(uint32_t nSsrc, uint32_t nRtpTime, uint32_t nPackets, uint32_t nOctets,
                             const char *szName);

}  // namespace orx
