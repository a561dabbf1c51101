#include "server/media/keyframe.h"

#include "base/bytes.h"
#include "record/depacketise.h"
#include "record/rtpout.h"

namespace orx {

// Takes the headers off a '$' frame of the program's video track. Returns 1, or 0 for a frame of another
// track and for one that is no whole RTP packet.
static int OpenVideoPacket(const Program *pProg, const uint8_t *pFrame, uint32_t nLen, RtpPacket *pOut)
{
    return nLen > kInterleaveBytes && pFrame[1] == 2 * pProg->nVideoTrack &&
           RtpPacketParse(pFrame + kInterleaveBytes, nLen - kInterleaveBytes, pOut);
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
        if (nHeader & FU_START)
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
    RtpPacket packet;
    if (!OpenVideoPacket(pProg, pFrame, nLen, &packet))
        return 0;
    UnitsFound found = FindUnits(ByteReader{packet.pPayload, packet.nPayload});
    int bSameTime = pProg->bKeySeen && pProg->nKeyTime == packet.nRtpTime;
    int bSamePicture = bSameTime && !pProg->bAfterMarker;
    pProg->bAfterMarker = packet.bMarker;
    if (!(found.bSps && !bSamePicture) && !(found.bIdr && !bSameTime))
        return 0;
    pProg->bKeySeen = 1;
    pProg->nKeyTime = packet.nRtpTime;
    return 1;
}

// RFC 2435, section 3.1.2: every picture can be decoded alone, and begins at fragment offset 0.
static int IsKeyJpeg(Program *pProg, const uint8_t *pFrame, uint32_t nLen)
{
    RtpPacket packet;
    if (!OpenVideoPacket(pProg, pFrame, nLen, &packet))
        return 0;
    return packet.nPayload > 3 && GetBe(packet.pPayload + 1, 3) == 0;
}

// Of a codec that is only relayed nothing is known but where its frames end.
static int IsKeyGeneric(Program *pProg, const uint8_t *pFrame, uint32_t nLen)
{
    RtpPacket packet;
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
