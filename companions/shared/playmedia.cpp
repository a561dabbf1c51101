#include "shared/playmedia.h"

#include <algorithm>
#include <utility>

namespace orx {

constexpr int kFirstReportMs = 1000;

void PlayTellPlaying(RtspPlay *pPlay)
{
    if (pPlay->step == PlayStep::Playing)
        return;
    pPlay->step = PlayStep::Playing;
    pPlay->bAgain = 0;
    pPlay->nAnswerDueMs = 0;
    pPlay->nLastMediaMs = LoopNowMs();
    PlaySetDue(pPlay, &pPlay->nAliveDueMs, std::max(pPlay->nTimeoutS * 500, 1000));
    PlaySetDue(pPlay, &pPlay->nSilentDueMs, pPlay->settings.nSilentMs);
    PlaySetDue(pPlay, &pPlay->nReportDueMs, kFirstReportMs);
    if (!std::exchange(pPlay->bToldPlaying, 1))
        pPlay->procs.pfnPlaying(pPlay->pUser);
}

void PlayTakePacket(RtspPlay *pPlay, size_t nMedia, int bRtcp, const uint8_t *pData, size_t nBytes)
{
    if (pPlay->step < PlayStep::Play)
        return;
    PlayTellPlaying(pPlay);  // some send before they answer
    if (PlayIsOver(pPlay))
        return;
    PlayMedia *pMedia = &pPlay->media[nMedia];
    if (!pPlay->bBurst)
        pPlay->nBurstMs = LoopNowMs();  // for all of it: it was there at once
    pPlay->bBurst = 1;
    if (bRtcp) {
        RtpSourceTakeRtcp(&pMedia->source, pData, nBytes, pPlay->nBurstMs);
    } else {
        RtpSourceTake(&pMedia->source, pData, nBytes, pMedia->nClockRate, pPlay->nBurstMs);
        pPlay->nLastMediaMs = pPlay->nBurstMs;
    }
    pPlay->procs.pfnPacket(pPlay->pUser, pMedia->nTrack, bRtcp, pData, nBytes);
}

void PlayTakeFrame(RtspPlay *pPlay, int nChannel, const uint8_t *pData, size_t nBytes)
{
    for (size_t i = 0; i < pPlay->media.size(); i++) {
        const PlayMedia *pMedia = &pPlay->media[i];
        if (nChannel != pMedia->nRtpChannel && nChannel != pMedia->nRtcpChannel)
            continue;
        PlayTakePacket(pPlay, i, nChannel == pMedia->nRtcpChannel, pData, nBytes);
        return;
    }
}

void PlayBurstDone(RtspPlay *pPlay)
{
    if (!pPlay->bBurst || PlayIsOver(pPlay))
        return;
    pPlay->bBurst = 0;
    if (pPlay->procs.pfnBurst)
        pPlay->procs.pfnBurst(pPlay->pUser);
}

std::string PlayReport(RtspPlay *pPlay, PlayMedia *pMedia)
{
    return RtpSourceReport(&pMedia->source, pPlay->nSsrc, pPlay->cnonce, LoopNowMs());
}

}  // namespace orx
