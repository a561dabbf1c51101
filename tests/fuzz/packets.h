// RTP packets out of a fuzz input, for the depacketisers: each is a 2-byte length and as many bytes.
#pragma once

#include "record/depacketise.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"

namespace orx {

inline int InitPacketFuzz()
{
    ConsoleSetDaemon(1);
    AssertSurvivePeerFaults(1);
    return 0;
}

// Hands every packet of the input to the procedure, until one ends the recording. pfnSample sees each sample.
inline void FeedPackets(DepacketProc pfn, int bWideband, const uint8_t *pData, size_t nBytes,
                        SampleProc pfnSample)
{
    Depacketiser track;
    track.bWideband = bWideband;
    track.pfnSample = pfnSample;
    track.pContext = &track;
    ByteReader in{pData, nBytes};
    uint32_t nTimeMs = 0xFFFFFF00;
    int nResult = 1;
    while (nResult == 1 && in.nLeft >= 2) {
        uint32_t nPacket = std::min<uint32_t>(ReadBe(&in, 2), static_cast<uint32_t>(in.nLeft));
        const uint8_t *p = ReadBytes(&in, nPacket);
        std::unique_ptr<uint8_t[]> copy(
            new uint8_t[nPacket]);  // of its very size, so that a step past its end is seen
        std::copy_n(p, nPacket, copy.get());
        nResult = pfn(&track, copy.get(), nPacket, nTimeMs += 10);
        ORX_ASSERT(nResult == 1 || nResult == -1, "taken or refused");
        ORX_ASSERT(track.nBytes <= track.nTotal, "the frame lies in its buffer");
    }
    DepacketiserReset(&track);
}

// What every sample must be: not empty, in the buffer, and nothing else is held meanwhile.
inline int CheckSample(void *pContext, const uint8_t *pSample, uint32_t nBytes, char chMedia, uint32_t nType)
{
    ORX_ASSERT(static_cast<Depacketiser *>(pContext)->nBytes == 0, "nothing is held");
    ORX_ASSERT(nBytes > 0 && nType >> 8 == static_cast<uint32_t>(chMedia), "a sample of its kind");
    std::vector<uint8_t> copy(pSample, pSample + nBytes);  // reads all of it
    return copy.size() == nBytes;
}

}  // namespace orx
