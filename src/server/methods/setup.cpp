#include "server/methods/setup.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "runtime/sockutil.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/core/tracks.h"
#include "server/media/replies.h"

namespace orx {

constexpr int kPairTries = 64;  // port pairs tried when other processes sit on some: each costs two calls

enum SetupResult {
    SETUP_DONE,
    SETUP_FAILED,  // no sockets for the track: 500
    SETUP_OTHER,   // a transport that leads nowhere from here, others may do: 461
    SETUP_FAULT,   // a peer assertion failed and was survived: 400
};

// A pusher names the channels that it sends on.
static void ReadPusherChannels(Session *pSession, int i, const char *szTransport)
{
    const char *p = strstr(szTransport, "interleaved=");
    if (!p)
        return;
    p += strlen("interleaved=");
    SessionTrack *pTrack = &pSession->tracks[i];
    pTrack->nRtpChannel = static_cast<uint8_t>(TextToInt(p));
    p += strcspn(p, "-;");
    if (*p == '-')
        pTrack->nRtcpChannel = static_cast<uint8_t>(TextToInt(p + 1));
    MediaInfo *pInfo = &pSession->pProg->desc.mediaInfos[i];
    pInfo->nRtpChannel = pTrack->nRtpChannel;
    pInfo->nRtcpChannel = pTrack->nRtcpChannel;
}

static SetupResult SetupInterleaved(Session *pSession, int i, const char *szTransport, TextBuf *pText)
{
    pSession->out.bInterleaved = 1;
    if (pSession->nFlags & SESSION_PUSHER)
        ReadPusherChannels(pSession, i, szTransport);
    TextAdd(pText, "RTP/AVP/TCP;unicast;interleaved=%d-%d", pSession->tracks[i].nRtpChannel,
            pSession->tracks[i].nRtcpChannel);
    return SETUP_DONE;
}

static Port *CreateMediaPort(Session *pSession, const Port *pPort, int nLocalPort, int nRemotePort)
{
    char local[INET_ADDRSTRLEN];
    char remote[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &pPort->local.sin_addr, local, sizeof(local));
    inet_ntop(AF_INET, &pPort->remote.sin_addr, remote, sizeof(remote));
    Port *pMedia = CreateUdpPort(local, nLocalPort, remote, nRemotePort);
    if (pMedia && !AvlReplace(&g_server.sessionMap, pMedia->fd, pSession)) {
        PortClose(pMedia);
        return nullptr;
    }
    return pMedia;
}

// Opens both sockets of a track on one pair. Returns 1, or 0 with both null when somebody sits on a port of
// it.
static int OpenPair(Session *pSession, SessionTrack *pTrack, const Port *pPort, int nLocalPort,
                    int nRemotePort)
{
    Port *pMedia = CreateMediaPort(pSession, pPort, nLocalPort, nRemotePort);
    Port *pControl = pMedia ? CreateMediaPort(pSession, pPort, nLocalPort + 1, nRemotePort + 1) : nullptr;
    if (pMedia && !pControl) {
        AvlForget(&g_server.sessionMap, pMedia->fd);
        PortClose(pMedia);
        return 0;
    }
    pTrack->Media = pMedia;
    pTrack->Control = pControl;
    return pMedia != nullptr;
}

// Opens the two sockets of a track on a free pair of ports; both stay null when no pair can be bound. The RTP
// socket keeps the pair taken. Pairs that other processes sit on are passed over and given back.
static void OpenMediaPorts(Session *pSession, SessionTrack *pTrack, const Port *pPort, int nRemotePort)
{
    int tried[kPairTries];
    int nTried = 0;
    while (!pTrack->Media && nTried < kPairTries) {
        int nLocalPort = PortMgrAlloc(g_server.pPortMgr);
        if (!nLocalPort)
            break;
        if (!OpenPair(pSession, pTrack, pPort, nLocalPort, nRemotePort))
            tried[nTried++] = nLocalPort;
    }
    while (nTried > 0)
        PortMgrRelease(g_server.pPortMgr, tried[--nTried]);
}

// szParams: what follows the profile in the header.
static SetupResult SetupUdp(Session *pSession, Port *pPort, int i, const char *szParams, TextBuf *pText)
{
    const char *p = strstr(szParams, "client_port=");
    // behind a bridge there is nobody but this box to send datagrams to
    if ((pPort->nFlags & PORT_RELAYED) && g_settings.bStandardPlayers)
        return SETUP_OTHER;
    if (strncmp(szParams, "unicast;", strlen("unicast;")) != 0 || !p)
        return SETUP_FAILED;
    p += strlen("client_port=");
    auto nRemotePort = static_cast<uint16_t>(TextToInt(p));
    const char *s = p + strspn(p, " 0123456789");
    if (*s == '-' && !ORX_PEER_ASSERT(TextToInt(s + 1) == nRemotePort + 1, "atoi(s+1)==nRemotePort+1"))
        return SETUP_FAULT;
    if (!ORX_PEER_ASSERT(nRemotePort > 0 && nRemotePort < 65535, "nLocalPort && nRemotePort"))
        return SETUP_FAULT;
    SessionTrack *pTrack = &pSession->tracks[i];
    if (!pTrack->Media) {
        ORX_ASSERT(!pTrack->Media && !pTrack->Control, "!pTrack->Media && !pTrack->Control");
        OpenMediaPorts(pSession, pTrack, pPort, nRemotePort);
    }
    if (!pTrack->Media || !pTrack->Control)
        return SETUP_FAILED;
    TextAdd(pText, "RTP/AVP/UDP;unicast;client_port=%d-%d;server_port=%d-%d", nRemotePort, nRemotePort + 1,
            SockGetPort(&pTrack->Media->local), SockGetPort(&pTrack->Control->local));
    return SETUP_DONE;
}

// Sets the transport of track i up and writes its text for the reply.
static SetupResult SetupTransport(Session *pSession, Port *pPort, int i, const Request *pRequest,
                                  TextBuf *pText)
{
    static const char *const udpProfiles[] = {"RTP/AVP;", "RTP/AVP/UDP;"};
    const char *szTransport = RequestHeaderValue(pRequest, "Transport");
    if (!szTransport)
        szTransport = "";
    if (strncmp(szTransport, "RTP/AVP/TCP;", strlen("RTP/AVP/TCP;")) == 0)
        return SetupInterleaved(pSession, i, szTransport, pText);
    for (const char *szProfile : udpProfiles)
        if (strncmp(szTransport, szProfile, strlen(szProfile)) == 0)
            return SetupUdp(pSession, pPort, i, szTransport + strlen(szProfile), pText);
    (void)ORX_PEER_ASSERT(0, "!\"unknown transport\"");
    return SETUP_FAULT;
}

static int IsSetupAllowed(const Session *pSession)
{
    if (!pSession->pProg ||
        pSession->play.nSetupCount >= static_cast<uint32_t>(pSession->pProg->desc.nTrackCount))
        return 0;
    return pSession->nState == (pSession->play.nSetupCount ? STATE_SETUP : STATE_DESCRIBED);
}

// The index of the track with that number, or -1.
static int FindTrack(const Session *pSession, int nTrackId)
{
    for (int i = 0; i < pSession->out.nTracks; i++)
        if (pSession->tracks[i].nTrackId == nTrackId)
            return i;
    return -1;
}

static Verdict SendSetupReply(Session *pSession, Port *pPort, int i, const char *szTransport)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    MessageNoCache(&reply);
    if (!(pSession->nFlags & SESSION_PUSHER))
        TextAdd(&reply.text, "Transport: %s;ssrc=%08X\r\n", szTransport, pSession->tracks[i].nSsrc);
    else if (g_settings.bStandardPushers)
        TextAdd(&reply.text, "Transport: %s\r\n", szTransport);
    MessageSession(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

Verdict HandleSetup(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!IsSetupAllowed(pSession))
        return RefuseState(pSession, pPort);
    int nTracks = pSession->pProg->desc.nTrackCount;
    const char *pEqual = strchr(RequestPath(pRequest), '=');
    if (!ORX_PEER_ASSERT(nTracks >= 1 && nTracks < 4,
                         "session->nTrackCount>=1 && session->nTrackCount < 4") ||
        !ORX_PEER_ASSERT(pEqual, "pEqual || !\"no track in the URI\""))
        return RefuseFault(pSession, pPort);
    int i = FindTrack(pSession, TextToInt(pEqual + 1));
    if (i < 0)
        return Refuse(pSession, pPort, STATUS_NO_TRACK);
    char transport[128] = "";
    TextBuf text{transport, sizeof(transport)};
    switch (SetupTransport(pSession, pPort, i, pRequest, &text)) {
        case SETUP_FAULT:
            return RefuseFault(pSession, pPort);
        case SETUP_FAILED:
            return Refuse(pSession, pPort, STATUS_NO_TRANSPORT);
        case SETUP_OTHER:
            return ReplyStatus(pSession, pPort, STATUS_OTHER_TRANSPORT);
        case SETUP_DONE:
            break;
    }
    SessionEnterTrack(pSession, i);
    return SendSetupReply(pSession, pPort, i, transport);
}

}  // namespace orx
