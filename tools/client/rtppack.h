// Packs pictures and sound into RTP packets: H.264 (RFC 6184, packetisation mode 1), JPEG (RFC 2435), and
// payloads that are carried as they are. Any thread; a stream belongs to one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "client/jpegfile.h"

namespace orx {

struct RtpStream {
    uint8_t nPayloadType = 0;
    uint16_t nSequence = 0;  // of the next packet
    uint32_t nSsrc = 0;
    size_t nMaxPacket = 1400;            // bytes of one packet, the RTP head included
    int bSingle = 0;                     // 1: no aggregation; every unit that fits travels alone
    uint32_t nPackets = 0, nOctets = 0;  // packed so far, as sender reports count
};

using RtpPackets = std::vector<std::string>;

// One picture's units. The last packet carries the marker. While the packets hold less than nFillBytes
// together, filler data units follow, the first one completing the last small packet. Packets are appended to
// pOut.
void PackH264(RtpStream *pStream, const std::vector<std::string_view> &units, uint32_t nTimestamp,
              size_t nFillBytes, RtpPackets *pOut);
// One JPEG picture; its tables travel in the first packet.
void PackJpeg(RtpStream *pStream, const JpegPicture *pPicture, uint32_t nTimestamp, RtpPackets *pOut);
// One packet with the payload as it is.
void PackPlain(RtpStream *pStream, std::string_view payload, int bMarker, uint32_t nTimestamp,
               RtpPackets *pOut);

// A-law (ITU-T G.711) of one 16-bit sample.
uint8_t EncodeALaw(int nSample);
// nSamples of a sine tone at 8000 Hz in A-law, going on from sample number nFirst.
std::string ToneALaw(uint64_t nFirst, size_t nSamples, int nHertz);

}  // namespace orx
