#include "record/depacketise.h"

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "record/jpegparts.h"
#include "record/zmfile.h"

namespace orx {

void DepacketiserReset(Depacketiser *pTrack)
{
    free(pTrack->pFrame);
    Depacketiser fresh;
    fresh.pfnSample = pTrack->pfnSample;
    fresh.pContext = pTrack->pContext;
    fresh.bWideband = pTrack->bWideband;
    *pTrack = fresh;
}

static int MakeBuffer(Depacketiser *pTrack)
{
    if (!pTrack->pFrame) {
        pTrack->pFrame = static_cast<uint8_t *>(malloc(kFrameBytes));
        pTrack->nTotal = pTrack->pFrame ? kFrameBytes : 0;
    }
    return pTrack->pFrame != nullptr;
}

static void Discard(Depacketiser *pTrack)
{
    pTrack->nBytes = 0;
    pTrack->nOpenUnit = -1;
}

// Drops the open frame: what it has, and what still comes of it.
static void SkipFrame(Depacketiser *pTrack)
{
    Discard(pTrack);
    pTrack->bSkip = 1;
}

// Compares the sequence number with the one expected. Returns how many packets are missing.
static uint32_t CountLost(Depacketiser *pTrack, uint16_t nSeq)
{
    auto nLost = static_cast<uint16_t>(nSeq - pTrack->nSeq - 1);
    if (!pTrack->bSeqKnown)
        nLost = 0;
    else if (nLost > 0)
        print("CurSeq=%d, thisSeq=%d, lost=%d!\r\n", pTrack->nSeq, nSeq, nLost);
    pTrack->nSeq = nSeq;
    pTrack->bSeqKnown = 1;
    return nLost;
}

// A packet without media, such as padding, has its place in the sequence all the same.
static int SkipEmpty(Depacketiser *pTrack, uint16_t nSeq)
{
    if (pTrack->bSeqKnown && nSeq == static_cast<uint16_t>(pTrack->nSeq + 1))
        pTrack->nSeq = nSeq;
    return 1;
}

// Decides whether a video packet is used: a frame of which a part was lost is dropped whole. bCanStart says
// that the packet looks like the first of a frame, which matters when the packets before it are not known.
// Sets *pbFirst when it is the first one of a frame that is known to be whole up to here. Returns 1 to use
// it, 0 to drop it.
static int AdmitPacket(Depacketiser *pTrack, const RtpPacket *pPacket, uint32_t nTimeMs, int bCanStart,
                       int *pbFirst)
{
    int bSequenceKnown = pTrack->bSeqKnown;
    uint32_t nLost = CountLost(pTrack, pPacket->nSeq);
    int bSameFrame = pTrack->bOpen && pPacket->nRtpTime == pTrack->nFrameRtp;
    if (bSameFrame && nLost > 0) {
        SkipFrame(pTrack);
    } else if (!bSameFrame && (nLost > 0 || pTrack->bSkip)) {
        // One packet lost from an open frame was its last, so that this one begins the next.
        int bLastOfOpen = pTrack->bOpen && nLost <= 1;
        Discard(pTrack);
        pTrack->bOpen = 0;
        pTrack->bSkip = !bLastOfOpen && !bCanStart;
    } else if (!bSequenceKnown) {
        pTrack->bSkip = !bCanStart;
    }
    *pbFirst = !pTrack->bOpen && bSequenceKnown && nLost == 0;
    if (!pTrack->bOpen) {
        pTrack->bOpen = 1;
        pTrack->nFrameTime = nTimeMs;
    }
    pTrack->nFrameRtp = pPacket->nRtpTime;
    if (!pTrack->bSkip)
        return 1;
    if (pPacket->bMarker)
        pTrack->bOpen = pTrack->bSkip = 0;
    return 0;
}

static int Append(Depacketiser *pTrack, const uint8_t *pData, uint32_t nBytes)
{
    if (!ORX_PEER_ASSERT(nBytes < pTrack->nTotal - pTrack->nBytes, "pWriter->nBytes+len<pWriter->nTotal"))
        return 0;
    memcpy(pTrack->pFrame + pTrack->nBytes, pData, nBytes);
    pTrack->nBytes += nBytes;
    return 1;
}

// Hands out the frame that is held; the buffer counts as empty from here on.
static int EmitFrame(Depacketiser *pTrack, uint8_t nFlags)
{
    uint32_t nBytes = pTrack->nBytes;
    Discard(pTrack);
    pTrack->bOpen = 0;
    if (nBytes == 0)
        return 1;
    return pTrack->pfnSample(pTrack->pContext, pTrack->pFrame, nBytes, pTrack->nFrameTime,
                             SampleType('v', nFlags));
}

// The kind of a unit as one bit: its type, and of a slice whether it is the first of its picture.
static uint64_t UnitKind(const uint8_t *pUnit, uint32_t nType)
{
    int bSlice = nType == 1 || nType == 2 || nType == NAL_IDR;
    int bFirstSlice = bSlice && (pUnit[1] & 0x80);  // first_mb_in_slice is 0
    return uint64_t{1} << (bFirstSlice ? 32 + nType : nType);
}

// Whether a packet that begins with this unit may be the first of a frame. A key frame shows by its parameter
// set, so that one behind a gap, such as a cache leaves that kept only key frames, is not taken for damaged.
// Others are compared with how earlier frames began: a slice whose parameter sets or whose picture's first
// slice were lost does not pass for a frame.
static int H264CanStart(const Depacketiser *pTrack, const uint8_t *pUnit, uint32_t nType)
{
    return nType == NAL_SPS || (pTrack->nFirstKinds & UnitKind(pUnit, nType)) != 0;
}

// A NAL unit with its 2-byte length in front.
static int AppendUnit(Depacketiser *pTrack, const uint8_t *pUnit, uint32_t nBytes)
{
    uint8_t prefix[2];
    if (!ORX_PEER_ASSERT(nBytes + 2 <= 0xFFFF, "n<=0xffff"))
        return 0;
    PutBe(prefix, 2, nBytes + 2);
    return Append(pTrack, prefix, 2) && Append(pTrack, pUnit, nBytes);
}

// The units of an aggregation packet. Returns 1, 0 when one breaks an assertion, and drops the frame when the
// sizes do not fit the packet.
static int AppendAggregate(Depacketiser *pTrack, const RtpPacket *pPacket)
{
    ByteReader in{pPacket->pPayload + 1, pPacket->nPayload - 1};
    while (in.nLeft > 0) {
        uint32_t nBytes = ReadBe(&in, 2);
        const uint8_t *pUnit = ReadBytes(&in, nBytes);
        if (in.bFailed || nBytes == 0) {
            SkipFrame(pTrack);
            return 1;
        }
        if (!AppendUnit(pTrack, pUnit, nBytes))
            return 0;
    }
    return 1;
}

// The length of the unit that fragments are added to, as far as it came.
static int UpdateLength(Depacketiser *pTrack)
{
    uint32_t nUnit = pTrack->nBytes - static_cast<uint32_t>(pTrack->nOpenUnit);
    if (!ORX_PEER_ASSERT(nUnit <= 0xFFFF, "n<=0xffff"))
        return 0;
    PutBe(pTrack->pFrame + pTrack->nOpenUnit, 2, nUnit);
    return 1;
}

// A fragment of a unit. Returns 1, or 0 when it breaks an assertion; one that continues nothing drops the
// frame.
static int AppendFragment(Depacketiser *pTrack, const RtpPacket *pPacket)
{
    const uint8_t *p = pPacket->pPayload;
    const auto nHeader = static_cast<uint8_t>((p[0] & 0xE0) | (p[1] & 0x1F));  // of the unit that was cut up
    if (p[1] & FU_START) {
        if (!ORX_PEER_ASSERT(!pPacket->bMarker, "!bMask"))
            return 0;
        pTrack->nOpenUnit = static_cast<int>(pTrack->nBytes);
        if (!AppendUnit(pTrack, &nHeader, 1))
            return 0;
    } else if (pTrack->nOpenUnit < 0 || pTrack->pFrame[pTrack->nOpenUnit + 2] != nHeader) {
        SkipFrame(pTrack);
        return 1;
    }
    return Append(pTrack, p + 2, pPacket->nPayload - 2) && UpdateLength(pTrack);
}

static int AppendPayload(Depacketiser *pTrack, const RtpPacket *pPacket, uint32_t nType)
{
    if (nType != NAL_FU_A)
        pTrack->nOpenUnit = -1;
    if (nType == NAL_STAP_A)
        return AppendAggregate(pTrack, pPacket);
    if (nType <= NAL_LAST_SINGLE)
        return AppendUnit(pTrack, pPacket->pPayload, pPacket->nPayload);
    return AppendFragment(pTrack, pPacket);
}

// The type of the first unit of a packet, with the unit's first two bytes; 0 when the packet cannot begin a
// frame.
static uint32_t FirstUnit(const RtpPacket *pPacket, uint32_t nType, uint8_t *pUnit)
{
    const uint8_t *p = pPacket->pPayload;
    uint32_t nBytes = pPacket->nPayload;
    uint32_t nAt = nType == NAL_STAP_A ? 3 : nType == NAL_FU_A ? 1 : 0;
    if (nBytes <= nAt || (nType == NAL_FU_A && !(p[1] & FU_START)))
        return 0;
    pUnit[0] = p[nAt];
    pUnit[1] = nBytes > nAt + 1 ? p[nAt + 1] : 0;
    return pUnit[0] & 0x1F;
}

int WriteH264RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!ORX_PEER_ASSERT(nBytes < kMaxH264PacketBytes, "len < sizeof(backup)") || !MakeBuffer(pTrack))
        return -1;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    if (packet.nPayload == 0)
        return SkipEmpty(pTrack, packet.nSeq);
    uint32_t nType = packet.pPayload[0] & 0x1F;
    if (nType == 0 || (nType > NAL_LAST_SINGLE && nType != NAL_STAP_A && nType != NAL_FU_A)) {
        print("unsupported packetize mode: %d\n", static_cast<int>(nType));
        Discard(pTrack);
        return -1;
    }
    if (nType == NAL_FU_A && packet.nPayload < 2)
        return 1;
    uint8_t unit[2] = {};
    uint32_t nFirst = FirstUnit(&packet, nType, unit);
    int bCanStart = nFirst != 0 && (!pTrack->bSeqKnown || H264CanStart(pTrack, unit, nFirst));
    int bFirst = 0;
    if (!AdmitPacket(pTrack, &packet, nTimeMs, bCanStart, &bFirst))
        return 1;
    if (bFirst)
        pTrack->nFirstKinds |= UnitKind(unit, nFirst);
    if (!AppendPayload(pTrack, &packet, nType))
        return -1;
    if (!packet.bMarker)
        return 1;
    pTrack->bSkip = 0;
    int bKey = pTrack->nBytes > 2 && (pTrack->pFrame[2] & 0x1F) == NAL_SPS;
    return EmitFrame(pTrack, bKey ? ZMF_KEY : 0);
}

int WriteJpegRtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!MakeBuffer(pTrack))
        return -1;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    // The first packet of an image says that it begins at its first byte.
    int bCanStart = packet.nPayload >= kJpegHeadBytes && GetBe(packet.pPayload + 1, 3) == 0;
    int bFirst = 0;
    if (!AdmitPacket(pTrack, &packet, nTimeMs, bCanStart, &bFirst))
        return 1;
    if (!Append(pTrack, packet.pPayload, packet.nPayload))
        return -1;
    return packet.bMarker ? EmitFrame(pTrack, ZMF_KEY) : 1;
}

uint32_t AmrFrameBytes(int bWideband, uint32_t nFrameType)
{
    static const uint8_t sizes[2][16] = {
        {13, 14, 16, 18, 20, 21, 27, 32, 6, 0, 0, 0, 0, 0, 0, 1},
        {18, 24, 33, 37, 41, 47, 51, 59, 61, 6, 6, 0, 0, 0, 1, 1},
    };
    return sizes[bWideband ? 1 : 0][nFrameType & 0x0F];
}

// The size of a recorded frame by its table-of-contents byte; 0, printed, for a type that is not recorded.
static uint32_t RecordedFrameBytes(const Depacketiser *pTrack, uint8_t nToc)
{
    uint32_t nFrameType = nToc >> 3 & 0x0F;
    uint32_t nLastType = pTrack->bWideband ? 9 : 8;  // comfort noise
    if (nFrameType <= nLastType)
        return AmrFrameBytes(pTrack->bWideband, nFrameType);
    print("Invalid amr rtp data!\r");
    return 0;
}

