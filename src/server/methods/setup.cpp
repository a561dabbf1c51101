#include "server/methods/setup.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/assertion.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "runtime/sockutil.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/core/tracks.h"
#include "server/media/outqueue.h"
#include "server/media/replies.h"
#include "server/media/udppusher.h"
#include "server/methods/transport.h"

namespace orx {

constexpr int kPairTries = 64;  // port pairs tried when other processes sit on some: each costs two calls

enum SetupResult {
    SETUP_DONE,
    SETUP_FAILED,  // no sockets for the track: 500
    SETUP_OTHER,   // a transport that leads nowhere from here, others may do: 461
    SETUP_FAULT,   // a peer assertion failed and was survived: 400
    SETUP_BAD,     // malformed, a standard peer may try again: 400
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
    Port *pMedia = CreateUdpPort(&pPort->local, nLocalPort, &pPort->remote, nRemotePort);
    if (pMedia && !AvlReplace(&g_server.sessionMap, pMedia->fd, pSession)) {
        PortClose(pMedia);
        return nullptr;
    }
    return pMedia;
}

// Sends what is left of a track to these ports from now on, until a datagram tells of others.
static void AimPorts(SessionTrack *pTrack, const Port *pPort, int nRemotePort)
{
    NetAddr peer = pPort->remote;
    AddrSetPort(&peer, nRemotePort);
    for (Port *pOld : {pTrack->Media, pTrack->Control})
        pOld->nFlags &= static_cast<uint16_t>(~PORT_LEARNT);
    PortAim(pTrack->Media, &peer);
    AddrSetPort(&peer, nRemotePort + 1);
    PortAim(pTrack->Control, &peer);
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

static void AddUdpText(const SessionTrack *pTrack, int nRemotePort, TextBuf *pText)
{
    TextAdd(pText, "RTP/AVP/UDP;unicast;client_port=%d-%d;server_port=%d-%d", nRemotePort, nRemotePort + 1,
            SockGetPort(&pTrack->Media->local), SockGetPort(&pTrack->Control->local));
}

// szParams: what follows the profile in the header.
static SetupResult SetupUdp(Session *pSession, Port *pPort, int i, const char *szParams, TextBuf *pText)
{
    const char *p = strstr(szParams, "client_port=");
    // behind a bridge there is nobody but this box to send datagrams to, and no front passes them on
    if (((pPort->nFlags & PORT_RELAYED) && pSession->standards.bPlayers) || (pPort->nFlags & PORT_FRONTED))
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
    AddUdpText(pTrack, nRemotePort, pText);
    return SETUP_DONE;
}

// Whether all that has been set up is to travel otherwise now: so players go on that were sent datagrams and
// got none.
static int ReplacesAll(const Session *pSession, int i, int bInterleaved)
{
    return pSession->tracks[i].bSetUp && pSession->out.bInterleaved != bInterleaved;
}

// Of a session all tracks travel alike.
static int TravelsAlike(const Session *pSession, int i, int bInterleaved)
{
    if (pSession->out.bInterleaved == bInterleaved || pSession->play.nSetupCount == 0)
        return 1;
    if (!pSession->tracks[i].bSetUp)
        return 0;
    const BlockRef *pHead = QueueFirst(&pSession->out.Outq);
    return bInterleaved || !pHead || pHead->nSent == 0;  // else the connection needs its rest
}

static int CanServe(const Session *pSession, const Port *pPort, int i, const TransportOffer *pOffer)
{
    if (pOffer->bMulticast || pOffer->eCarrier == Carrier::Other)
        return 0;
    if (!TravelsAlike(pSession, i, pOffer->eCarrier == Carrier::Tcp))
        return 0;
    if (pOffer->eCarrier == Carrier::Tcp)
        return 1;
    if (pOffer->nPort == 0 || (pPort->nFlags & (PORT_RELAYED | PORT_FRONTED)))
        return 0;
    return g_settings.bUdpPushers || !(pSession->nFlags & SESSION_PUSHER);
}

// Before a track goes another way than it was set up for.
static void LeaveOldWay(Session *pSession, int i, int bInterleaved)
{
    if (ReplacesAll(pSession, i, bInterleaved)) {
        QueueDropMedia(pSession);
        SessionLeaveTracks(pSession, bInterleaved ? -1 : i);
    }
    pSession->out.bInterleaved = bInterleaved;
}

// Returns 0 when there are no sockets for the track: all stays as it was.
static int TakeUdp(Session *pSession, const Port *pPort, int i, int nRemotePort, TextBuf *pText)
{
    SessionTrack *pTrack = &pSession->tracks[i];
    if (!pTrack->Media)
        OpenMediaPorts(pSession, pTrack, pPort, nRemotePort);
    if (!pTrack->Media || ((pSession->nFlags & SESSION_PUSHER) && !DatagramsBegin(pSession, i)))
        return 0;
    LeaveOldWay(pSession, i, 0);
    AimPorts(pTrack, pPort, nRemotePort);
    AddUdpText(pTrack, nRemotePort, pText);
    return 1;
}

// Lets a track travel as offered. Returns 1, or 0 as TakeUdp.
static int TakeOffer(Session *pSession, const Port *pPort, int i, const TransportOffer *pOffer,
                     TextBuf *pText)
{
    const SessionTrack *pTrack = &pSession->tracks[i];
    if (pOffer->eCarrier == Carrier::Udp)
        return TakeUdp(pSession, pPort, i, pOffer->nPort, pText);
    LeaveOldWay(pSession, i, 1);
    TextAdd(pText, "RTP/AVP/TCP;unicast;interleaved=%d-%d", pTrack->nRtpChannel, pTrack->nRtcpChannel);
    return 1;
}

// The first of what a standard peer offers that can be served.
static SetupResult SetupOffered(Session *pSession, const Port *pPort, int i, const char *szTransport,
                                TextBuf *pText)
{
    std::string_view list(szTransport);
    TransportOffer offer;
    int nOffers = 0;
    int bBad = 0;
    for (int nRead; (nRead = TransportNext(&list, &offer)) != 0; nOffers++) {
        if (nRead > 0 && CanServe(pSession, pPort, i, &offer) && TakeOffer(pSession, pPort, i, &offer, pText))
            return SETUP_DONE;
        bBad |= nRead < 0;
    }
    return bBad || nOffers == 0 ? SETUP_BAD : SETUP_OTHER;
}

// Sets the transport of track i up and writes its text for the reply.
static SetupResult SetupTransport(Session *pSession, Port *pPort, int i, const Request *pRequest,
                                  TextBuf *pText)
{
    static const char *const udpProfiles[] = {"RTP/AVP;", "RTP/AVP/UDP;"};
    const char *szTransport = RequestHeaderValue(pRequest, "Transport");
    if (!szTransport)
        szTransport = "";
    if (IsStandardPeer(pSession))
        return SetupOffered(pSession, pPort, i, szTransport, pText);
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
    if (IsStandardPeer(pSession)) {
        uint32_t nState = pSession->nState;
        return pSession->pProg && (nState == STATE_DESCRIBED || nState == STATE_SETUP ||
                                   nState == STATE_PAUSED || nState == STATE_FINISHED);
    }
    if (!pSession->pProg ||
        pSession->play.nSetupCount >= static_cast<uint32_t>(pSession->pProg->desc.nTrackCount))
        return 0;
    return pSession->nState == (pSession->play.nSetupCount ? STATE_SETUP : STATE_DESCRIBED);
}

// The URI's path as standard peers may have meant it, without '/' at its end.
static std::string_view TrimSlashes(std::string_view text)
{
    while (!text.empty() && text.back() == '/')
        text.remove_suffix(1);
    return text;
}

// Whether a path ends in a control of the description: one that is an URI of its own has the same path.
static int EndsInControl(std::string_view path, const char *szControl)
{
    int bAbsolute = strstr(szControl, "://") != nullptr;
    std::string_view control = TrimSlashes(bAbsolute ? UriPath(szControl) : szControl);
    if (control.empty() || path.size() < control.size() || !path.ends_with(control))
        return 0;
    if (bAbsolute)
        return path.size() == control.size();
    return path.size() == control.size() || control[0] == '/' ||
           path[path.size() - control.size() - 1] == '/';
}

// The index of the track with the longest control that a path ends in, or -1.
static int FindControl(const Session *pSession, std::string_view path)
{
    int nFound = -1;
    size_t nLongest = 0;
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const char *szControl = pSession->pProg->desc.mediaInfos[i].szControl;
        size_t nControl = strlen(szControl);
        if (nControl > nLongest && EndsInControl(path, szControl)) {
            nFound = i;
            nLongest = nControl;
        }
    }
    return nFound;
}

// The number at the end of a path's last part: "7", "track7", "trackID=7", or -1.
static int LastNumber(std::string_view path)
{
    std::string_view part = path.substr(path.rfind('/') + 1);
    size_t nDigits = part.find_last_not_of("0123456789") + 1;  // npos + 1 is 0
    return nDigits < part.size() ? TextToInt(part.substr(nDigits)) : -1;
}

// The index of the track with that number, or -1.
static int FindTrack(const Session *pSession, int nTrackId)
{
    for (int i = 0; i < pSession->out.nTracks; i++)
        if (pSession->tracks[i].nTrackId == nTrackId)
            return i;
    return -1;
}

// The track that a standard peer names: by its control, whose place the query may have taken, else by its
// number; who names none means the only one. -1 for none of the program's.
static int FindNamedTrack(const Session *pSession, const Request *pRequest)
{
    std::string_view whole = TrimSlashes(UriPath(RequestUri(pRequest)));
    std::string_view path = TrimSlashes(RequestPath(pRequest));
    if (!pSession->standards.bPlayers)  // else it has none, and a '?' is part of the name
        path = TrimSlashes(path.substr(0, path.find('?')));
    for (std::string_view name : {whole, path})
        if (int i = FindControl(pSession, name); i >= 0)
            return i;
    std::string_view uri = TrimSlashes(pSession->pProg->Uri);
    int bProgram = path.size() == uri.size() && strncasecmp(uri.data(), path.data(), uri.size()) == 0;
    if (!bProgram)
        return FindTrack(pSession, LastNumber(path));
    size_t nQuery = whole.find('?', path.size());
    if (nQuery != whole.npos && whole.find('/', nQuery) != whole.npos)
        return FindTrack(pSession, LastNumber(whole));
    return pSession->out.nTracks == 1 ? 0 : -1;
}

static Verdict SendSetupReply(Session *pSession, Port *pPort, int i, const char *szTransport)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    MessageNoCache(&reply);
    if (!(pSession->nFlags & SESSION_PUSHER))
        TextAdd(&reply.text, "Transport: %s;ssrc=%08X\r\n", szTransport, pSession->tracks[i].nSsrc);
    else if (pSession->standards.bPushers)
        TextAdd(&reply.text, "Transport: %s\r\n", szTransport);
    MessageSession(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

// The track of a request, or -1 with its refusal sent and *pVerdict of it.
static int ChooseTrack(Session *pSession, Port *pPort, const Request *pRequest, Verdict *pVerdict)
{
    int nTracks = pSession->pProg->desc.nTrackCount;
    if (IsStandardPeer(pSession)) {
        int i = FindNamedTrack(pSession, pRequest);
        if (i < 0)
            *pVerdict = ReplyStatus(pSession, pPort, STATUS_NO_TRACK);
        return i;
    }
    const char *pEqual = strchr(UriPath(RequestUri(pRequest)), '=');
    int bFew = pSession->pProg->standards.bPushers || (nTracks >= 1 && nTracks < 4);
    if (!ORX_PEER_ASSERT(bFew, "session->nTrackCount>=1 && session->nTrackCount < 4") ||
        !ORX_PEER_ASSERT(pEqual, "pEqual || !\"no track in the URI\"")) {
        *pVerdict = RefuseFault(pSession, pPort);
        return -1;
    }
    int i = FindTrack(pSession, TextToInt(pEqual + 1));
    if (i < 0)
        *pVerdict = Refuse(pSession, pPort, STATUS_NO_TRACK);
    return i;
}

Verdict HandleSetup(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!IsSetupAllowed(pSession))
        return RefuseState(pSession, pPort);
    Verdict eVerdict = Verdict::Keep;
    int i = ChooseTrack(pSession, pPort, pRequest, &eVerdict);
    if (i < 0)
        return eVerdict;
    char transport[128] = "";
    TextBuf text{transport, sizeof(transport)};
    switch (SetupTransport(pSession, pPort, i, pRequest, &text)) {
        case SETUP_FAULT:
            return RefuseFault(pSession, pPort);
        case SETUP_FAILED:
            return Refuse(pSession, pPort, STATUS_NO_TRANSPORT);
        case SETUP_OTHER:
            return ReplyStatus(pSession, pPort, STATUS_OTHER_TRANSPORT);
        case SETUP_BAD:
            return ReplyStatus(pSession, pPort, STATUS_BAD_REQUEST);
        case SETUP_DONE:
            break;
    }
    SessionEnterTrack(pSession, i);
    return SendSetupReply(pSession, pPort, i, transport);
}

}  // namespace orx
