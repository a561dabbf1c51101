// The depacketiser of H.264. An input is a run of RTP packets, each behind a 2-byte length.
#include "record/depacketise.h"

#include "packets.h"

using namespace orx;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return InitPacketFuzz();
}

// Units must fill the sample: it is what the packetiser takes apart again.
static int OnSample(void *pContext, const uint8_t *pSample, uint32_t nBytes, uint32_t /*nTimeMs*/,
                    uint32_t nType)
{
    ByteReader in{pSample, nBytes};
    while (in.nLeft > 0) {
        uint32_t nUnit = ReadBe(&in, 2);
        ORX_ASSERT(nUnit > 2 && ReadBytes(&in, nUnit - 2), "whole units");
    }
    return CheckSample(pContext, pSample, nBytes, 'v', nType);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    FeedPackets(WriteH264RtpData, 0, pData, nBytes, OnSample);
    return 0;
}
