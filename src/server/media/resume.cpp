#include "server/media/resume.h"

#include <algorithm>

#include "base/bytes.h"
#include "server/media/rewrite.h"

namespace orx {

constexpr int64_t kNearMs =
    2000;  // reports that put a track further from where its packets come in do not fit

namespace {

// A stamp of a track with its time on a wall clock (NTP: seconds in the upper 32 bits).
struct TimePair {
    uint64_t nNtp = 0;
    uint32_t nStamp = 0;
};

}  // namespace

static uint64_t NtpAt(const TimePair *pPair, uint32_t nStamp, uint32_t nRate)
{
    int64_t nTicks = static_cast<int32_t>(nStamp - pPair->nStamp);
    int64_t nNtp = (nTicks / nRate << 32) + (nTicks % nRate << 32) / nRate;
    return pPair->nNtp + static_cast<uint64_t>(nNtp);
}

static uint32_t StampAt(const TimePair *pPair, uint64_t nNtp, uint32_t nRate)
{
    uint64_t nBehind = nNtp - pPair->nNtp;
    uint64_t nTicks = (nBehind >> 32) * nRate + ((nBehind & UINT32_MAX) * nRate >> 32);
    return pPair->nStamp + static_cast<uint32_t>(nTicks);  // as well before it: all wraps
}

// What the players of a track were told last. Returns 0 when nothing was.
static int Told(const MediaInfo *pInfo, TimePair *pPair)
{
    SenderReport report;
    if (pInfo->nTimeScale == 0 || !RtcpReadSender(pInfo->report.bytes, pInfo->report.nBytes, &report))
        return 0;
    *pPair = {NtpOf(&report), report.nRtpTime};
    return 1;
}

// The track's pusher has told, and its players know another's.
static int BothKnown(const MediaInfo *pInfo, TimePair *pTold)
{
    return pInfo->rewrite.bReported && Told(pInfo, pTold);
}

// The shift of reports with which no track that goes on already steps back for it. Returns 1, or 0 when
// none tells.
static int FindShift(const Program *pProg, uint64_t *pShift)
{
    int bFound = 0;
    for (int i = 0; i < pProg->desc.nTrackCount; i++) {
        const MediaInfo *pInfo = &pProg->desc.mediaInfos[i];
        const TrackRewrite *pRewrite = &pInfo->rewrite;
        TimePair told;
        if (pRewrite->bContinues || !BothKnown(pInfo, &told))
            continue;
        TimePair own{pRewrite->nReportedNtp, pRewrite->nReportedStamp + pRewrite->nStampShift};
        uint64_t nShift = NtpAt(&told, own.nStamp, pInfo->nTimeScale) - own.nNtp;
        if (!bFound || static_cast<int64_t>(nShift - *pShift) > 0)
            *pShift = nShift;
        bFound = 1;
    }
    return bFound;
}

static void Settle(Program *pProg)
{
    if (pProg->resume.bDue && FindShift(pProg, &pProg->resume.nNtpShift))
        pProg->resume.bDue = 0;
}

void ResumeTrack(Program *pProg, unsigned nTrack, const uint8_t *pRtp)
{
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    TrackRewrite *pRewrite = &pInfo->rewrite;
    TimePair told;
    Settle(pProg);
    RewriteResume(pRewrite, pRtp, pInfo->nTimeScale);
    if (!pProg->resume.bDue && BothKnown(pInfo, &told)) {
        uint32_t nStamp = GetBe(pRtp + 4, 4);
        TimePair own{pRewrite->nReportedNtp + pProg->resume.nNtpShift, pRewrite->nReportedStamp};
        uint32_t nTold = StampAt(&told, NtpAt(&own, nStamp, pInfo->nTimeScale), pInfo->nTimeScale);
        int64_t nOff = static_cast<int32_t>(nTold - nStamp - pRewrite->nStampShift);
        int bRises = static_cast<int32_t>(nTold - pRewrite->nLastStamp) > 0;
        if (bRises && nOff * 1000 < kNearMs * pInfo->nTimeScale && -nOff * 1000 < kNearMs * pInfo->nTimeScale)
            pRewrite->nStampShift = nTold - nStamp;
        RewriteChanged(pRewrite);
    }
    Settle(pProg);
}

// Whether a track may still tell more: its players know reports, and its pusher has sent none.
static int MoreMayCome(const Program *pProg)
{
    return std::any_of(pProg->desc.mediaInfos, pProg->desc.mediaInfos + pProg->desc.nTrackCount,
                       [](auto &info) {
                           TimePair told;
                           return Told(&info, &told) && (info.rewrite.bContinues || !info.rewrite.bReported);
                       });
}

int ResumeReport(Program *pProg, unsigned nTrack, SenderReport *pReport)
{
    TrackRewrite *pRewrite = &pProg->desc.mediaInfos[nTrack].rewrite;
    int bAgain = pRewrite->bReported;
    pRewrite->bReported = 1;
    pRewrite->nReportedNtp = NtpOf(pReport);
    pRewrite->nReportedStamp = pReport->nRtpTime;
    if (pRewrite->bContinues)
        return 0;
    if (pProg->resume.bDue && !bAgain && MoreMayCome(pProg))
        return 0;
    Settle(pProg);
    pProg->resume.bDue = 0;  // where players know nothing there is nothing to keep to
    uint64_t nNtp = NtpOf(pReport) + pProg->resume.nNtpShift;
    pReport->nNtpSec = static_cast<uint32_t>(nNtp >> 32);
    pReport->nNtpFrac = static_cast<uint32_t>(nNtp);
    return 1;
}

}  // namespace orx
