#include "record/rtphelp.h"

#include <cstring>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "base/mediatype.h"
#include "record/aac.h"
#include "record/depacketise.h"
#include "record/jpegparts.h"
#include "record/nalunit.h"
#include "record/playline.h"

namespace orx {

constexpr uint8_t kRtpVersion2 = 0x80;
constexpr uint8_t kRtpMarker = 0x80;
constexpr uint32_t kAmrFramesPerPacket = 15;
constexpr uint32_t kFrameMs = 20;  // of speech in one AMR frame and one G.711 packet
constexpr uint32_t kG711Bytes = 160;
constexpr uint32_t kG711Rate = 8000;
constexpr uint32_t kCutTicks = 16;  // 2 ms: what is lost of a time, and what two clocks differ by in a while

static void PutHeader(RtpTrack *pTrack, uint8_t *pHeader, uint32_t nStamp)
{
    pHeader[0] = kRtpVersion2;
    pHeader[1] = pTrack->nPayloadType & 0x7F;
    PutBe(pHeader + 2, 2, pTrack->nNextSeq++);
    PutBe(pHeader + 4, 4, nStamp + pTrack->nStampBase);
    PutBe(pHeader + 8, 4, pTrack->nSsrc);
}

int SetRtpHeader(RtpOut *pOut, uint8_t *pHeader, int nTrackId, uint32_t nTimeMs)
{
    ORX_ASSERT(nTrackId >= 0 && nTrackId <= 2, "nTrackId <= 2");
    RtpTrack *pTrack = pOut->tracks[nTrackId];
    if (!ORX_PEER_ASSERT(pTrack->nTimeScale % 1000 == 0,
                         "(pProg->mediaInfos[nTrackId].nTimeScale % 1000)==0"))
        return 0;
    PutHeader(pTrack, pHeader, nTimeMs * (pTrack->nTimeScale / 1000));
    return 1;
}

namespace {

// One packet while it is built in the scratch buffer.
struct PacketBuilder {
    RtpOut *pOut;
    int nTrackId;
    uint32_t nStart = 0;  // of the RTP header
    uint32_t nLen = 0;    // bytes in the scratch buffer
    int bFailed = 0;
};

}  // namespace

// Where a packet's RTP header goes; null, and failed, without room.
static uint8_t *HeaderOf(PacketBuilder *pPacket)
{
    RtpOut *pOut = pPacket->pOut;
    pPacket->nStart = pOut->bInterleaved ? kInterleaveBytes : 0;
    pPacket->nLen = pPacket->nStart + kRtpHeaderBytes;
    pPacket->bFailed = pOut->nScratch < pPacket->nLen;
    return pPacket->bFailed ? nullptr : pOut->pScratch + pPacket->nStart;
}

// Begins a packet. nRtpTime is what the header gets, in ms.
static int Begin(PacketBuilder *pPacket, uint32_t nRtpTime)
{
    uint8_t *pHeader = HeaderOf(pPacket);
    pPacket->bFailed = !pHeader || !SetRtpHeader(pPacket->pOut, pHeader, pPacket->nTrackId, nRtpTime);
    return !pPacket->bFailed;
}

// The same with a stamp of the track's own clock.
static void BeginAt(PacketBuilder *pPacket, uint32_t nStamp)
{
    if (uint8_t *pHeader = HeaderOf(pPacket))
        PutHeader(pPacket->pOut->tracks[pPacket->nTrackId], pHeader, nStamp);
}

static void Add(PacketBuilder *pPacket, const void *pData, uint32_t nBytes)
{
    if (pPacket->bFailed || nBytes > pPacket->pOut->nScratch - pPacket->nLen) {
        pPacket->bFailed = 1;
        return;
    }
    if (nBytes > 0)
        memcpy(pPacket->pOut->pScratch + pPacket->nLen, pData, nBytes);
    pPacket->nLen += nBytes;
}

static void AddByte(PacketBuilder *pPacket, uint8_t nByte)
{
    Add(pPacket, &nByte, 1);
}

// Completes a packet and queues it, stamped with nTimeMs. Returns 1 or 0.
static int Finish(PacketBuilder *pPacket, uint32_t nTimeMs, int bMarker, int bVideo, int bKey)
{
    uint8_t *p = pPacket->pOut->pScratch;
    uint32_t nRtp = pPacket->nLen - pPacket->nStart;
    if (pPacket->bFailed || nRtp > 0xFFFF - kInterleaveBytes)
        return 0;
    if (bMarker)
        p[pPacket->nStart + 1] |= kRtpMarker;
    if (pPacket->nStart > 0) {
        p[0] = '$';
        p[1] = static_cast<uint8_t>(pPacket->nTrackId * 2);
        PutBe(p + 2, 2, nRtp);
    }
    DataBlock *pBlock = MakeDataBlock(p, pPacket->nLen, 1, bVideo, bKey);
    if (!pBlock)
        return 0;
    pBlock->nTimestamp = nTimeMs;
    return QueueAppend(&pPacket->pOut->Outq, {pBlock}) != nullptr;
}

// --- H.264 and H.265 ---

namespace {

// A picture while it is packetised.
struct PicturePacker {
    PacketBuilder packet;
    const NalForm *pForm;
    uint32_t nTimeMs;
    int bStarted = 0;  // H.265: it was flagged as the beginning of a key frame
};

}  // namespace

// Whether a packet that begins with a unit of this type begins a key frame. H.264 shows it by its parameter
// set, which every recorded key frame begins with.
static int StartsKey(PicturePacker *pPacker, uint32_t nType)
{
    NalKind nKind = pPacker->pForm->pfnKind(nType);
    if (pPacker->pForm == &g_h264Form)
        return nKind == NAL_IS_SEQUENCE_SET;
    int bKey = !pPacker->bStarted &&
               (nKind == NAL_IS_VIDEO_SET || nKind == NAL_IS_SEQUENCE_SET || nKind == NAL_IS_KEY_SLICE);
    pPacker->bStarted |= bKey;
    return bKey;
}

// A unit that does not fit a packet, as fragments. Returns the packets made; fewer than asked for with
// *pbFailed set.
static int PackFragments(PicturePacker *pPacker, const uint8_t *pUnit, uint32_t nUnit, int bLastUnit,
                         int *pbFailed)
{
    const NalForm *pForm = pPacker->pForm;
    PacketBuilder *pPacket = &pPacker->packet;
    const uint32_t nType = NalType(pForm, pUnit[0]);
    int nPackets = 0;
    for (uint32_t nPos = pForm->nHead; nPos < nUnit;) {
        uint32_t nPart = nUnit - nPos < kMaxPayload ? nUnit - nPos : kMaxPayload;
        int bFirst = nPos == pForm->nHead;
        int bLast = nPos + nPart == nUnit;
        Begin(pPacket, pPacker->nTimeMs);
        AddByte(pPacket, NalWithType(pForm, pUnit[0], pForm->nFragment));
        Add(pPacket, pUnit + 1, pForm->nHead - 1U);
        AddByte(pPacket, static_cast<uint8_t>(nType | (bFirst ? FU_START : 0) | (bLast ? FU_END : 0)));
        Add(pPacket, pUnit + nPos, nPart);
        if (!Finish(pPacket, pPacker->nTimeMs, bLast && bLastUnit, 1, bFirst && StartsKey(pPacker, nType))) {
            *pbFailed = 1;
            break;
        }
        nPackets++;
        nPos += nPart;
    }
    return nPackets;
}

// Counts the units at the front that share one packet. None: the first is cut up, into two parts or more.
static uint32_t CountShared(const NalForm *pForm, ByteReader in)
{
    const uint32_t nMost = kMaxPayload + pForm->nHead;
    uint32_t nUnits = 0;
    uint32_t nUnit = 0;
    uint32_t nSum = 0;
    while (NalNext(&in, &nUnit) && nSum + nUnit <= nMost) {
        nSum += nUnit;
        nUnits++;
    }
    return nUnits;
}

// The header of a packet of nUnits units: of H.265 with the lowest layer among them (RFC 7798,
// section 4.4.2).
static void AddAggregateHead(PicturePacker *pPacker, ByteReader in, uint32_t nUnits)
{
    const NalForm *pForm = pPacker->pForm;
    AddByte(&pPacker->packet, NalWithType(pForm, 0, pForm->nAggregate));
    uint8_t nLowest = 0xFF;
    for (uint32_t i = 0, nUnit = 0; pForm->nHead > 1 && i < nUnits; i++) {
        const uint8_t *pUnit = NalNext(&in, &nUnit);
        if (pUnit && nUnit > 1 && pUnit[1] < nLowest)
            nLowest = pUnit[1];
    }
    if (pForm->nHead > 1)
        AddByte(&pPacker->packet, nLowest);
}

// One packet of nUnits units that follow.
static int PackUnits(PicturePacker *pPacker, ByteReader *pIn, uint32_t nUnits)
{
    PacketBuilder *pPacket = &pPacker->packet;
    int bKey = 0;
    Begin(pPacket, pPacker->nTimeMs);
    if (nUnits > 1)
        AddAggregateHead(pPacker, *pIn, nUnits);
    for (uint32_t i = 0; i < nUnits; i++) {
        uint32_t nUnit = 0;
        const uint8_t *pUnit = NalNext(pIn, &nUnit);
        uint8_t size[2];
        PutBe(size, 2, nUnit);
        if (nUnits > 1)
            Add(pPacket, size, sizeof(size));
        Add(pPacket, pUnit, nUnit);
        if (i == 0)
            bKey = StartsKey(pPacker, NalType(pPacker->pForm, pUnit[0]));
    }
    return Finish(pPacket, pPacker->nTimeMs, pIn->nLeft == 0, 1, bKey);
}

static int PackPicture(RtpOut *pOut, const NalForm *pForm, ByteReader in, uint32_t nTimeMs, int nTrackId)
{
    ByteReader check = in;
    uint32_t nUnit = 0;
    while (NalNext(&check, &nUnit)) {
    }
    if (!ORX_PEER_ASSERT(check.nLeft == 0, "len==0"))
        return 0;
    PicturePacker packer{{pOut, nTrackId}, pForm, nTimeMs};
    int nPackets = 0;
    int bFailed = 0;
    while (in.nLeft > 0 && !bFailed) {
        uint32_t nShared = CountShared(pForm, in);
        if (nShared > 0) {
            bFailed = !PackUnits(&packer, &in, nShared);
            nPackets += !bFailed;
        } else {
            const uint8_t *pUnit = NalNext(&in, &nUnit);
            nPackets += PackFragments(&packer, pUnit, nUnit, in.nLeft == 0, &bFailed);
        }
    }
    return bFailed ? 0 : nPackets;
}

int Pack2Rtp264Block(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    return PackPicture(pOut, &g_h264Form, ByteReader{pData, nLenIn}, nTimeMs, nTrackId);
}

int Pack2Rtp265Block(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    return PackPicture(pOut, &g_h265Form, ByteReader{pData, nLenIn}, nTimeMs, nTrackId);
}

// --- AMR ---

// Counts the frames of one packet at the front: up to 15, all of the first one's kind, because a packet is
// taken to be frames of one size. Sets the size of each. Returns 0, printed, when one is broken.
static uint32_t CountFrames(int bWideband, const uint8_t *pData, uint32_t nBytes, uint32_t nPassed,
                            uint32_t *pnFrame)
{
    uint32_t nFrames = 0;
    for (uint32_t nPos = 0; nPos < nBytes && nFrames < kAmrFramesPerPacket; nFrames++) {
        uint32_t nMode = pData[nPos] >> 3 & 0x0F;
        uint32_t nFrame = AmrFrameBytes(bWideband, nMode);
        if (nFrame < 2 || nFrame > nBytes - nPos) {
            print("AMR audio data error! mode=%d,size=%d,pass_len=%u\n", static_cast<int>(nMode),
                  static_cast<int>(nFrame), nPassed + nPos);
            return 0;
        }
        if (nFrames > 0 && nFrame != *pnFrame)
            break;
        *pnFrame = nFrame;
        nPos += nFrame;
    }
    return nFrames;
}

int Pack2RtpAmrBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    ORX_ASSERT(nTrackId >= 0 && nTrackId <= 2, "nTrackId <= 2");
    uint32_t nMediaType = pOut->tracks[nTrackId]->nMediaType;
    if (nMediaType != MEDIA_AMR_NB && nMediaType != MEDIA_AMR_WB) {
        print("unknown AudioType!");
        return 0;
    }
    PacketBuilder packet{pOut, nTrackId};
    int nPackets = 0;
    for (uint32_t nPos = 0; nPos < nLenIn; nPackets++) {
        uint32_t nFrame = 0;
        const uint8_t *p = pData + nPos;
        uint32_t nFrames = CountFrames(nMediaType == MEDIA_AMR_WB, p, nLenIn - nPos, nPos, &nFrame);
        if (nFrames == 0)
            return 0;
        Begin(&packet, nTimeMs);
        AddByte(&packet, 0xF0);  // no mode requested
        for (uint32_t i = 0; i < nFrames; i++)
            AddByte(&packet, static_cast<uint8_t>((p[i * nFrame] & 0x7F) | (i + 1 < nFrames ? 0x80 : 0)));
        for (uint32_t i = 0; i < nFrames; i++)
            Add(&packet, p + i * nFrame + 1, nFrame - 1);
        if (!Finish(&packet, nTimeMs, 1, 0, 0))
            return 0;
        nTimeMs += nFrames * kFrameMs;
        nPos += nFrames * nFrame;
    }
    return nPackets;
}

