#include "record/depacketise.h"

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "record/aac.h"
#include "record/jpegparts.h"
#include "record/nalunit.h"

namespace orx {

void DepacketiserReset(Depacketiser *pTrack)
{
    free(pTrack->pFrame);
    ParamSetsFree(&pTrack->sets);
    Depacketiser fresh;
    fresh.pfnSample = pTrack->pfnSample;
    fresh.pContext = pTrack->pContext;
    fresh.rules = pTrack->rules;
    fresh.bWideband = pTrack->bWideband;
    fresh.nUnitTicks = pTrack->nUnitTicks;
    fresh.nTickRate = pTrack->nTickRate;
    *pTrack = fresh;
}

// Room for nBytes more. Returns 1; 0 when a frame may not have so many, or without memory.
static int MakeRoom(Depacketiser *pTrack, uint32_t nBytes)
{
    uint32_t nLimit = pTrack->rules.bWideUnits ? kWideFrameBytes : kFrameBytes;
    if (nBytes >= nLimit - pTrack->nBytes)
        return 0;
    uint32_t nTotal = pTrack->nTotal ? pTrack->nTotal : kFrameBytes;
    while (nBytes >= nTotal - pTrack->nBytes)
        nTotal *= 2;
    if (nTotal == pTrack->nTotal)
        return 1;
    auto *p = static_cast<uint8_t *>(realloc(pTrack->pFrame, nTotal));
    if (!p)
        return 0;
    pTrack->pFrame = p;
    pTrack->nTotal = nTotal;
    return 1;
}

static int MakeBuffer(Depacketiser *pTrack)
{
    return pTrack->pFrame || MakeRoom(pTrack, 0);
}

// Whether packets that cannot be used cost themselves only.
static int IsPatient(const Depacketiser *pTrack)
{
    return pTrack->rules.bStandardPushers || pTrack->rules.bNeverLose;
}

// Passes over a packet, or all that one had, and says so once. Returns 0 when it ends the recording.
static int PassOver(Depacketiser *pTrack)
{
    if (!IsPatient(pTrack))
        return 0;
    if (!pTrack->bSaid)
        print("Packets that cannot be used are left out of the recording.\r\n");
    pTrack->bSaid = 1;
    return 1;
}

static void Discard(Depacketiser *pTrack)
{
    pTrack->nBytes = 0;
    pTrack->nOpenUnit = -1;
    pTrack->bWide = 0;
}

void DepacketiserForget(Depacketiser *pTrack)
{
    Discard(pTrack);
    pTrack->bOpen = pTrack->bSkip = pTrack->bSeqKnown = 0;
}

// Drops the open frame: what it has, and what still comes of it.
static void SkipFrame(Depacketiser *pTrack)
{
    Discard(pTrack);
    pTrack->bSkip = 1;
}

// Gives up the open frame, which is too large. Returns 0 when that ends the recording.
static int LeaveOut(Depacketiser *pTrack)
{
    if (!pTrack->rules.bNeverLose && !pTrack->rules.bWideUnits)
        return 0;
    print("A picture is too large for the recording and left out, with what refers to it.\r\n");
    SkipFrame(pTrack);
    pTrack->bUntilKey = 1;
    return 1;
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
    if (pTrack->bSkip)
        return 1;
    int bRoom = MakeRoom(pTrack, nBytes);
    if (!bRoom && LeaveOut(pTrack))
        return 1;
    if (!ORX_PEER_ASSERT(bRoom, "pWriter->nBytes+len<pWriter->nTotal"))
        return 0;
    memcpy(pTrack->pFrame + pTrack->nBytes, pData, nBytes);
    pTrack->nBytes += nBytes;
    return 1;
}

// Hands out the frame that is held; the buffer counts as empty from here on.
static int EmitFrame(Depacketiser *pTrack, int bKey, int bWide)
{
    uint32_t nBytes = pTrack->nBytes;
    Discard(pTrack);
    pTrack->bOpen = pTrack->bSkip = 0;
    if (nBytes == 0 || (pTrack->bUntilKey && !bKey))
        return 1;
    pTrack->bUntilKey = 0;
    bWide |= nBytes > kZmfMaxRecordBytes - kZmfRecordHeadBytes;
    return pTrack->pfnSample(pTrack->pContext, pTrack->pFrame, nBytes, pTrack->nFrameTime,
                             SampleType('v', bKey ? ZMF_KEY : 0) | (bWide ? SAMPLE_WIDE : 0));
}

// --- H.264 and H.265 ---

namespace {

// How a packet's first unit begins.
struct FirstUnit {
    uint32_t nType = 0;
    int bThere = 0;       // the packet can begin a frame
    int bFirstSlice = 0;  // a slice, the first of its picture
};

}  // namespace

static FirstUnit FindFirstUnit(const NalForm *pForm, const RtpPacket *pPacket, uint32_t nType)
{
    FirstUnit unit;
    const uint8_t *p = pPacket->pPayload;
    uint32_t nHead = pForm->nHead;
    uint32_t nAt = nType == pForm->nAggregate ? nHead + 2 : nType == pForm->nFragment ? nHead : 0;
    if (pPacket->nPayload <= nAt || (nType == pForm->nFragment && !(p[nAt] & FU_START)))
        return unit;
    unit.bThere = 1;
    unit.nType = nType == pForm->nFragment ? p[nAt] & uint32_t{pForm->nTypeMask} : NalType(pForm, p[nAt]);
    uint32_t nSlice = nType == pForm->nFragment ? nAt + 1 : nAt + nHead;
    NalKind nKind = pForm->pfnKind(unit.nType);
    // first_mb_in_slice is 0, first_slice_segment_in_pic_flag is set
    unit.bFirstSlice = (nKind == NAL_IS_SLICE || nKind == NAL_IS_KEY_SLICE) && pPacket->nPayload > nSlice &&
                       (p[nSlice] & 0x80);
    return unit;
}

// Whether the track's pictures are taken as standard encoders make them.
static int IsStandard(const Depacketiser *pTrack, const NalForm *pForm)
{
    return pTrack->rules.bStandardPushers || pForm == &g_h265Form;
}

// Whether a packet that begins with this unit may be the first of a frame. A key frame shows by its parameter
// set, so that one behind a gap, such as a cache leaves that kept only key frames, is not taken for damaged.
// Others are compared with how earlier frames began: a slice whose parameter sets or whose picture's first
// slice were lost does not pass for a frame.
static int CanStart(const Depacketiser *pTrack, const NalForm *pForm, const FirstUnit &unit)
{
    if (!unit.bThere || !pTrack->bSeqKnown)
        return unit.bThere;
    NalKind nKind = pForm->pfnKind(unit.nType);
    if (nKind == NAL_IS_SEQUENCE_SET || nKind == NAL_IS_VIDEO_SET)
        return 1;
    if (nKind == NAL_IS_KEY_SLICE && unit.bFirstSlice && IsStandard(pTrack, pForm))
        return 1;
    return ((unit.bFirstSlice ? pTrack->nFirstSlices : pTrack->nFirstKinds) >> unit.nType & 1) != 0;
}

// A unit with its 2-byte length in front; a packet holds none that needs more.
static int AppendUnit(Depacketiser *pTrack, const uint8_t *pUnit, uint32_t nBytes)
{
    uint8_t prefix[kUnitHeadBytes];
    if (!ORX_PEER_ASSERT(nBytes <= kMaxNarrowUnit, "n<=0xffff"))
        return 0;
    PutBe(prefix, 2, nBytes + kUnitHeadBytes);
    return Append(pTrack, prefix, kUnitHeadBytes) && Append(pTrack, pUnit, nBytes);
}

// The units of an aggregation packet. Returns 1, 0 when one breaks an assertion, and drops the frame when the
// sizes do not fit the packet.
static int AppendAggregate(Depacketiser *pTrack, const NalForm *pForm, const RtpPacket *pPacket)
{
    ByteReader in{pPacket->pPayload, pPacket->nPayload};
    ReadBytes(&in, pForm->nHead);
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

static int IsWideOpen(const Depacketiser *pTrack)
{
    return GetBe(pTrack->pFrame + pTrack->nOpenUnit, 2) == 0;
}

// Makes room for a wide length in front of the unit that fragments are added to. Results of Append.
static int WidenUnit(Depacketiser *pTrack)
{
    constexpr uint32_t nMore = kWideUnitHeadBytes - kUnitHeadBytes;
    uint32_t nUnit = pTrack->nBytes - static_cast<uint32_t>(pTrack->nOpenUnit) - kUnitHeadBytes;
    if (!MakeRoom(pTrack, nMore))
        return LeaveOut(pTrack);
    uint8_t *p = pTrack->pFrame + pTrack->nOpenUnit;
    memmove(p + kWideUnitHeadBytes, p + kUnitHeadBytes, nUnit);
    PutBe(p, 2, 0);
    PutBe(p + 2, 4, nUnit);
    pTrack->nBytes += nMore;
    pTrack->bWide = 1;
    return 1;
}

// The length of the unit that fragments are added to, as far as it came.
static int UpdateLength(Depacketiser *pTrack)
{
    if (pTrack->bSkip)
        return 1;
    uint8_t *p = pTrack->pFrame + pTrack->nOpenUnit;
    uint32_t nUnit = pTrack->nBytes - static_cast<uint32_t>(pTrack->nOpenUnit);
    if (IsWideOpen(pTrack)) {
        PutBe(p + 2, 4, nUnit - kWideUnitHeadBytes);
        return 1;
    }
    if (nUnit > 0xFFFF && pTrack->rules.bWideUnits)
        return WidenUnit(pTrack);
    if (nUnit > 0xFFFF && LeaveOut(pTrack))
        return 1;
    if (!ORX_PEER_ASSERT(nUnit <= 0xFFFF, "n<=0xffff"))
        return 0;
    PutBe(p, 2, nUnit);
    return 1;
}

// A fragment of a unit. Returns 1, or 0 when it breaks an assertion; one that continues nothing drops the
// frame.
static int AppendFragment(Depacketiser *pTrack, const NalForm *pForm, const RtpPacket *pPacket)
{
    const uint8_t *p = pPacket->pPayload;
    const uint8_t nFlags = p[pForm->nHead];
    uint8_t head[2] = {NalWithType(pForm, p[0], nFlags & uint32_t{pForm->nTypeMask}), p[1]};
    if (nFlags & FU_START) {
        if (pPacket->bMarker && PassOver(pTrack)) {
            SkipFrame(pTrack);
            return 1;
        }
        if (!ORX_PEER_ASSERT(!pPacket->bMarker, "!bMask"))
            return 0;
        pTrack->nOpenUnit = static_cast<int>(pTrack->nBytes);
        if (!AppendUnit(pTrack, head, pForm->nHead))
            return 0;
    } else {
        const uint8_t *pOpen = pTrack->nOpenUnit >= 0 ? pTrack->pFrame + pTrack->nOpenUnit : nullptr;
        if (!pOpen || pOpen[IsWideOpen(pTrack) ? kWideUnitHeadBytes : kUnitHeadBytes] != head[0]) {
            SkipFrame(pTrack);
            return 1;
        }
    }
    uint32_t nBefore = pForm->nHead + 1U;
    return Append(pTrack, p + nBefore, pPacket->nPayload - nBefore) && UpdateLength(pTrack);
}

static int AppendPayload(Depacketiser *pTrack, const NalForm *pForm, const RtpPacket *pPacket, uint32_t nType)
{
    if (nType == pForm->nFragment)
        return AppendFragment(pTrack, pForm, pPacket);
    pTrack->nOpenUnit = -1;
    if (nType == pForm->nAggregate)
        return AppendAggregate(pTrack, pForm, pPacket);
    return AppendUnit(pTrack, pPacket->pPayload, pPacket->nPayload);
}

// Puts the parameter sets in front of a key frame, which some encoders send once only, or tell in the
// description alone. All that a picture has go there, too: whoever plays a file looks at its first unit.
static void LeadWithSets(Depacketiser *pTrack, const NalForm *pForm)
{
    uint32_t nSets = ParamSetsBytes(&pTrack->sets);
    if (!MakeRoom(pTrack, nSets))
        return;  // as it came, then
    pTrack->nBytes = ParamSetsStrip(pForm, pTrack->pFrame, pTrack->nBytes);
    memmove(pTrack->pFrame + nSets, pTrack->pFrame, pTrack->nBytes);
    ParamSetsPut(&pTrack->sets, pTrack->pFrame);
    pTrack->nBytes += nSets;
}

// A picture is whole. Result of the sample procedure.
static int FinishPicture(Depacketiser *pTrack, const NalForm *pForm)
{
    NalSummary found = NalSummarise(pForm, pTrack->pFrame, pTrack->nBytes);
    int bWide = pTrack->bWide || pForm == &g_h265Form;
    if (!IsStandard(pTrack, pForm))
        return EmitFrame(pTrack, found.bSequenceFirst, bWide);
    ParamSetsNote(&pTrack->sets, pForm, pTrack->pFrame, pTrack->nBytes);
    if (!found.bSlice)  // parameter sets on their own: they come with the picture
        Discard(pTrack);
    else if (found.bKey && (!found.bSetFirst || (ParamSetsKinds(&pTrack->sets) & ~found.nSets)))
        LeadWithSets(pTrack, pForm);
    return EmitFrame(pTrack, found.bKey, bWide);
}

// Not every encoder marks the last packet of a picture: the stamp of the next one ends it, too.
static int EndUnmarked(Depacketiser *pTrack, const NalForm *pForm, const RtpPacket *pPacket)
{
    int bNext = pPacket->nSeq == static_cast<uint16_t>(pTrack->nSeq + 1);
    if (!pTrack->bOpen || pTrack->bSkip || !bNext || pPacket->nRtpTime == pTrack->nFrameRtp ||
        !IsStandard(pTrack, pForm))
        return 1;
    return FinishPicture(pTrack, pForm);
}

// Whether the packet is of a way to packetise that is known. 1; 0 to pass over it; -1 when it ends the
// recording.
static int IsKnownType(Depacketiser *pTrack, const NalForm *pForm, const RtpPacket *pPacket, uint32_t nType)
{
    int bSingle = nType >= pForm->nFirstSingle && nType <= pForm->nLastSingle;
    if (bSingle || nType == pForm->nAggregate || nType == pForm->nFragment)
        return 1;
    if (!pTrack->bSaid)
        print("unsupported packetize mode: %d\n", static_cast<int>(nType));
    if (!PassOver(pTrack)) {
        Discard(pTrack);
        return -1;
    }
    // what nobody has defined is no part of the picture, unless a unit lies open; all else is a loss
    if (pTrack->nOpenUnit < 0 && (nType >= pForm->nForeign || nType < pForm->nFirstSingle))
        SkipEmpty(pTrack, pPacket->nSeq);
    return 0;
}

// A packet of units with payload. Result of the sample procedure, or -1.
static int TakeUnits(Depacketiser *pTrack, const NalForm *pForm, const RtpPacket *pPacket, uint32_t nTimeMs)
{
    uint32_t nType = NalType(pForm, pPacket->pPayload[0]);
    int nKnown = IsKnownType(pTrack, pForm, pPacket, nType);
    if (nKnown < 1)
        return nKnown == 0 ? 1 : -1;
    uint32_t nLeast = pForm->nHead + (nType == pForm->nFragment ? 1U : 0U);
    if (pPacket->nPayload < nLeast)
        return 1;
    int nResult = EndUnmarked(pTrack, pForm, pPacket);
    if (nResult < 1)
        return nResult;
    FirstUnit unit = FindFirstUnit(pForm, pPacket, nType);
    int bFirst = 0;
    if (!AdmitPacket(pTrack, pPacket, nTimeMs, CanStart(pTrack, pForm, unit), &bFirst))
        return 1;
    if (bFirst && unit.bThere)
        (unit.bFirstSlice ? pTrack->nFirstSlices : pTrack->nFirstKinds) |= uint64_t{1} << unit.nType;
    if (!AppendPayload(pTrack, pForm, pPacket, nType))
        return -1;
    return pPacket->bMarker ? FinishPicture(pTrack, pForm) : 1;
}

int WriteH264RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!IsPatient(pTrack) && !ORX_PEER_ASSERT(nBytes < kMaxH264PacketBytes, "len < sizeof(backup)"))
        return -1;
    if (!MakeBuffer(pTrack))
        return -1;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    return packet.nPayload == 0 ? SkipEmpty(pTrack, packet.nSeq)
                                : TakeUnits(pTrack, &g_h264Form, &packet, nTimeMs);
}

