// The depacketisers. An input's first byte chooses one, the rest is a run of RTP packets, each behind a
// 2-byte length.
#include "record/depacketise.h"

#include "fuzz/fuzz.h"

using namespace orx;

// Units must fill a sample: it is what the packetiser takes apart again.
static int TakeUnit(ByteReader *pIn, int)
{
    uint32_t nUnit = ReadBe(pIn, 2);
    return nUnit > 2 && ReadBytes(pIn, nUnit - 2);
}

static int TakeAmrFrame(ByteReader *pIn, int bWideband)
{
    return !(pIn->p[0] & 0x80) && ReadBytes(pIn, AmrFrameBytes(bWideband, pIn->p[0] >> 3 & 0x0F));
}

static int TakeAll(ByteReader *pIn, int)
{
    return ReadBytes(pIn, pIn->nLeft) != nullptr;
}

static const struct Kind {
    DepacketProc pfn;
    int bWideband;
    char chMedia;
    int (*pfnTake)(ByteReader *pIn, int bWideband);  // one part of a sample, whole
} g_kinds[] = {
    {WriteH264RtpData, 0, 'v', TakeUnit},    {WriteJpegRtpData, 0, 'v', TakeAll},
    {WriteAmrRtpData, 0, 'a', TakeAmrFrame}, {WriteAmrRtpData, 1, 'a', TakeAmrFrame},
    {WriteG711RtpData, 0, 'a', TakeAll},
};

struct Track : Depacketiser {
    const Kind *pKind = nullptr;
};

static int OnSample(void *pContext, const uint8_t *pSample, uint32_t nBytes, uint32_t, uint32_t nType)
{
    auto *pTrack = static_cast<Track *>(pContext);
    ORX_ASSERT(pTrack->nBytes == 0, "nothing is held");
    ORX_ASSERT(nBytes > 0 && nType >> 8 == static_cast<uint32_t>(pTrack->pKind->chMedia), "its kind");
    auto copy = Exact(pSample, nBytes);
    ByteReader in{copy.get(), nBytes};
    while (in.nLeft > 0)
        ORX_ASSERT(pTrack->pKind->pfnTake(&in, pTrack->bWideband), "whole parts");
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    Track track;
    ByteReader in{pData, nBytes};
    track.pKind = &g_kinds[ReadBe(&in, 1) % std::size(g_kinds)];
    track.bWideband = track.pKind->bWideband;
    track.pfnSample = OnSample;
    track.pContext = &track;
    uint32_t nTimeMs = 0xFFFFFF00;
    for (int nResult = 1; nResult == 1 && in.nLeft >= 2;) {
        uint32_t nPacket = std::min<uint32_t>(ReadBe(&in, 2), static_cast<uint32_t>(in.nLeft));
        auto packet = Exact(ReadBytes(&in, nPacket), nPacket);
        nResult = track.pKind->pfn(&track, packet.get(), nPacket, nTimeMs += 10);
        ORX_ASSERT(nResult == 1 || nResult == -1, "taken or refused");
        ORX_ASSERT(track.nBytes <= track.nTotal, "the frame lies in its buffer");
    }
    DepacketiserReset(&track);
    return 0;
}
