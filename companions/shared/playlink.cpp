#include "shared/playlink.h"

#include <utility>

#include "shared/playrequest.h"
#include "shared/playudp.h"

namespace orx {

void PlayRelease(RtspPlay *pPlay)
{
    if (pPlay->pLink && !pPlay->session.empty())
        PlayTell(pPlay, "TEARDOWN", pPlay->aggregate);
    LinkFinish(std::exchange(pPlay->pPost, nullptr));
    LinkFinish(std::exchange(pPlay->pLink, nullptr));
    for (PlayMedia &media : pPlay->media)
        PlayUdpClose(&media);
    pPlay->session.clear();
    pPlay->waiting.clear();
    pPlay->wire = RtspWire();
    pPlay->nAnswerDueMs = pPlay->nAliveDueMs = pPlay->nSilentDueMs = 0;
    pPlay->nSwitchDueMs = pPlay->nReportDueMs = 0;
    LoopClearTimer(pPlay->pLoop, &pPlay->timer);
}

void PlayConnect(RtspPlay *pPlay)
{
    PlayRelease(pPlay);
    pPlay->step = PlayStep::Connect;
    pPlay->nConnection++;
    LinkTarget target;
    PlayFillTarget(pPlay, &target);
    pPlay->pLink = LinkOpen(pPlay->pLoop, &target, pPlay->pLinkProcs, pPlay);
    if (!pPlay->pLink) {
        pPlay->startFault = PlayFault::Closed;
        PlaySetDue(pPlay, &pPlay->nAnswerDueMs, 0);
    }
}

void PlayEndAsLinkSays(RtspPlay *pPlay, PlayFault fault, const std::string &line)
{
    if (PlayIsOver(pPlay))
        return;
    PlayRelease(pPlay);
    pPlay->step = PlayStep::Ended;
    pPlay->procs.pfnEnded(pPlay->pUser, fault, line.c_str());
}

void PlayEnd(RtspPlay *pPlay, PlayFault fault, const std::string &why)
{
    LinkTarget target;
    PlayFillTarget(pPlay, &target);
    std::string peer = LinkPeerName(target.host, target.nPort) + ": ";
    PlayEndAsLinkSays(pPlay, fault, (target.host.empty() ? "" : peer) + why);
}

}  // namespace orx