// Storage frames out of an octet-aligned payload (RFC 4867, section 4.4), the mode request already taken off.
static int ConvertAligned(Depacketiser *pTrack, ByteReader in)
{
    ByteReader toc = in;
    uint8_t nToc = 0;
    do {
        nToc = static_cast<uint8_t>(ReadBe(&in, 1));
    } while (nToc & 0x80);  // a failed read gives 0
    if (!ORX_PEER_ASSERT(!in.bFailed, "nLen<=len+1"))
        return 0;
    do {
        nToc = static_cast<uint8_t>(ReadBe(&toc, 1));
        uint32_t nLen = RecordedFrameBytes(pTrack, nToc);
        if (nLen == 0 || !ORX_PEER_ASSERT(nLen <= in.nLeft + 1, "nLen<=len+1"))
            return 0;
        auto nHeader = static_cast<uint8_t>(nToc & 0x7F);
        if (!Append(pTrack, &nHeader, 1) || !Append(pTrack, ReadBytes(&in, nLen - 1), nLen - 1))
            return 0;
    } while (nToc & 0x80);
    return 1;
}

// Frames that are in storage form already.
static int CopyStored(Depacketiser *pTrack, ByteReader in)
{
    while (in.nLeft > 0) {
        uint32_t nLen = RecordedFrameBytes(pTrack, in.p[0]);
        if (nLen == 0 || !ORX_PEER_ASSERT(nLen <= in.nLeft, "nLen<=len"))
            return 0;
        auto nHeader = static_cast<uint8_t>(in.p[0] & 0x7F);
        const uint8_t *pFrame = ReadBytes(&in, nLen);
        if (!Append(pTrack, &nHeader, 1) || !Append(pTrack, pFrame + 1, nLen - 1))
            return 0;
    }
    return 1;
}

int WriteAmrRtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!MakeBuffer(pTrack))
        return -1;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    ByteReader in{packet.pPayload, packet.nPayload};
    uint32_t nRequest = ReadBe(&in, 1);
    if (in.bFailed || in.nLeft == 0 || (nRequest != 0xF0 && nRequest != 0x70))
        return 1;
    Discard(pTrack);
    if (!(nRequest == 0xF0 ? ConvertAligned(pTrack, in) : CopyStored(pTrack, in)))
        return -1;
    uint32_t nSample = pTrack->nBytes;
    Discard(pTrack);
    return pTrack->pfnSample(pTrack->pContext, pTrack->pFrame, nSample, nTimeMs, SampleType('a', 0));
}

int WriteG711RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    if (!ORX_PEER_ASSERT(packet.bMarker, "((pRtpHdr->misc & 0x8000) >> 15)"))
        return -1;
    if (packet.nPayload == 0)
        return 1;
    return pTrack->pfnSample(pTrack->pContext, packet.pPayload, packet.nPayload, nTimeMs, SampleType('a', 0));
}

}  // namespace orx
