#include "server/media/rewrite.h"

#include "base/bytes.h"
#include "record/rtppacket.h"

namespace orx {

void RewritePacket(const TrackRewrite *pRewrite, uint8_t *pRtp, size_t nBytes)
{
    if (!pRewrite->bChanges || nBytes < kRtpHeaderBytes)
        return;
    if (pRewrite->nPayloadType >= 0)
        pRtp[1] = static_cast<uint8_t>((pRtp[1] & 0x80) | (pRewrite->nPayloadType & 0x7F));
    PutBe(pRtp + 2, 2, static_cast<uint16_t>(GetBe(pRtp + 2, 2) + pRewrite->nSeqShift));
    PutBe(pRtp + 4, 4, static_cast<uint32_t>(GetBe(pRtp + 4, 4) + pRewrite->nStampShift));
    if (pRewrite->bSsrc)
        PutBe(pRtp + 8, 4, pRewrite->nSsrc);
}

void RewriteChanged(TrackRewrite *pRewrite)
{
    pRewrite->bChanges = pRewrite->nSeqShift != 0 || pRewrite->nStampShift != 0 || pRewrite->bSsrc ||
                         pRewrite->nPayloadType >= 0;
}

}  // namespace orx