// --- JPEG ---

// Size in blocks of 8, as the header gives it; 0 says that it is too large for that.
static uint8_t InBlocks(uint32_t nPixels)
{
    return nPixels / 8 <= 0xFF ? static_cast<uint8_t>(nPixels / 8) : 0;
}

static int PackImage(RtpOut *pOut, const JpegImage *pImage, uint32_t nTimeMs, int nTrackId)
{
    PacketBuilder packet{pOut, nTrackId};
    const uint8_t *pChroma = pImage->pChroma ? pImage->pChroma : pImage->pLuma;
    int nPackets = 0;
    for (size_t nPos = 0; nPos < pImage->nScan; nPackets++) {
        size_t nLeft = pImage->nScan - nPos;
        auto nPart = static_cast<uint32_t>(nLeft < kMaxPayload ? nLeft : kMaxPayload);
        uint8_t header[kJpegHeadBytes] = {
            0, 0, 0, 0, 1, 255, InBlocks(pImage->nWidth), InBlocks(pImage->nHeight)};
        PutBe(header + 1, 3, static_cast<uint32_t>(nPos));
        Begin(&packet, nTimeMs);
        Add(&packet, header, sizeof(header));
        if (nPos == 0) {
            uint8_t tables[kJpegQuantHeadBytes] = {};
            PutBe(tables + 2, 2, 2 * pImage->nTable);
            Add(&packet, tables, sizeof(tables));
            Add(&packet, pImage->pLuma, pImage->nTable);
            Add(&packet, pChroma, pImage->nTable);
        }
        Add(&packet, pImage->pScan + nPos, nPart);
        if (!Finish(&packet, nTimeMs, nPart == nLeft, 1, nPos == 0))
            return 0;
        nPos += nPart;
    }
    return nPackets;
}