int WriteH265RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!MakeBuffer(pTrack))
        return -1;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    return packet.nPayload == 0 ? SkipEmpty(pTrack, packet.nSeq)
                                : TakeUnits(pTrack, &g_h265Form, &packet, nTimeMs);
}

// --- JPEG ---

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
    return packet.bMarker ? EmitFrame(pTrack, 1, 0) : 1;
}

// --- AMR ---

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

constexpr uint32_t kSpeechMs = 20;  // in a frame

static uint32_t SpeechTicks(const Depacketiser *pTrack)
{
    return pTrack->bWideband ? 320 : 160;
}

// Hands out the frames that are held. Result of the sample procedure.
static int EmitSpeech(Depacketiser *pTrack)
{
    uint32_t nBytes = pTrack->nBytes;
    Discard(pTrack);
    return pTrack->pfnSample(pTrack->pContext, pTrack->pFrame, nBytes, pTrack->nFrameTime,
                             SampleType('a', 0));
}

// A frame that says that there is no speech has no place in storage: what follows is later by its time.
// Returns 1, 0 when nToc is none, or -1.
static int SkipNoData(Depacketiser *pTrack, uint8_t nToc)
{
    uint32_t nFrameType = nToc >> 3 & 0x0F;
    if (!IsPatient(pTrack) || (nFrameType != 15 && !(nFrameType == 14 && pTrack->bWideband)))
        return 0;
    int nResult = pTrack->nBytes > 0 ? EmitSpeech(pTrack) : 1;
    pTrack->nFrameTime += (pTrack->nTicks / SpeechTicks(pTrack) + 1) * kSpeechMs;
    pTrack->nTicks = 0;
    return nResult < 1 ? -1 : 1;
}

