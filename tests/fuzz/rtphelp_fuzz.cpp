// The packetisers: an input's first byte chooses one, the rest is a sample of a recording.
#include "record/rtphelp.h"

#include "base/mediatype.h"
#include "fuzz/fuzz.h"

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    using PackProc = int (*)(RtpOut *, const uint8_t *, uint32_t, uint32_t, int);
    static const struct {
        PackProc pfn;
        uint32_t nMediaType;
    } kinds[] = {{Pack2Rtp264Block, MEDIA_H264},   {Pack2RtpJpegBlock, MEDIA_JPEG}, {Pack2RtpAmrBlock, MEDIA_AMR_NB},
                 {Pack2RtpAmrBlock, MEDIA_AMR_WB}, {Pack2RtpG711Block, MEDIA_G711}, {Pack2RtpUserBlock, MEDIA_DATA},
                 {Pack2Rtp265Block, MEDIA_H265},   {Pack2RtpAacBlock, MEDIA_AAC}};
    if (nBytes == 0)
        return 0;
    const auto &kind = kinds[pData[0] % std::size(kinds)];
    auto sample = Exact(pData + 1, nBytes - 1);
    std::unique_ptr<uint8_t[]> scratch(new uint8_t[kMinScratch]);
    RtpOut out;
    out.bInterleaved = pData[0] & 0x80 ? 1 : 0;
    out.pScratch = scratch.get();
    out.nScratch = kMinScratch;
    RtpTrack track;
    track.nMediaType = kind.nMediaType;
    track.nTimeScale = 8000;
    out.tracks[1] = &track;
    int nPackets = kind.pfn(&out, sample.get(), static_cast<uint32_t>(nBytes - 1), 1000, 1);
    ORX_ASSERT(nPackets >= 0 && (nPackets == 0 || static_cast<unsigned>(nPackets) == out.Outq.nItems),
               "every packet is counted");
    uint32_t nAt = out.bInterleaved ? kInterleaveBytes : 0;
    unsigned nMarkers = 0;
    for (uint32_t i = 0; i < out.Outq.nItems; i++) {
        const DataBlock *p = QueueAt(&out.Outq, i)->pBlock;
        ORX_ASSERT(p->len >= nAt + kRtpHeaderBytes && BlockData(p)[nAt] == 0x80, "an RTP packet");
        ORX_ASSERT(nAt == 0 || GetBe(BlockData(p) + 2, 2) + 4 == p->len, "the prefix names its length");
        nMarkers += BlockData(p)[nAt + 1] >> 7;
    }
    ORX_ASSERT(nPackets == 0 || !(kind.nMediaType & MEDIA_VIDEO_MASK) || kind.nMediaType == MEDIA_DATA || nMarkers == 1,
               "one marker");
    QueueEmpty(&out.Outq);
    return 0;
}