// The payloads go out again as they were recorded.
static int PackRecorded(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    PacketBuilder packet{pOut, nTrackId};
    JpegFragments in{pData, nLenIn};
    JpegFragment fragment;
    int nPackets = 0;
    for (; in.nLeft > 0; nPackets++) {
        if (!JpegNextFragment(&in, &fragment))
            return 0;
        Begin(&packet, nTimeMs);
        Add(&packet, fragment.pData, static_cast<uint32_t>(fragment.nBytes));
        if (!Finish(&packet, nTimeMs, fragment.bLast, 1, nPackets == 0))
            return 0;
    }
    return nPackets;
}

int Pack2RtpJpegBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    JpegFragments recorded{pData, nLenIn};
    JpegFragment first;
    if (JpegNextFragment(&recorded, &first))
        return PackRecorded(pOut, pData, nLenIn, nTimeMs, nTrackId);
    JpegImage image;
    JpegImageParse(pData, nLenIn, &image);
    if (!ORX_PEER_ASSERT(image.pLuma != nullptr, "lqt != ((void *)0)") ||
        !ORX_PEER_ASSERT(image.pScan != nullptr, "scanLines != ((void *)0)"))
        return 0;
    return PackImage(pOut, &image, nTimeMs, nTrackId);
}

// --- G.711 and messages ---