// Adds a frame whose speech follows in *pIn. Returns 1; 0 when it is broken; -1.
static int AppendSpeech(Depacketiser *pTrack, uint8_t nToc, uint32_t nLen, ByteReader *pIn)
{
    auto nHeader = static_cast<uint8_t>(nToc & 0x7F);
    pTrack->nTicks += SpeechTicks(pTrack);
    return Append(pTrack, &nHeader, 1) && Append(pTrack, ReadBytes(pIn, nLen - 1), nLen - 1) ? 1 : -1;
}

// Storage frames out of an octet-aligned payload (RFC 4867, section 4.4), the mode request already taken off.
// Results of AppendSpeech.
static int ConvertAligned(Depacketiser *pTrack, ByteReader in)
{
    ByteReader toc = in;
    uint8_t nToc = 0;
    do {
        nToc = static_cast<uint8_t>(ReadBe(&in, 1));
    } while (nToc & 0x80);  // a failed read gives 0
    if (!(IsPatient(pTrack) ? !in.bFailed : ORX_PEER_ASSERT(!in.bFailed, "nLen<=len+1")))
        return 0;
    int nResult = 1;
    do {
        nToc = static_cast<uint8_t>(ReadBe(&toc, 1));
        nResult = SkipNoData(pTrack, nToc);
        if (nResult != 0)
            continue;
        uint32_t nLen = RecordedFrameBytes(pTrack, nToc);
        int bFits = nLen <= in.nLeft + 1;
        if (nLen == 0 || !(IsPatient(pTrack) ? bFits : ORX_PEER_ASSERT(bFits, "nLen<=len+1")))
            return 0;
        nResult = AppendSpeech(pTrack, nToc, nLen, &in);
    } while (nResult == 1 && (nToc & 0x80));
    return nResult;
}

