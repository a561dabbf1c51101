// RTP packets (RFC 3550) and the frames that carry them on a connection (RFC 2326, section 10.12), as bytes
// that a test knows.
#pragma once

#include <string>

#include "base/bytes.h"

namespace orx {

// A number of nBytes bytes, highest first.
inline std::string Be(uint32_t nValue, size_t nBytes)
{
    std::string bytes(nBytes, '\0');
    PutBe(bytes.data(), nBytes, nValue);
    return bytes;
}

struct RtpFields {
    uint32_t nType = 96;
    uint16_t nSequence = 0;
    uint32_t nTime = 0;
    bool bMarker = false;
    uint32_t nSsrc = 0x1234ABCD;
    uint32_t nFlags = 0x80;  // the first byte: version 2, without padding, extension and sources
};

// payload: all that follows the fixed head.
inline std::string MakeRtp(const RtpFields &head, const std::string &payload)
{
    return Be(head.nFlags, 1) + Be((head.bMarker ? 0x80u : 0u) | head.nType, 1) + Be(head.nSequence, 2) +
           Be(head.nTime, 4) + Be(head.nSsrc, 4) + payload;
}

inline std::string Frame(int nChannel, const std::string &packet)
{
    return "$" + Be(static_cast<uint32_t>(nChannel), 1) + Be(static_cast<uint32_t>(packet.size()), 2) + packet;
}

// Bytes in which a lost, doubled or moved piece shows.
inline std::string Pattern(size_t nBytes, uint32_t nSeed)
{
    std::string data(nBytes, '\0');
    for (char *p = data.data(), *pEnd = p + nBytes; p != pEnd; p++) {  // quick without an optimizer, too
        nSeed = nSeed * 1664525u + 1013904223u;
        *p = static_cast<char>(nSeed >> 24);
    }
    return data;
}

}  // namespace orx