// The stamp of a sample's first byte. Its time is cut to milliseconds: sound that goes on where the last
// packet ends is stamped so.
static uint32_t SampleStamp(const RtpTrack *pTrack, uint32_t nTimeMs)
{
    uint32_t nStamp = PlayStamp(pTrack->nTimeScale, int64_t{nTimeMs} * 1000);
    auto nAhead = static_cast<int32_t>(nStamp - pTrack->nNextStamp);
    auto nMost = static_cast<int32_t>(pTrack->nTimeScale / kG711Rate * kCutTicks);
    return nAhead >= -nMost && nAhead <= nMost ? pTrack->nNextStamp : nStamp;
}

// Any number of samples, 20 ms in each packet but the last.
static int PackSamples(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    RtpTrack *pTrack = pOut->tracks[nTrackId];
    PacketBuilder packet{pOut, nTrackId};
    uint32_t nStamp = SampleStamp(pTrack, nTimeMs);
    auto ticks = [&](uint32_t nSamples) {
        return static_cast<uint32_t>(uint64_t{nSamples} * pTrack->nTimeScale / kG711Rate);
    };
    int nPackets = 0;
    for (uint32_t nPos = 0; nPos < nLenIn; nPos += kG711Bytes, nPackets++) {
        BeginAt(&packet, nStamp + ticks(nPos));
        Add(&packet, pData + nPos, nLenIn - nPos < kG711Bytes ? nLenIn - nPos : kG711Bytes);
        if (!Finish(&packet, nTimeMs + nPos * 1000 / kG711Rate, 1, 0, 0))
            return 0;
    }
    pTrack->nNextStamp = nStamp + ticks(nLenIn);
    return nPackets;
}

