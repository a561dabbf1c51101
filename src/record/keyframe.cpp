#include "record/keyframe.h"

#include "base/bytes.h"

namespace orx {

namespace {

struct UnitsFound {
    int bSps = 0;
    int bIdr = 0;  // an IDR slice, or the beginning of one
};

}  // namespace

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
int IsKeyH264(KeyWatch *pWatch, const RtpPacket *pPacket)
{
    UnitsFound found = FindUnits(ByteReader{pPacket->pPayload, pPacket->nPayload});
    int bSameTime = pWatch->bKeySeen && pWatch->nKeyTime == pPacket->nRtpTime;
    int bSamePicture = bSameTime && !pWatch->bAfterMarker;
    pWatch->bAfterMarker = pPacket->bMarker;
    if (!(found.bSps && !bSamePicture) && !(found.bIdr && !bSameTime))
        return 0;
    pWatch->bKeySeen = 1;
    pWatch->nKeyTime = pPacket->nRtpTime;
    return 1;
}

// RFC 2435, section 3.1.2: every picture can be decoded alone, and begins at fragment offset 0.
int IsKeyJpeg(KeyWatch * /*pWatch*/, const RtpPacket *pPacket)
{
    return pPacket->nPayload > 3 && GetBe(pPacket->pPayload + 1, 3) == 0;
}

// Nothing is known but where its frames end.
int IsKeyGeneric(KeyWatch *pWatch, const RtpPacket *pPacket)
{
    int bStartsFrame = pWatch->bAfterMarker;
    pWatch->bAfterMarker = pPacket->bMarker;
    return bStartsFrame;
}

}  // namespace orx
