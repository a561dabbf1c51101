// Bounds-checked reading and writing of big-endian fields. A reader knows how much is left and remembers the
// first failure, so that a whole record is read first and judged once. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace orx {

struct ByteReader {
    const uint8_t *p;  // next byte to read, not owned
    size_t nLeft;      // bytes left from p on
    int bFailed = 0;   // 1 once something was asked for that is not there; every later read fails, too
};

// The next nBytes bytes, stepped over; null, and failed for good, when fewer are left.
inline const uint8_t *ReadBytes(ByteReader *pIn, size_t nBytes)
{
    if (pIn->bFailed || nBytes > pIn->nLeft) {
        pIn->bFailed = 1;
        return nullptr;
    }
    pIn->nLeft -= nBytes;
    return std::exchange(pIn->p, pIn->p + nBytes);
}

// An unsigned number of 1..4 bytes, first byte highest; 0 when failed.
inline uint32_t ReadBe(ByteReader *pIn, size_t nBytes)
{
    const uint8_t *p = ReadBytes(pIn, nBytes);
    uint32_t nValue = 0;
    for (size_t i = 0; p && i < nBytes; i++)
        nValue = nValue << 8 | p[i];
    return nValue;
}

// The number of nBytes (1..4) bytes at p, first byte highest. The caller knows that they are there.
inline uint32_t GetBe(const void *p, size_t nBytes)
{
    ByteReader in{static_cast<const uint8_t *>(p), nBytes};
    return ReadBe(&in, nBytes);
}

// Stores the low nBytes (1..4) bytes of nValue at p, highest first. The caller knows that there is room.
inline void PutBe(void *p, size_t nBytes, uint32_t nValue)
{
    auto *pOut = static_cast<uint8_t *>(p);
    for (size_t i = nBytes; i-- > 0; nValue >>= 8)
        pOut[i] = static_cast<uint8_t>(nValue);
}

}  // namespace orx