int Pack2RtpG711Block(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    ORX_ASSERT(nTrackId >= 0 && nTrackId <= 2, "nTrackId <= 2");
    if (pOut->bSampleStamps)
        return PackSamples(pOut, pData, nLenIn, nTimeMs, nTrackId);
    if (!ORX_PEER_ASSERT(nLenIn % kG711Bytes == 0, "(nLenIn % nBytesPerFrame) == 0"))
        return 0;
    PacketBuilder packet{pOut, nTrackId};
    int nPackets = 0;
    for (uint32_t nPos = 0; nPos < nLenIn; nPos += kG711Bytes, nPackets++) {
        // part of this protocol: the stamp of a G.711 packet is eight times its milliseconds, then scaled by
        // the clock rate as every other
        Begin(&packet, nTimeMs * 8);
        Add(&packet, pData + nPos, kG711Bytes);
        if (!Finish(&packet, nTimeMs, 1, 0, 0))
            return 0;
        nTimeMs += kFrameMs;
    }
    return nPackets;
}

// --- AAC ---

// One unit in a packet of its own, or in several when it does not fit. Returns the packets made, 0 on
// failure.
static int PackAacUnit(PacketBuilder *pPacket, const uint8_t *pUnit, uint32_t nUnit, uint32_t nStamp,
                       uint32_t nTimeMs)
{
    constexpr uint32_t nHeads = kAacHeadersBytes + kAacHeaderBytes;
    uint8_t heads[nHeads];
    PutBe(heads, 2, kAacHeaderBytes * 8);
    PutBe(heads + 2, 2, nUnit << 3);
    int nPackets = 0;
    for (uint32_t nPos = 0; nPos < nUnit; nPackets++) {
        uint32_t nPart = nUnit - nPos < kMaxPayload - nHeads ? nUnit - nPos : kMaxPayload - nHeads;
        BeginAt(pPacket, nStamp);
        Add(pPacket, heads, nHeads);
        Add(pPacket, pUnit + nPos, nPart);
        nPos += nPart;
        if (!Finish(pPacket, nTimeMs, nPos == nUnit, 0, 0))
            return 0;
    }
    return nPackets;
}

int Pack2RtpAacBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    ORX_ASSERT(nTrackId >= 0 && nTrackId <= 2, "nTrackId <= 2");
    const RtpTrack *pTrack = pOut->tracks[nTrackId];
    PacketBuilder packet{pOut, nTrackId};
    ByteReader in{pData, nLenIn};
    uint64_t nTicks = uint64_t{nTimeMs} * pTrack->nTimeScale / 1000;
    int nPackets = 0;
    for (uint64_t nAhead = 0; in.nLeft > 0; nAhead += pTrack->nUnitTicks) {
        uint32_t nUnit = 0;
        const uint8_t *pUnit = NalNext(&in, &nUnit);
        if (!pUnit || nUnit > kMaxAacUnit || pTrack->nTimeScale == 0)
            return 0;
        auto nMs = nTimeMs + static_cast<uint32_t>(nAhead * 1000 / pTrack->nTimeScale);
        int nMade = PackAacUnit(&packet, pUnit, nUnit, static_cast<uint32_t>(nTicks + nAhead), nMs);
        if (nMade == 0)
            return 0;
        nPackets += nMade;
    }
    return nPackets;
}

int Pack2RtpUserBlock(RtpOut *pOut, const uint8_t *pData, uint32_t nLenIn, uint32_t nTimeMs, int nTrackId)
{
    if (!ORX_PEER_ASSERT(nLenIn <= kMaxPayload, "nLenIn <= 1460"))
        return 0;
    PacketBuilder packet{pOut, nTrackId};
    if (!Begin(&packet, nTimeMs))
        return 0;
    Add(&packet, pData, nLenIn);
    if (Finish(&packet, nTimeMs, 1, 0, 0))
        return 1;
    print("Pack2RtpUserBlock()=>MakeDataBlock() failed!\r\n");
    return 0;
}

}  // namespace orx
