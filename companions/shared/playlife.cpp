#include "shared/playlife.h"

#include "client/rtppacket.h"
#include "shared/playlink.h"
#include "shared/playmedia.h"
#include "shared/playreply.h"
#include "shared/playrequest.h"
#include "shared/playsteps.h"
#include "shared/playtunnel.h"
#include "shared/playudp.h"

namespace orx {

constexpr int kReportMs = 5000;

// --- Times ---

// Packets come too often for each of them to set a timer: it is set for the last that was known.
static void OnSilentDue(RtspPlay *pPlay)
{
    uint64_t nEnd = pPlay->nLastMediaMs + static_cast<uint64_t>(pPlay->settings.nSilentMs);
    if (LoopNowMs() >= nEnd)
        PlayEnd(pPlay, PlayFault::NoMedia,
                "no packet for " + std::to_string(pPlay->settings.nSilentMs / 1000) + " s");
    else
        pPlay->nSilentDueMs = nEnd;
}

static void SendReports(RtspPlay *pPlay)
{
    PlaySetDue(pPlay, &pPlay->nReportDueMs, kReportMs);
    for (PlayMedia &media : pPlay->media) {
        std::string report = PlayReport(pPlay, &media);
        if (media.udp) {
            PlayUdpSendRtcp(&media, report);
        } else if (media.source.bSeen) {
            std::string frame;
            FrameAddHead(&frame, media.nRtcpChannel, report.size());
            PlaySendText(pPlay, frame + report);
        }
    }
}

static int IsDue(uint64_t *pnDueMs, uint64_t nNow)
{
    if (*pnDueMs == 0 || *pnDueMs > nNow)
        return 0;
    *pnDueMs = 0;
    return 1;
}

static void OnTimer(void *pUser)
{
    auto *pPlay = static_cast<RtspPlay *>(pUser);
    PlayBusy busy(pPlay);
    uint64_t nNow = LoopNowMs();
    if (pPlay->startFault != PlayFault::None)
        PlayEnd(pPlay, pPlay->startFault,
                pPlay->startFault == PlayFault::Url ? "no URL of rtsp:// or rtsps://" : "no memory");
    else if (IsDue(&pPlay->nAnswerDueMs, nNow))
        PlayEnd(pPlay, PlayFault::Answer,
                (pPlay->waiting.empty() ? std::string("the request") : pPlay->waiting.front().method) +
                    " was not answered");
    if (!PlayIsOver(pPlay) && IsDue(&pPlay->nSwitchDueMs, nNow))
        PlaySwitch(pPlay);
    if (!PlayIsOver(pPlay) && IsDue(&pPlay->nSilentDueMs, nNow))
        OnSilentDue(pPlay);
    if (!PlayIsOver(pPlay) && IsDue(&pPlay->nReportDueMs, nNow))
        SendReports(pPlay);
    if (!PlayIsOver(pPlay) && IsDue(&pPlay->nAliveDueMs, nNow))
        PlayKeepAlive(pPlay);
    if (!PlayIsOver(pPlay))
        PlayArm(pPlay);
}

// --- Links ---

struct FeedUser {
    RtspPlay *pPlay;
    int nConnection;
};

static int GoesOn(const FeedUser *pFeed)
{
    return !PlayIsOver(pFeed->pPlay) && pFeed->pPlay->nConnection == pFeed->nConnection;
}

static int OnFrame(void *pUser, int nChannel, const uint8_t *pData, size_t nBytes)
{
    auto *pFeed = static_cast<FeedUser *>(pUser);
    PlayTakeFrame(pFeed->pPlay, nChannel, pData, nBytes);
    return GoesOn(pFeed);
}

static int OnText(void *pUser, const RtspMessage *pMessage)
{
    auto *pFeed = static_cast<FeedUser *>(pUser);
    if (pFeed->pPlay->step == PlayStep::Tunnel)
        PlayTakeTunnelReply(pFeed->pPlay, pMessage);
    else if (pMessage->kind == RTSP_REPLY)
        PlayTakeReply(pFeed->pPlay, pMessage);
    else if (pMessage->kind == RTSP_REQUEST)
        PlayTakeRequest(pFeed->pPlay, pMessage);
    return GoesOn(pFeed);
}

static void OnBytes(void *pUser, const uint8_t *pData, size_t nBytes)
{
    static const RtspWireProcs kProcs = {OnFrame, OnText};
    auto *pPlay = static_cast<RtspPlay *>(pUser);
    PlayBusy busy(pPlay);
    FeedUser feed{pPlay, pPlay->nConnection};
    int nResult = RtspWireFeed(&pPlay->wire, pData, nBytes, &kProcs, &feed);
    PlayBurstDone(pPlay);
    if (nResult < 0 && GoesOn(&feed))
        PlayEnd(pPlay, PlayFault::Answer, "it sends what is no RTSP");
}

static void OnOpen(void *pUser)
{
    auto *pPlay = static_cast<RtspPlay *>(pUser);
    PlayBusy busy(pPlay);
    if (pPlay->over == PlayOver::Http)
        PlayTunnelAsk(pPlay);
    else
        PlayBegin(pPlay);
}

static PlayFault FaultOf(LinkFault fault)
{
    switch (fault) {
        case LinkFault::Name:
            return PlayFault::Name;
        case LinkFault::Refused:
            return PlayFault::Refused;
        case LinkFault::Route:
            return PlayFault::Route;
        case LinkFault::Tls:
            return PlayFault::Tls;
        case LinkFault::None:
        case LinkFault::Closed:
        case LinkFault::Lost:
        case LinkFault::Full:
            break;
    }
    return PlayFault::Closed;
}

static void OnEnded(void *pUser, LinkFault fault, const char *szWhy)
{
    auto *pPlay = static_cast<RtspPlay *>(pUser);
    PlayBusy busy(pPlay);
    int bHungUp = FaultOf(fault) == PlayFault::Closed;
    int bEarly = pPlay->step == PlayStep::Options || pPlay->step == PlayStep::Describe;
    if (bHungUp && bEarly && pPlay->bAgain) {
        int nTries = pPlay->waiting.empty() ? 0 : pPlay->waiting.front().nTries;
        pPlay->bAgain = 0;
        PlayConnect(pPlay);
        pPlay->nTriesBefore = nTries;  // a wrong password is not tried for ever, which would lock the account
        return;
    }
    PlayEndAsLinkSays(pPlay, FaultOf(fault), szWhy);
}

void PlayAttach(RtspPlay *pPlay)
{
    static const LinkProcs kProcs = {OnOpen, OnBytes, nullptr, OnEnded};
    pPlay->pLinkProcs = &kProcs;
    pPlay->timer.pfnDue = OnTimer;
    pPlay->timer.pUser = pPlay;
}

}  // namespace orx
