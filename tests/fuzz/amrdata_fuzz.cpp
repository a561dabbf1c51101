// The depacketiser of AMR, narrow and wide. An input is a run of RTP packets, each behind a 2-byte length.
#include "record/depacketise.h"

#include "packets.h"

using namespace orx;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return InitPacketFuzz();
}

// Frames must fill the sample.
static int OnSample(void *pContext, const uint8_t *pSample, uint32_t nBytes, uint32_t /*nTimeMs*/,
                    uint32_t nType)
{
    ByteReader in{pSample, nBytes};
    while (in.nLeft > 0) {
        int bWideband = static_cast<Depacketiser *>(pContext)->bWideband;
        ORX_ASSERT(!(in.p[0] & 0x80) && ReadBytes(&in, AmrFrameBytes(bWideband, in.p[0] >> 3 & 0x0F)),
                   "whole frames");
    }
    return CheckSample(pContext, pSample, nBytes, 'a', nType);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    FeedPackets(WriteAmrRtpData, 0, pData, nBytes, OnSample);
    FeedPackets(WriteAmrRtpData, 1, pData, nBytes, OnSample);
    return 0;
}
