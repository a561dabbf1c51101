#include "server/media/rewrite.h"

#include <algorithm>

#include "base/bytes.h"
#include "record/rtppacket.h"
#include "server/media/rtcpread.h"
#include "runtime/clock.h"

namespace orx {

constexpr int32_t kReordered = 2 * 90000;  // by which stamps may be behind that are no step back of the clock

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

void RewriteReport(const TrackRewrite *pRewrite, uint8_t *pRtcp, size_t nBytes)
{
    RtcpPart part;
    for (size_t nAt = 0; pRewrite->bChanges && RtcpNextPart(pRtcp, nBytes, &nAt, &part);) {
        uint8_t *pBody = pRtcp + (part.pBody - pRtcp);
        int bSender = part.nType == RTCP_SR && part.nBytes >= kSenderBytes;
        if (bSender)
            PutBe(pBody + 12, 4, static_cast<uint32_t>(GetBe(pBody + 12, 4) + pRewrite->nStampShift));
        int bSsrc = bSender || (part.nType == RTCP_SDES && part.nCount > 0 && part.nBytes >= 4);
        if (bSsrc && pRewrite->bSsrc)
            PutBe(pBody, 4, pRewrite->nSsrc);
    }
}

void RewriteResume(TrackRewrite *pRewrite, const uint8_t *pRtp, uint32_t nRate)
{
    uint64_t nGone = uint64_t{std::max(ClockMs() - pRewrite->nLastMs, 1U)} * nRate / 1000;  // another picture
    pRewrite->bContinues = 0;
    pRewrite->nSeqShift = static_cast<uint16_t>(pRewrite->nLastSeq + 1 - GetBe(pRtp + 2, 2));
    pRewrite->nStampShift = pRewrite->nLastStamp + static_cast<uint32_t>(nGone) - GetBe(pRtp + 4, 4);
    pRewrite->bSsrc = 1;
    pRewrite->nSsrc = pRewrite->nLastSsrc;
    RewriteChanged(pRewrite);
}

void RewriteNote(TrackRewrite *pRewrite, const uint8_t *pRtp)
{
    pRewrite->nLastSeq = static_cast<uint16_t>(GetBe(pRtp + 2, 2));
    pRewrite->nLastSsrc = GetBe(pRtp + 8, 4);
    uint32_t nStamp = GetBe(pRtp + 4, 4);
    auto nStep = static_cast<int32_t>(nStamp - pRewrite->nLastStamp);
    if (pRewrite->bKnown && nStep <= 0 && nStep > -kReordered)
        return;
    pRewrite->nLastStamp = nStamp;
    pRewrite->nLastMs = ClockMs();
    pRewrite->bKnown = 1;
}

void RewriteContinue(TrackRewrite *pRewrite, int nOwnType, int nType)
{
    pRewrite->nPayloadType = nOwnType != nType ? nType : -1;
    pRewrite->bContinues = pRewrite->bKnown;
    RewriteChanged(pRewrite);
}

void RewriteChanged(TrackRewrite *pRewrite)
{
    pRewrite->bChanges = pRewrite->nSeqShift != 0 || pRewrite->nStampShift != 0 || pRewrite->bSsrc ||
                         pRewrite->nPayloadType >= 0;
}

}  // namespace orx
