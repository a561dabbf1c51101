// The depacketisers. An input's first byte chooses one, and the rules in its upper half; the rest is a run of
// RTP packets, each behind a 2-byte length. So that pictures grow past every limit, the highest bit has each of
// them come often.
#include "record/depacketise.h"

#include "fuzz/fuzz.h"

using namespace orx;

// Units must fill a sample: it is what the packetiser takes apart again.
static int TakeUnit(ByteReader *pIn, int)
{
    uint32_t nUnit = 0;
    return NalNext(pIn, &nUnit) != nullptr;
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
    {WriteG711RtpData, 0, 'a', TakeAll},     {WriteH265RtpData, 0, 'v', TakeUnit},
    {WriteAacRtpData, 0, 'a', TakeUnit},
};

struct Track : Depacketiser {
    const Kind *pKind = nullptr;
};

static int OnSample(void *pContext, const uint8_t *pSample, uint32_t nBytes, uint32_t, uint32_t nType)
{
    auto *pTrack = static_cast<Track *>(pContext);
    ORX_ASSERT(pTrack->nBytes == 0, "nothing is held");
    ORX_ASSERT(nBytes > 0 && static_cast<char>(nType >> 8) == pTrack->pKind->chMedia, "its kind");
    auto copy = Exact(pSample, nBytes);
    ByteReader in{copy.get(), nBytes};
    while (in.nLeft > 0)
        ORX_ASSERT(pTrack->pKind->pfnTake(&in, pTrack->bWideband), "whole parts");
    return 1;
}

constexpr int kOften = 64;

// The packet once more, one further in the sequence.
static void Step(uint8_t *pPacket, uint32_t nBytes)
{
    if (nBytes >= 4)
        PutBe(pPacket + 2, 2, GetBe(pPacket + 2, 2) + 1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    Track track;
    ByteReader in{pData, nBytes};
    uint32_t nChoice = ReadBe(&in, 1);
    track.pKind = &g_kinds[(nChoice & 0x0F) % std::size(g_kinds)];
    track.rules.bNeverLose = nChoice >> 4 & 1;
    track.rules.bWideUnits = nChoice >> 5 & 1;
    track.rules.bStandardPushers = nChoice >> 6 & 1;
    track.nUnitTicks = 1024;
    track.bWideband = track.pKind->bWideband;
    track.pfnSample = OnSample;
    track.pContext = &track;
    uint32_t nTimeMs = 0xFFFFFF00;
    for (int nResult = 1; nResult == 1 && in.nLeft >= 2;) {
        uint32_t nPacket = std::min<uint32_t>(ReadBe(&in, 2), static_cast<uint32_t>(in.nLeft));
        auto packet = Exact(ReadBytes(&in, nPacket), nPacket);
        for (int i = nChoice & 0x80 ? kOften : 1; i > 0 && nResult == 1; i--) {
            nResult = track.pKind->pfn(&track, packet.get(), nPacket, nTimeMs += 10);
            ORX_ASSERT(nResult == 1 || nResult == -1, "taken or refused");
            ORX_ASSERT(track.nBytes <= track.nTotal, "the frame lies in its buffer");
            ORX_ASSERT(track.nTotal <= 2 * kWideFrameBytes, "which has a bound");
            Step(packet.get(), nPacket);
        }
    }
    DepacketiserReset(&track);
    return 0;
}
