#include "record/keyframe.h"

#include "base/bytes.h"
#include "record/nalunit.h"

namespace orx {

namespace {

struct UnitsFound {
    int bSet = 0;  // a parameter set of a sequence, or of more
    int bKey = 0;  // a key slice, or the beginning of one
};

}  // namespace

static void NoteUnit(UnitsFound *pFound, NalKind nKind)
{
    pFound->bSet |= nKind == NAL_IS_SEQUENCE_SET || nKind == NAL_IS_VIDEO_SET;
    pFound->bKey |= nKind == NAL_IS_KEY_SLICE;
}

// What begins in a payload. All units of an aggregate count: many encoders put a delimiter or an SEI before
// the parameter sets.
static UnitsFound FindUnits(const NalForm *pForm, ByteReader in)
{
    UnitsFound found;
    const uint8_t *pHead = ReadBytes(&in, pForm->nHead);
    uint32_t nType = pHead ? NalType(pForm, *pHead) : 0;
    if (pHead && nType == pForm->nFragment) {
        uint32_t nHeader = ReadBe(&in, 1);
        if (nHeader & FU_START)
            NoteUnit(&found, pForm->pfnKind(nHeader & pForm->nTypeMask));
    } else if (pHead && nType == pForm->nAggregate) {
        while (in.nLeft > 0 && !in.bFailed) {
            uint32_t nSize = ReadBe(&in, 2);
            const uint8_t *pUnit = ReadBytes(&in, nSize);
            if (pUnit && nSize > 0)
                NoteUnit(&found, pForm->pfnKind(NalType(pForm, *pUnit)));
        }
    } else if (pHead) {
        NoteUnit(&found, pForm->pfnKind(nType));
    }
    return found;
}

// The flag goes to the first packet of a key picture: its parameter sets, or its key slice when they do not
// come with it. One picture is flagged once, so that a player is given all of it.
static int IsKeyUnit(const NalForm *pForm, KeyWatch *pWatch, const RtpPacket *pPacket)
{
    UnitsFound found = FindUnits(pForm, ByteReader{pPacket->pPayload, pPacket->nPayload});
    int bSameTime = pWatch->bKeySeen && pWatch->nKeyTime == pPacket->nRtpTime;
    int bSamePicture = bSameTime && !pWatch->bAfterMarker;
    pWatch->bAfterMarker = pPacket->bMarker;
    if (!(found.bSet && !bSamePicture) && !(found.bKey && !bSameTime))
        return 0;
    pWatch->bKeySeen = 1;
    pWatch->nKeyTime = pPacket->nRtpTime;
    return 1;
}

int IsKeyH264(KeyWatch *pWatch, const RtpPacket *pPacket)
{
    return IsKeyUnit(&g_h264Form, pWatch, pPacket);
}

int IsKeyH265(KeyWatch *pWatch, const RtpPacket *pPacket)
{
    return IsKeyUnit(&g_h265Form, pWatch, pPacket);
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
