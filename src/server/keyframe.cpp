#include "server/keyframe.h"

#include "base/bytes.h"
#include "record/rtpout.h"

namespace orx {

enum : unsigned { NAL_IDR = 5, NAL_SPS = 7, NAL_STAP_A = 24, NAL_FU_A = 28 };  // RFC 6184, section 5.2
constexpr uint8_t kFuStart = 0x80;

// What the tests look at of a video packet.
struct VideoPacket {
    int bMarker = 0;
    uint32_t nTime = 0;  // RTP time stamp
    ByteReader payload{nullptr, 0};
};

// Takes the RTP header off a '$' frame of the program's video track (RFC 3550, section 5.1). Returns 1, or 0
// for a frame of another track and for one that is too short.
static int OpenVideoPacket(const Program *pProg, const uint8_t *pFrame, uint32_t nLen, VideoPacket *pOut)
{
    ByteReader in{pFrame, nLen};
    uint32_t nPrefix = ReadBe(&in, kInterleaveBytes);
    if (!pProg->bHasVideo || (nPrefix >> 16 & 0xFF) != 2 * static_cast<uint32_t>(pProg->nVideoTrack))
        return 0;
    uint32_t nFlags = ReadBe(&in, 1);
    pOut->bMarker = (ReadBe(&in, 1) & 0x80) != 0;
    ReadBytes(&in, 2);  // sequence number
    pOut->nTime = ReadBe(&in, 4);
    ReadBytes(&in, 4 + 4 * (nFlags & 0x0F));  // SSRC and contributing sources
    if (nFlags & 0x10) {
        ReadBytes(&in, 2);  // what the extension means
        ReadBytes(&in, 4 * ReadBe(&in, 2));
    }
    pOut->payload = in;
    return !in.bFailed;
}

struct UnitsFound {
    int bSps = 0;
    int bIdr = 0;  // an IDR slice, or the beginning of one
};

static void NoteUnit(UnitsFound *pFound, unsigned nType)
{
    pFound->bSps |= nType == NAL_SPS;
    pFound->bIdr |= nType == NAL_IDR;
}

// What begins in an H.264 payload. All units of an aggregate count: many encoders put a delimiter or an SEI
// before the parameter sets.
static UnitsFound FindUnits(ByteReader in)
{
    UnitsFound found;
    unsigned nType = ReadBe(&in, 1) & 0x1F;
    if (nType == NAL_FU_A) {
        uint32_t nHeader = ReadBe(&in, 1);
        if (nHeader & kFuStart)
            NoteUnit(&found, nHeader & 0x1F);
    } else if (nType == NAL_STAP_A) {
        while (in.nLeft > 0 && !in.bFailed) {
            uint32_t nSize = ReadBe(&in, 2);
            const uint8_t *pUnit = ReadBytes(&in, nSize);
            if (pUnit && nSize > 0)
                NoteUnit(&found, *pUnit & 0x1F);
        }
    } else if (!in.bFailed) {
        NoteUnit(&found, nType);
    }
    return found;
}

// The flag goes to the first packet of a key picture: its parameter sets, or its IDR slice when they do not
// come with it. One picture is flagged once, so that a player is given all of it.
static int IsKeyH264(Program *pProg, const uint8_t *pFrame, uint32_t nLen)
{
    VideoPacket packet;
    if (!OpenVideoPacket(pProg, pFrame, nLen, &packet))
        return 0;
    UnitsFound found = FindUnits(packet.payload);
    int bSameTime = pProg->bKeySeen && pProg->nKeyTime == packet.nTime;
    int bSamePicture = bSameTime && !pProg->bAfterMarker;
    pProg->bAfterMarker = packet.bMarker;
    if (!(found.bSps && !bSamePicture) && !(found.bIdr && !bSameTime))
        return 0;
    pProg->bKeySeen = 1;
    pProg->nKeyTime = packet.nTime;
    return 1;
}

// RFC 2435, section 3.1.2: every picture can be decoded alone, and begins at fragment offset 0.
static int IsKeyJpeg(Program *pProg, const uint8_t *pFrame, uint32_t nLen)
{
    VideoPacket packet;
    if (!OpenVideoPacket(pProg, pFrame, nLen, &packet))
        return 0;
    ReadBytes(&packet.payload, 1);
    uint32_t nOffset = ReadBe(&packet.payload, 3);
    return !packet.payload.bFailed && nOffset == 0;
}

// Of a codec that is only relayed nothing is known but where its frames end.
static int IsKeyGeneric(Program *pProg, const uint8_t *pFrame, uint32_t nLen)
{
    VideoPacket packet;
    if (!OpenVideoPacket(pProg, pFrame, nLen, &packet))
        return 0;
    int bStartsFrame = pProg->bAfterMarker;
    pProg->bAfterMarker = packet.bMarker;
    return bStartsFrame;
}

KeyFrameProc KeyFrameSelect(const Program *pProg)
{
    KeyFrameProc pfn = nullptr;
    for (int i = 0; i < pProg->nTrackCount; i++) {
        switch (pProg->mediaInfos[i].nMediaType & MEDIA_VIDEO_MASK) {
            case 0:
                break;
            case MEDIA_H264:
                pfn = IsKeyH264;
                break;
            case MEDIA_JPEG:
                pfn = IsKeyJpeg;
                break;
            default:  // the third codec is no better known than any other
                pfn = IsKeyGeneric;
                break;
        }
    }
    return pfn;
}

}  // namespace orx