// Frames that are in storage form already. Results of AppendSpeech.
static int CopyStored(Depacketiser *pTrack, ByteReader in)
{
    int nResult = 1;
    while (nResult == 1 && in.nLeft > 0) {
        uint8_t nToc = in.p[0];
        nResult = SkipNoData(pTrack, nToc);
        uint32_t nLen = nResult == 0 ? RecordedFrameBytes(pTrack, nToc) : 1;
        if (nLen == 0 ||
            !(IsPatient(pTrack) ? nLen <= in.nLeft : ORX_PEER_ASSERT(nLen <= in.nLeft, "nLen<=len")))
            return 0;
        ReadBytes(&in, 1);
        if (nResult == 0)
            nResult = AppendSpeech(pTrack, nToc, nLen, &in);
    }
    return nResult;
}

// The octet-aligned form, by the mode request in front; 0x70 is this system's own sign for frames in storage
// form. Standard encoders may ask for any mode.
static int IsAligned(const Depacketiser *pTrack, uint32_t nRequest)
{
    return nRequest == 0xF0 || (pTrack->rules.bStandardPushers && nRequest != 0x70 && (nRequest & 0x0F) == 0);
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
    int bAligned = IsAligned(pTrack, nRequest);
    if (in.bFailed || in.nLeft == 0 || (!bAligned && nRequest != 0x70))
        return 1;
    Discard(pTrack);
    pTrack->nFrameTime = nTimeMs;
    pTrack->nTicks = 0;
    pTrack->nTickRate = SpeechTicks(pTrack) * (1000 / kSpeechMs);
    int nResult = bAligned ? ConvertAligned(pTrack, in) : CopyStored(pTrack, in);
    if (nResult < 1) {
        Discard(pTrack);
        return nResult == 0 && PassOver(pTrack) ? 1 : -1;
    }
    return pTrack->nBytes > 0 ? EmitSpeech(pTrack) : 1;
}

