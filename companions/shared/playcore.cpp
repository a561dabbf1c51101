#include "shared/playcore.h"

#include <algorithm>

namespace orx {

void PlayArm(RtspPlay *pPlay)
{
    uint64_t nFirst = 0;
    for (uint64_t nDue : {pPlay->nAnswerDueMs, pPlay->nAliveDueMs, pPlay->nSilentDueMs, pPlay->nSwitchDueMs,
                          pPlay->nReportDueMs})
        if (nDue != 0 && (nFirst == 0 || nDue < nFirst))
            nFirst = nDue;
    uint64_t nNow = LoopNowMs();
    if (nFirst != 0)
        LoopSetTimer(pPlay->pLoop, &pPlay->timer, nFirst > nNow ? nFirst - nNow : 0);
    else
        LoopClearTimer(pPlay->pLoop, &pPlay->timer);
}

void PlaySetDue(RtspPlay *pPlay, uint64_t *pnDueMs, int nMs)
{
    *pnDueMs = LoopNowMs() + static_cast<uint64_t>(std::max(nMs, 1));
    if (!pPlay->timer.nPlace || *pnDueMs < pPlay->timer.nDueMs)
        PlayArm(pPlay);
}

// Where tunnels end when the URL gives no port: where the camera's pages are.
static int TunnelPort(const CameraUrl *pUrl)
{
    return pUrl->nPort ? pUrl->nPort : pUrl->bTls ? 443 : 80;
}

void PlayFillTarget(const RtspPlay *pPlay, LinkTarget *pOut)
{
    const CameraUrl *pUrl = &pPlay->url;
    pOut->host = pUrl->host;
    pOut->nPort = pPlay->over == PlayOver::Http ? TunnelPort(pUrl) : CameraUrlPort(pUrl);
    pOut->bTls = pUrl->bTls;
    pOut->pinFile = pPlay->settings.pinFile;
    pOut->nTimeoutMs = pPlay->settings.nAnswerMs;
}

}  // namespace orx
