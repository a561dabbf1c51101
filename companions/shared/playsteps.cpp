#include "shared/playsteps.h"

#include <algorithm>
#include <utility>

#include "shared/cameradesc.h"
#include "shared/playlink.h"
#include "shared/playmedia.h"
#include "shared/playreply.h"
#include "shared/playrequest.h"
#include "shared/playudp.h"
#include "shared/rtsptransport.h"

namespace orx {

static std::string HeaderText(const RtspMessage *pReply, const char *szName)
{
    const char *szValue = RtspFindHeader(pReply, szName);
    return szValue ? szValue : "";
}

static void TakeSession(RtspPlay *pPlay, const RtspMessage *pReply)
{
    const char *szValue = RtspFindHeader(pReply, "Session");
    if (szValue)
        pPlay->session = RtspReadSession(szValue, &pPlay->nTimeoutS);
}

// --- PLAY ---

static void OnPlay(RtspPlay *pPlay, const RtspMessage *pReply)
{
    if (pReply->nStatus != 200) {
        PlayRefused(pPlay, "PLAY", pReply);
        return;
    }
    TakeSession(pPlay, pReply);
    PlayUdpPunch(pPlay);
    PlayTellPlaying(pPlay);
}

// --- SETUP ---

static void AskSetup(RtspPlay *pPlay);

static void AskPlay(RtspPlay *pPlay)
{
    pPlay->step = PlayStep::Play;
    PlayUdpPunch(pPlay);
    if (pPlay->over == PlayOver::Udp && pPlay->nSwitches == 0)
        PlaySetDue(pPlay, &pPlay->nSwitchDueMs, pPlay->settings.nUdpSilentMs);
    PlayAsk(pPlay, "PLAY", pPlay->aggregate, "Range: npt=0.000-\r\n", OnPlay);
}

void PlaySwitch(RtspPlay *pPlay)
{
    pPlay->nSwitches++;
    pPlay->over = pPlay->over == PlayOver::Udp ? PlayOver::Tcp : PlayOver::Udp;
    if (pPlay->step == PlayStep::Setup && pPlay->nSetUp == 0)
        AskSetup(pPlay);
    else
        PlayConnect(pPlay);
}

static void TakeTransport(PlayMedia *pMedia, const RtspMessage *pReply)
{
    RtspTransportReply transport;
    RtspReadTransport(HeaderText(pReply, "Transport").c_str(), &transport);
    if (transport.nRtpChannel >= 0) {
        pMedia->nRtpChannel = transport.nRtpChannel;
        pMedia->nRtcpChannel = transport.nRtcpChannel;
        PlayUdpClose(pMedia);  // it was asked for UDP and gives TCP
    } else if (pMedia->udp) {
        PlayUdpSetPeer(pMedia, transport.nRtpPort, transport.nRtcpPort);
    }
}

static void OnSetup(RtspPlay *pPlay, const RtspMessage *pReply)
{
    if (pReply->nStatus == 461 && pPlay->nSwitches == 0 && pPlay->over != PlayOver::Http) {
        PlaySwitch(pPlay);
        return;
    }
    if (pReply->nStatus != 200) {
        PlayRefused(pPlay, "SETUP", pReply);
        return;
    }
    TakeSession(pPlay, pReply);
    TakeTransport(&pPlay->media[pPlay->nSetUp++], pReply);
    if (pPlay->nSetUp < pPlay->media.size())
        AskSetup(pPlay);
    else
        AskPlay(pPlay);
}

static std::string PairText(int nOne)
{
    return std::to_string(nOne) + "-" + std::to_string(nOne + 1);
}

static void AskSetup(RtspPlay *pPlay)
{
    PlayMedia *pMedia = &pPlay->media[pPlay->nSetUp];
    std::string transport;
    pPlay->step = PlayStep::Setup;
    pMedia->source = RtpSource();
    pMedia->nRtpChannel = pMedia->nRtcpChannel = -1;
    PlayUdpClose(pMedia);
    if (pPlay->over != PlayOver::Udp) {
        pMedia->nRtpChannel = static_cast<int>(2 * pPlay->nSetUp);
        pMedia->nRtcpChannel = pMedia->nRtpChannel + 1;
        transport = "RTP/AVP/TCP;unicast;interleaved=" + PairText(pMedia->nRtpChannel);
    } else if (PlayUdpOpen(pPlay, pPlay->nSetUp)) {
        transport = "RTP/AVP;unicast;client_port=" + PairText(pMedia->udp->pair.nPort);
    } else {
        PlayEnd(pPlay, PlayFault::Answer, "no ports of UDP are free here");
        return;
    }
    PlayAsk(pPlay, "SETUP", pMedia->url, "Transport: " + transport + "\r\n", OnSetup);
}

// --- DESCRIBE ---

// Has the caller choose, the first time. Returns 1 when there is something to set up.
static int Choose(RtspPlay *pPlay, PlayDescription *pDescription)
{
    if (pPlay->bDescribed)
        return 1;
    int nChoice = pPlay->procs.pfnDescribed(pPlay->pUser, pDescription);
    if (PlayIsOver(pPlay))
        return 0;
    if (nChoice < 0) {
        pPlay->step = PlayStep::Left;
        return 0;
    }
    for (size_t i = 0; i < pDescription->tracks.size(); i++)
        if (pDescription->tracks[i].bWanted) {
            pPlay->media.emplace_back();
            pPlay->media.back().nTrack = static_cast<int>(i);
            pPlay->media.back().nClockRate = pDescription->tracks[i].nClockRate;
        }
    pPlay->bDescribed = 1;
    if (nChoice == 0)
        PlayEnd(pPlay, PlayFault::Codec, "it has no track that can be used");
    else if (pPlay->media.empty())
        PlayEnd(pPlay, PlayFault::NoMedia, "it has no track that is of use");
    return !PlayIsOver(pPlay);
}

static void OnDescribe(RtspPlay *pPlay, const RtspMessage *pReply)
{
    if (pReply->nStatus != 200) {
        PlayRefused(pPlay, "DESCRIBE", pReply);
        return;
    }
    PlayDescription description;
    std::string control;
    if (!CameraDescRead(pReply->body, &description, &control)) {
        PlayEnd(pPlay, PlayFault::NoMedia, "its description has no tracks");
        return;
    }
    pPlay->bAgain = 0;
    if (!Choose(pPlay, &description))
        return;
    std::string base = CameraDescBase(&pPlay->url, HeaderText(pReply, "Content-Base"),
                                      HeaderText(pReply, "Content-Location"));
    pPlay->aggregate = CameraDescUrl(&pPlay->url, base, control);
    if (CameraDescIsUrl(
            control))  // players at large take controls as relative to that, and cameras rely on it
        base = pPlay->aggregate;
    for (PlayMedia &media : pPlay->media) {
        size_t nTrack = static_cast<size_t>(media.nTrack);
        if (nTrack >= description.tracks.size()) {
            PlayEnd(pPlay, PlayFault::Answer, "its description has changed");
            return;
        }
        media.url = CameraDescUrl(&pPlay->url, base, description.tracks[nTrack].control);
    }
    pPlay->nSetUp = 0;
    AskSetup(pPlay);
}

static void AskDescribe(RtspPlay *pPlay)
{
    pPlay->step = PlayStep::Describe;
    PlayAsk(pPlay, "DESCRIBE", CameraUrlPlain(&pPlay->url), "Accept: application/sdp\r\n", OnDescribe);
}

// --- OPTIONS ---

static void OnOptions(RtspPlay *pPlay, const RtspMessage *pReply)
{
    std::string methods = HeaderText(pReply, "Public");
    if (pReply->nStatus != 200) {
        pPlay->alive = PlayAlive::SetParameter;
        pPlay->bAgain = 1;  // some hang up behind what they do not know
        pPlay->bNoOptions = 1;
    } else {
        pPlay->alive =
            RtspListHas(methods.c_str(), "GET_PARAMETER") ? PlayAlive::GetParameter : PlayAlive::Options;
    }
    AskDescribe(pPlay);
}

void PlayBegin(RtspPlay *pPlay)
{
    if (pPlay->bNoOptions) {
        AskDescribe(pPlay);
        return;
    }
    pPlay->step = PlayStep::Options;
    PlayAsk(pPlay, "OPTIONS", CameraUrlPlain(&pPlay->url), "", OnOptions);
}

// --- The tunnel ---

void PlayTakeTunnelReply(RtspPlay *pPlay, const RtspMessage *pReply)
{
    pPlay->nAnswerDueMs = 0;
    if (pReply->nStatus == 200) {
        PlayBegin(pPlay);
    } else if (pReply->nStatus != 401) {
        PlayRefused(pPlay, "GET", pReply);
    } else if (!PlayTakeChallenge(pPlay, pReply, pPlay->nTunnelTries++)) {
        PlayEnd(pPlay, PlayFault::Password,
                pPlay->user.name.empty() ? "it asks for a user and a password"
                                         : "the user or the password is wrong");
    } else {
        pPlay->tunnelChallenge = std::exchange(pPlay->challenge, LoginChallenge());
        pPlay->nTunnelUses = 0;
        PlayConnect(pPlay);
    }
}

// --- Keeping alive ---

static void OnKeptAlive(RtspPlay *pPlay, const RtspMessage *pReply)
{
    if (pReply->nStatus == 454) {
        PlayEnd(pPlay, PlayFault::Closed, "it does not know the session any more");
    } else if (pReply->nStatus >= 400 && pPlay->alive != PlayAlive::None) {
        pPlay->alive = static_cast<PlayAlive>(static_cast<int>(pPlay->alive) + 1);
        PlayKeepAlive(pPlay);
    }
}

void PlayKeepAlive(RtspPlay *pPlay)
{
    static const char *const kMethods[] = {"GET_PARAMETER", "OPTIONS", "SET_PARAMETER"};
    PlaySetDue(pPlay, &pPlay->nAliveDueMs, std::max(pPlay->nTimeoutS * 500, 1000));
    pPlay->waiting.clear();  // what was not answered for so long is not answered any more
    if (pPlay->alive != PlayAlive::None)
        PlayAsk(pPlay, kMethods[static_cast<size_t>(pPlay->alive)], pPlay->aggregate, "", OnKeptAlive);
}

}  // namespace orx
