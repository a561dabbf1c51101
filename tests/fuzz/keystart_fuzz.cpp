// The packets of a live video track on their way into the cache. An input's first byte chooses the codec; then
// a line with the parameters of its description, and a run of payloads behind 2-byte lengths, whose highest
// bits say that the stamp goes on and that the packet has the marker.
#include "server/media/keystart.h"

#include "fuzz/fuzz.h"
#include "record/codec.h"
#include "server/core/settings.h"

using namespace orx;

static const ProgramOps g_ops = {nullptr, nullptr, [](Program *) {}};

static Program *Make(int bWide, const std::string &format)
{
    Program *pProg = ProgramNew("/cam", &g_ops);
    pProg->cache.nCacheLimit = 1U << 30;
    pProg->desc.nTrackCount = 1;
    pProg->desc.nVideoTrack = 0;
    pProg->desc.mediaInfos[0].nMediaType = MEDIA_VIDEO_OTHER;
    pProg->desc.mediaInfos[0].pCodec = CodecByName(MEDIA_VIDEO_OTHER, bWide ? "H265" : "H264", CODEC_WIDE_PROGRAM);
    pProg->desc.szSdp = strdup(("m=video 0 RTP/AVP 96\r\na=fmtp:96 " + format).c_str());
    KeyStartInit(pProg);
    return pProg;
}

static void Take(Program *pProg, ByteReader payload, uint32_t nFlags)
{
    static uint32_t nSeq, nStamp;
    uint8_t frame[16 + 0x3FFF] = {'$', 0, 0, 0, 0x80, 0x60};
    nStamp += nFlags & 1;
    frame[5] |= nFlags & 2 ? 0x80 : 0;
    PutBe(frame + 2, 2, 12 + static_cast<uint32_t>(payload.nLeft));
    PutBe(frame + 6, 2, nSeq++);
    PutBe(frame + 8, 4, nStamp);
    std::copy_n(payload.p, payload.nLeft, frame + 16);
    KeyStartTake(pProg, MakeDataBlock(frame, 16 + payload.nLeft, 1, 1, 0));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nBytes)
{
    g_settings.bStandardPushers = 1;
    const uint8_t *pEnd = std::find(pData, pData + nBytes, '\n');
    ByteReader in{pEnd, static_cast<size_t>(pData + nBytes - pEnd)};
    Program *pProg = Make(nBytes > 0 && (*pData & 1), nBytes > 0 ? Text(pData + 1, in.p - pData - (in.p > pData)) : "");
    ReadBytes(&in, 1);
    uint32_t nPushed = 0;
    for (; in.nLeft >= 2; nPushed++) {
        uint32_t nHead = ReadBe(&in, 2);
        size_t nPayload = std::min<size_t>(nHead & 0x3FFF, in.nLeft);
        Take(pProg, ByteReader{ReadBytes(&in, nPayload), nPayload}, nHead >> 14);
        ORX_ASSERT(pProg->keyStart.nHeld < kMaxHeldPackets, "what waits has a bound");
    }
    uint32_t nCached = ListCount(&pProg->cache.Pktq);
    ORX_ASSERT(nCached + static_cast<uint32_t>(pProg->keyStart.nHeld) <= nPushed * 70, "and what is put in front");
    for (auto *p = ListFirstOf<DataBlock>(&pProg->cache.Pktq); p && NextBlock(p); p = NextBlock(p))
        ORX_ASSERT(static_cast<uint16_t>(GetBe(BlockData(p) + 6, 2) + 1) == GetBe(BlockData(NextBlock(p)) + 6, 2),
                   "numbers without a gap");
    ProgramDiscard(pProg);
    return 0;
}