// --- G.711 ---

int WriteG711RtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    // Standard encoders mark only what follows a silence (RFC 3551, section 4.1).
    if (!IsPatient(pTrack) && !ORX_PEER_ASSERT(packet.bMarker, "((pRtpHdr->misc & 0x8000) >> 15)"))
        return -1;
    if (packet.nPayload == 0)
        return 1;
    pTrack->nTicks = packet.nPayload;
    return pTrack->pfnSample(pTrack->pContext, packet.pPayload, packet.nPayload, nTimeMs, SampleType('a', 0));
}

// --- AAC ---

static int EmitAac(Depacketiser *pTrack, uint32_t nUnits, uint32_t nTimeMs)
{
    uint32_t nBytes = pTrack->nBytes;
    Discard(pTrack);
    pTrack->bOpen = 0;
    pTrack->nTicks = nUnits * pTrack->nUnitTicks;
    return nBytes == 0 ? 1
                       : pTrack->pfnSample(pTrack->pContext, pTrack->pFrame, nBytes, nTimeMs,
                                           SampleType('a', 0) | SAMPLE_WIDE);
}

// A unit of nUnit bytes of which the packet has a part. One of which a part is lost comes to nothing.
static int TakeAacPart(Depacketiser *pTrack, const RtpPacket *pPacket, uint32_t nUnit, int bGoesOn,
                       ByteReader in, uint32_t nTimeMs)
{
    if (!bGoesOn) {
        uint8_t prefix[kUnitHeadBytes];
        PutBe(prefix, sizeof(prefix), nUnit + kUnitHeadBytes);
        Discard(pTrack);
        Append(pTrack, prefix, sizeof(prefix));
        pTrack->bOpen = 1;
        pTrack->nOpenUnit = static_cast<int>(nUnit);
        pTrack->nFrameTime = nTimeMs;
        pTrack->nFrameRtp = pPacket->nRtpTime;
    }
    if (in.nLeft > nUnit + kUnitHeadBytes - pTrack->nBytes) {
        Discard(pTrack);
        pTrack->bOpen = 0;
        return 1;
    }
    Append(pTrack, in.p, static_cast<uint32_t>(in.nLeft));
    return pTrack->nBytes == nUnit + kUnitHeadBytes ? EmitAac(pTrack, 1, pTrack->nFrameTime) : 1;
}

