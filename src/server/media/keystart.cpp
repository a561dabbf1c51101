#include "server/media/keystart.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/bytes.h"
#include "record/codec.h"
#include "record/sdpreader.h"
#include "server/core/settings.h"
#include "server/media/passon.h"
#include "server/media/rewrite.h"

namespace orx {

constexpr uint32_t kHead = kInterleaveBytes + kRtpHeaderBytes;
constexpr uint32_t kMaxUnit = 1400;     // of payload put into one packet: it passes every network
constexpr uint32_t kMaxPut = 16 << 10;  // parameter sets that are more are left to the encoder
constexpr int kMaxPutPackets = 64;
constexpr uint32_t kMaxUnitHead = 3;  // of a fragment
constexpr uint32_t kMaxHeldBytes = 64 << 10;
constexpr uint8_t kRecovery = 0x80;  // in nKinds: not a set, but as good a place to begin

namespace {

// What a packet has of a picture.
struct Found {
    int bSlice = 0;
    int bKeySlice = 0;  // or the beginning of one
};

}  // namespace

static TrackRewrite *RewriteOf(Program *pProg)
{
    return &pProg->desc.mediaInfos[pProg->desc.nVideoTrack].rewrite;
}

static void Pass(Program *pProg, DataBlock *pBlock)
{
    PassPacketOn(pProg, static_cast<unsigned>(pProg->desc.nVideoTrack), pBlock);
}

static void PassHeld(Program *pProg, int nFrom)
{
    KeyStart *pStart = &pProg->keyStart;
    for (int i = nFrom; i < pStart->nHeld; i++)
        Pass(pProg, pStart->held[i]);
    pStart->nHeld = 0;
    pStart->nHeldBytes = 0;
}

// The format line of the video track, which is the last video section that counts.
static std::string_view VideoFormat(const Description *pDesc)
{
    int nVideos = 0;
    for (int i = 0; i < pDesc->nTrackCount; i++)
        nVideos += (pDesc->mediaInfos[i].nMediaType & MEDIA_VIDEO_MASK) != 0;
    SdpWalk walk = SdpSections(pDesc->szSdp, SDP_LINE_OR_CR);
    SdpSection section;
    SdpMedia media;
    std::string_view format;
    while (nVideos > 0 && SdpNextSection(&walk, &section)) {
        if (!SdpReadMedia(section.own, SDP_MEDIA_SCAN, &media) ||
            SdpMediaKind(media.media) != MEDIA_VIDEO_OTHER)
            continue;
        format = SdpReadFormat(section.own);
        nVideos--;
    }
    return format;
}

void KeyStartInit(Program *pProg)
{
    KeyStart *pStart = &pProg->keyStart;
    int i = pProg->desc.nVideoTrack;
    const Codec *pCodec = i >= 0 ? pProg->desc.mediaInfos[i].pCodec : nullptr;
    if (pStart->nHeld > 0)
        PassHeld(pProg, 0);
    pStart->bKnown = pStart->bDecided = 0;
    pStart->pForm = pProg->standards.bPushers && pCodec ? pCodec->pNal : nullptr;
    ParamSetsFree(&pStart->sets);
    if (pStart->pForm)
        ParamSetsFromFormat(&pStart->sets, pStart->pForm, VideoFormat(&pProg->desc));
}

// --- What a packet holds ---

static void NoteUnit(KeyStart *pStart, const uint8_t *pUnit, uint32_t nBytes, Found *pFound)
{
    NalKind nKind = pStart->pForm->pfnKind(NalType(pStart->pForm, *pUnit));
    pFound->bKeySlice |= nKind == NAL_IS_KEY_SLICE;
    pFound->bSlice |= nKind == NAL_IS_KEY_SLICE || nKind == NAL_IS_SLICE;
    if (IsNalSet(nKind))
        ParamSetsAdd(&pStart->sets, nKind, pUnit, nBytes, &pStart->nKinds);
    else if (NalIsRecoveryPoint(pStart->pForm, pUnit, nBytes))
        pStart->nKinds |= kRecovery;
}

// A part of a unit. One of a parameter set counts as there, but is not put together: it is small by nature.
static void NotePart(KeyStart *pStart, uint32_t nHeader, Found *pFound)
{
    NalKind nKind = pStart->pForm->pfnKind(nHeader & pStart->pForm->nTypeMask);
    pFound->bSlice = nKind == NAL_IS_KEY_SLICE || nKind == NAL_IS_SLICE;
    pFound->bKeySlice = nKind == NAL_IS_KEY_SLICE && (nHeader & FU_START);
    if (IsNalSet(nKind))
        pStart->nKinds |= NalSetBit(nKind);
}

static Found Look(KeyStart *pStart, const RtpPacket *pPacket)
{
    Found found;
    const NalForm *pForm = pStart->pForm;
    ByteReader in{pPacket->pPayload, pPacket->nPayload};
    const uint8_t *pHead = ReadBytes(&in, pForm->nHead);
    uint32_t nType = pHead ? NalType(pForm, *pHead) : 0;
    if (pHead && nType == pForm->nFragment) {
        uint32_t nHeader = ReadBe(&in, 1);
        if (!in.bFailed)
            NotePart(pStart, nHeader, &found);
    } else if (pHead && nType == pForm->nAggregate) {
        while (in.nLeft > 0 && !in.bFailed) {
            uint32_t nSize = ReadBe(&in, 2);
            const uint8_t *pUnit = ReadBytes(&in, nSize);
            if (pUnit && nSize > pForm->nHead)
                NoteUnit(pStart, pUnit, nSize, &found);
        }
    } else if (pHead && (nType < pForm->nFirstSingle || nType > pForm->nLastSingle)) {
        found.bSlice = 1;  // nobody knows what it is, and nothing waits for it
    } else if (pHead && in.nLeft > 0) {
        NoteUnit(pStart, pPacket->pPayload, pPacket->nPayload, &found);
    }
    return found;
}

// Whether the packet is a delimiter alone, which is to stay the first of its picture.
static int IsDelimiter(const KeyStart *pStart, const DataBlock *pBlock)
{
    RtpPacket packet;
    return RtpPacketParse(BlockData(pBlock) + kInterleaveBytes, pBlock->len - kInterleaveBytes, &packet) &&
           packet.nPayload > 0 &&
           pStart->pForm->pfnKind(NalType(pStart->pForm, *packet.pPayload)) == NAL_IS_DELIMITER;
}

// --- Parameter sets in front ---

namespace {

// What is put in front of a packet.
struct Front {
    Program *pProg;
    const DataBlock *pNext;  // the packet
    uint32_t nFlags;         // of the first block
    int nPut = 0;
};

}  // namespace

// A packet with the head of the one behind it, without its marker; then a payload's head and the rest.
static void PutPacket(Front *pFront, ByteReader head, ByteReader rest)
{
    uint8_t frame[kHead + kMaxUnitHead + kMaxUnit];
    uint32_t nBytes = kHead + static_cast<uint32_t>(head.nLeft + rest.nLeft);
    TrackRewrite *pRewrite = RewriteOf(pFront->pProg);
    memcpy(frame, BlockData(pFront->pNext), kHead);
    PutBe(frame + 2, 2, nBytes - kInterleaveBytes);
    frame[kInterleaveBytes] = 0x80;  // version 2, and nothing between the head and the payload
    frame[kInterleaveBytes + 1] &= 0x7F;
    memcpy(frame + kHead, head.p, head.nLeft);
    memcpy(frame + kHead + head.nLeft, rest.p, rest.nLeft);
    DataBlock *pBlock = MakeDataBlock2(frame, nBytes, DB_MEDIA | DB_VIDEO | std::exchange(pFront->nFlags, 0));
    if (!pBlock)
        return;
    pBlock->nTimestamp = pFront->pNext->nTimestamp;
    Pass(pFront->pProg, pBlock);
    pRewrite->nSeqShift++;
    RewriteChanged(pRewrite);
    pFront->nPut++;
}

// A unit, in fragments (RFC 6184, section 5.8; RFC 7798, section 4.4.3) when it is large.
static void PutUnit(Front *pFront, ByteReader unit)
{
    const NalForm *pForm = pFront->pProg->keyStart.pForm;
    if (unit.nLeft <= kMaxUnit) {
        PutPacket(pFront, ByteReader{unit.p, 0}, unit);
        return;
    }
    const uint8_t *pHead = ReadBytes(&unit, pForm->nHead);
    uint8_t head[kMaxUnitHead] = {NalWithType(pForm, *pHead, pForm->nFragment), pHead[1]};
    for (uint8_t nFlag = FU_START; unit.nLeft > 0; nFlag = 0) {
        size_t nPart = std::min<size_t>(unit.nLeft, kMaxUnit);
        uint8_t nEnd = nPart == unit.nLeft ? FU_END : 0;
        head[pForm->nHead] = static_cast<uint8_t>(nFlag | nEnd | NalType(pForm, *pHead));
        PutPacket(pFront, ByteReader{head, pForm->nHead + 1U}, ByteReader{ReadBytes(&unit, nPart), nPart});
    }
}

// All kinds, so that each stands behind those that it refers to.
static void PutSets(Front *pFront)
{
    for (const auto &kind : pFront->pProg->keyStart.sets.kinds) {
        ByteReader in{kind.pUnits, kind.nBytes};
        uint32_t nUnit = 0;
        const uint8_t *pUnit;
        while (pFront->nPut < kMaxPutPackets && (pUnit = NalNext(&in, &nUnit)))
            PutUnit(pFront, ByteReader{pUnit, nUnit});
    }
}

// --- The picture that begins ---

// The picture that is held can be decoded alone: its first packet is where players start, and what it lacks
// is put in front of all but a delimiter.
static void PassKey(Program *pProg)
{
    constexpr uint32_t kJump = DB_JUMP | DB_SPLIT;
    KeyStart *pStart = &pProg->keyStart;
    int nFrom = 0;
    Front front{pProg, pStart->held[0], DB_KEY | (pStart->held[0]->nFlags & kJump)};
    pStart->held[0]->nFlags &= ~kJump;
    int bLacks = (ParamSetsKinds(&pStart->sets) & ~pStart->nKinds) != 0;
    if (bLacks && ParamSetsBytes(&pStart->sets) <= kMaxPut) {
        if (IsDelimiter(pStart, pStart->held[0])) {
            pStart->held[0]->nFlags |= std::exchange(front.nFlags, 0);
            Pass(pProg, pStart->held[nFrom++]);
            front.pNext = pStart->held[nFrom];
        }
        PutSets(&front);
    }
    pStart->held[nFrom]->nFlags |= front.nFlags;
    PassHeld(pProg, nFrom);
}

// Holds the packet, and lets go of what is held when it is known what it is, or too much.
static void Hold(Program *pProg, DataBlock *pBlock, const Found &found)
{
    constexpr uint8_t kStart = NalSetBit(NAL_IS_VIDEO_SET) | NalSetBit(NAL_IS_SEQUENCE_SET) | kRecovery;
    KeyStart *pStart = &pProg->keyStart;
    pStart->held[pStart->nHeld++] = pBlock;
    pStart->nHeldBytes += pBlock->len;
    pStart->bDecided = found.bSlice;
    if (found.bKeySlice || (found.bSlice && (pStart->nKinds & kStart))) {
        PassKey(pProg);
    } else if (found.bSlice) {
        PassHeld(pProg, 0);
    } else if (pStart->nHeld == kMaxHeldPackets || pStart->nHeldBytes > kMaxHeldBytes) {
        PassHeld(pProg, 0);
        pStart->nKinds = 0;  // a key picture begins behind it
    }
}

static void BeginPicture(Program *pProg, uint32_t nRtpTime)
{
    KeyStart *pStart = &pProg->keyStart;
    PassHeld(pProg, 0);  // a picture without slices: parameter sets of their own
    pStart->bKnown = 1;
    pStart->nRtpTime = nRtpTime;
    pStart->nKinds = 0;
    pStart->bDecided = 0;
}

void KeyStartTake(Program *pProg, DataBlock *pBlock)
{
    KeyStart *pStart = &pProg->keyStart;
    RtpPacket packet;
    if (!RtpPacketParse(BlockData(pBlock) + kInterleaveBytes, pBlock->len - kInterleaveBytes, &packet)) {
        PassHeld(pProg, 0);
        Pass(pProg, pBlock);
        return;
    }
    int bSame = pStart->bKnown && pStart->nRtpTime == packet.nRtpTime;
    int bAfterMarker = std::exchange(pStart->bAfterMarker, packet.bMarker);
    if (bSame && pStart->bDecided && !bAfterMarker) {
        Pass(pProg, pBlock);
        return;
    }
    if (!bSame)
        BeginPicture(pProg, packet.nRtpTime);
    if (pStart->bDecided)
        pStart->nKinds = 0;
    Found found = Look(pStart, &packet);
    // Behind a marker sets open a picture though the stamp is the same; a slice is one that is marked itself.
    if (pStart->bDecided && !pStart->nKinds)
        Pass(pProg, pBlock);
    else
        Hold(pProg, pBlock, found);
}

}  // namespace orx
