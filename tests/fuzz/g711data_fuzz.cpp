// The depacketiser of G.711. An input is a run of RTP packets, each behind a 2-byte length.
#include "record/depacketise.h"

#include "packets.h"

using namespace orx;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return InitPacketFuzz();
}

static int OnSample(void *pContext, const uint8_t *pSample, uint32_t nBytes, uint32_t /*nTimeMs*/,
                    uint32_t nType)
{
    return CheckSample(pContext, pSample, nBytes, 'a', nType);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    FeedPackets(WriteG711RtpData, 0, pData, nBytes, OnSample);
    return 0;
}