// The units of a packet, as far as it holds what their headers promise.
static int TakeAacUnits(Depacketiser *pTrack, ByteReader heads, ByteReader in, uint32_t nTimeMs)
{
    uint32_t nUnits = 0;
    Discard(pTrack);
    while (heads.nLeft >= kAacHeaderBytes) {
        uint32_t nUnit = ReadBe(&heads, kAacHeaderBytes) >> 3;
        const uint8_t *pUnit = ReadBytes(&in, nUnit);
        if (!pUnit)
            break;
        if (nUnit > 0 && !AppendUnit(pTrack, pUnit, nUnit))
            return -1;
        nUnits += nUnit > 0;
    }
    return EmitAac(pTrack, nUnits, nTimeMs);
}

int WriteAacRtpData(Depacketiser *pTrack, const uint8_t *pPacket, uint32_t nBytes, uint32_t nTimeMs)
{
    RtpPacket packet;
    if (!MakeBuffer(pTrack))
        return -1;
    if (!RtpPacketParse(pPacket, nBytes, &packet))
        return 1;
    int bNext = pTrack->bSeqKnown && packet.nSeq == static_cast<uint16_t>(pTrack->nSeq + 1);
    pTrack->nSeq = packet.nSeq;
    pTrack->bSeqKnown = 1;
    ByteReader in{packet.pPayload, packet.nPayload};
    uint32_t nHeads = ReadBe(&in, kAacHeadersBytes) / 8;
    ByteReader heads{ReadBytes(&in, nHeads), nHeads};
    if (in.bFailed || nHeads < kAacHeaderBytes)
        return 1;
    uint32_t nFirst = GetBe(heads.p, kAacHeaderBytes) >> 3;
    int bOpen = pTrack->bOpen && bNext && packet.nRtpTime == pTrack->nFrameRtp &&
                static_cast<int>(nFirst) == pTrack->nOpenUnit;
    if (nHeads == kAacHeaderBytes && (bOpen || nFirst > in.nLeft))
        return TakeAacPart(pTrack, &packet, nFirst, bOpen, in, nTimeMs);
    return TakeAacUnits(pTrack, heads, in, nTimeMs);
}

}  // namespace orx
