#include "server/front/events.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "base/assertion.h"
#include "base/console.h"
#include "base/eventlog.h"
#include "runtime/clock.h"
#include "runtime/slice.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/session.h"
#include "server/core/sessionevents.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/front/dispatch.h"
#include "server/front/fronts.h"
#include "server/front/limits.h"
#include "server/media/ingest.h"
#include "server/media/reports.h"
#include "server/media/rtcp.h"
#include "server/media/udppusher.h"
#include "server/methods/tunnel.h"

namespace orx {

static constexpr int kReceiveBufferBytes = 131072;  // SO_RCVBUF: some pictures of a pusher
static constexpr int kAcceptRetryMs = 1000;         // descriptors come free as connections end
static int g_nAcceptAgainMs = 0;        // a further look for connections is scheduled, in so many ms
static Task *g_pAcceptAgain = nullptr;  // its task, while one is

// So much of what a socket holds is taken at once; the rest waits its turn behind what else is due.
static constexpr size_t kBytesPerEvent = 65536;
static constexpr int kDatagramsPerEvent = 64;
static constexpr int kDatagramsPerCall = 8;  // a picture of a common rate
static constexpr int kAcceptsPerEvent = 64;
static constexpr size_t kLargestDatagram = 65527;  // that IPv6 carries; IPv4 20 less
static constexpr int kMoreDelayMs = 1;

// Seconds; more than that is a clock that was set, not silence.
static constexpr uint32_t kLongestSilence = 1000;

// An event on its way: the code in the low half, the descriptor's generation above it.
static void *EventArgument(uint32_t nEvent, uint32_t nGeneration)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(nGeneration << 16 | nEvent));
}

static void SayRefused(const NetAddr *pRemote, const char *szLimit, uint32_t nMost)
{
    char szRemote[kAddrTextSize];
    SockAddrToString(pRemote, szRemote);
    EventSayBounded(EventLevel::Warn, "connection.refused",
                    {EventText("peer", szRemote), EventText("limit", szLimit), EventNumber("most", nMost)});
}

static void TuneSocket(int fd)
{
    linger reset{1, 0};  // a close resets the connection, so that no dead peer keeps it
    SockSetOption(fd, SOL_SOCKET, SO_SNDBUF, kSendBufferBytes);
    SockSetOption(fd, SOL_SOCKET, SO_RCVBUF, kReceiveBufferBytes);
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
}

// Whether there is room for a session of that peer; where not, that is printed.
static int HasRoom(const NetAddr *pRemote, int bFronted)
{
    if (ListCount(&g_server.sessions) > g_settings.nConnectLimit) {
        print("Exceed the connect-limit! Refuse to accept new client to connect.\r\n");
        SayRefused(pRemote, "ConnectLimit", g_settings.nConnectLimit);
        return 0;
    }
    if (!AddressIsFull(pRemote, bFronted))
        return 1;
    SayRefused(pRemote, "MaxSessionsPerAddress", g_settings.nMaxSessionsPerAddress);
    char szRemote[kAddrTextSize];
    SockAddrToString(pRemote, szRemote);
    print("Too many sessions of %s! Refuse to accept new client to connect.\r\n", szRemote);
    return 0;
}

// Makes a session on a port; null with the port closed when that is not possible.
static Session *BeginSession(Port *pPort)
{
    int fd = pPort->fd;
    Session *pSession = CreateSession(pPort);
    if (!pSession) {
        PortClose(pPort);
        return nullptr;
    }
    LimitsWatch();
    char szRemote[kAddrTextSize];
    SockAddrToString(&pPort->remote, szRemote);
    print("Create session(fd=0x%x) from %s\r\n", fd, szRemote);
    log("Create session(fd=0x%x) from %s", fd, szRemote);
    EventSay(EventLevel::Debug, "session.start", {EventText("peer", szRemote)});
    return pSession;
}

// Readies an accepted socket and makes a session on it; null with the socket closed when that is not
// possible. pFront: what the front says whose connection it is; null: nobody's.
static Session *OpenSession(int fd, const FrontedPeer *pFront)
{
    NetAddr remote;
    TuneSocket(fd);
    if (SockGetPeerName(fd, &remote) != 0)  // it has gone: CreateTcpPort says so
        remote = NetAddr();
    if (pFront && pFront->bPeer)
        remote = pFront->peer;
    if (!HasRoom(&remote, pFront != nullptr)) {
        SockClose(fd);
        return nullptr;
    }
    Port *pPort = CreateTcpPort(fd);
    if (!pPort)
        return nullptr;
    if (pFront)
        PortNamePeer(pPort, pFront->bPeer ? &pFront->peer : nullptr);
    SockSetNonBlock(fd, 1);
    return BeginSession(pPort);
}

// A front has named the peer: from here on the connection is as any other.
static void OnPeerNamed(Port *pPort)
{
    if (!HasRoom(&pPort->remote, 1)) {
        PortClose(pPort);
        return;
    }
    int fd = pPort->fd;
    if (!BeginSession(pPort))
        return;
    SessionScheduleIdleCheck(pPort);
    OnRead(fd);  // what stands behind the header is not reported again
}

// A connection that was accepted.
static void TakeConnection(int fd)
{
    if (FrontIs(fd)) {
        TuneSocket(fd);
        FrontAwait(fd);
        return;
    }
    Session *pSession = OpenSession(fd, nullptr);
    if (pSession)
        SessionScheduleIdleCheck(pSession->peer.Cmd);
}

static void SayAcceptFailed(int fdListen, int nErrno)
{
    print("accept(socket=0x%x) err=%d.\r\n", fdListen, nErrno);
    EventSayBounded(EventLevel::Error, "accept.failed", {EventText("error", strerror(nErrno))});
}

// Accepts some of those that wait. Returns in how many ms to look for the rest, which is not reported again:
// 0 when none is left, else soon, or once descriptors or memory may have come free.
static int AcceptSome(int fdListen)
{
    for (int i = 0; i < kAcceptsPerEvent; i++) {
        int fd = accept4(fdListen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0 && errno == EAGAIN)
            return 0;
        if (fd < 0) {
            if (g_nAcceptAgainMs != kAcceptRetryMs)  // told once, not with every further try
                SayAcceptFailed(fdListen, errno);
            return kAcceptRetryMs;
        }
        TakeConnection(fd);
    }
    return kMoreDelayMs;
}

static int OnAcceptRetry(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    g_nAcceptAgainMs = AcceptSome(pTask->nParam);
    if (g_nAcceptAgainMs > 0)
        return g_nAcceptAgainMs;
    g_pAcceptAgain = nullptr;
    return -1;
}

static void OnAccept(int fdListen)
{
    if (g_nAcceptAgainMs == kMoreDelayMs)
        return;
    int nDelayMs = AcceptSome(fdListen);
    if (nDelayMs == 0 || nDelayMs == g_nAcceptAgainMs)
        return;
    if (g_pAcceptAgain)  // descriptors have come free before it looked
        TaskCancel(g_pAcceptAgain);
    g_nAcceptAgainMs = nDelayMs;
    g_pAcceptAgain =
        TaskSchedule(&g_server.scheduler, OnAcceptRetry, static_cast<uint32_t>(nDelayMs), fdListen, nullptr);
}

int RtspSessionCreate(int fd, const void *pData, size_t nLen, const FrontedPeer *pFront)
{
    Session *pSession = OpenSession(fd, pFront);
    if (!pSession)
        return 0;
    pSession->peer.Cmd->nFlags |= PORT_HANDED_OVER;
    if (!pData || nLen == 0) {
        SessionScheduleIdleCheck(pSession->peer.Cmd);
        return 1;
    }
    ORX_ASSERT(pSession->input.nLen == 0, "session->nLen==0");
    if (nLen > pSession->input.nTotal - 1) {
        SessionNoteMalformed(pSession, "more came by the web port than its buffer holds");
        SessionEnd(pSession);
        return 0;
    }
    if (!InputReserve(&pSession->input, static_cast<uint32_t>(nLen))) {
        SessionNoteEnd(pSession, "no memory is left");
        SessionEnd(pSession);
        return 0;
    }
    memcpy(pSession->input.pBuf, pData, nLen);
    pSession->input.pBuf[nLen] = 0;
    pSession->input.nLen = static_cast<uint32_t>(nLen);
    pSession->peer.nReceived = static_cast<uint32_t>(nLen);
    Port *pPort = pSession->peer.Cmd;
    int bLives = HandleInput(pSession, pPort);
    if (FindPort(fd) == pPort && (pPort->nFlags & PORT_TUNNEL_POST))  // it belongs to the GET half now
        print("fd0x%x received %d bytes\r\n", fd, static_cast<int>(nLen));
    return bLives;
}

static void NoteReceived(Session *pSession, size_t nLen)
{
    pSession->peer.tLastActivity = ClockUptime();
    pSession->peer.nBytesReceived += nLen;
    g_server.counted.nBytesReceived += nLen;
    pSession->peer.nReceived += static_cast<uint32_t>(nLen);
    if (pSession->peer.nReceived == 0)  // wrapped: 0 is kept for "never sent anything"
        pSession->peer.nReceived = 1;
}

// The index of the track whose RTP or RTCP port this is, or -1.
static int FindTrack(const Session *pSession, const Port *pPort)
{
    for (int i = 0; i < kMaxTracks; i++)
        if (pSession->tracks[i].Control == pPort || pSession->tracks[i].Media == pPort)
            return i;
    return -1;
}

static void OnReport(Session *pSession, int i, const uint8_t *pData, size_t nLen)
{
    if (nLen == 0)
        return;
    ReportReceived(pSession, static_cast<unsigned>(i), pData, nLen);
    if (!(pSession->nFlags & SESSION_RTCP))
        return;
    print("Receive RTCP packet on track %d, %d bytes.\n", pSession->tracks[i].nRtcpChannel,
          static_cast<int>(nLen));
    RtcpDump(pData, nLen, pSession->tracks[i].nTimeScale);
}

static int IsUdpPusher(const Session *pSession)
{
    return pSession->datagrams.bWatch && (pSession->nFlags & SESSION_PUSHER);
}

// Handles a datagram that begins behind room for the head of a '$' frame. Returns 0 when the session must
// end.
static int OnDatagram(Session *pSession, const Port *pPort, uint8_t *pFrame, size_t nLen)
{
    int i = FindTrack(pSession, pPort);
    if (i < 0)
        return 1;
    int bControl = pSession->tracks[i].Control == pPort;
    if (bControl)
        OnReport(pSession, i, pFrame + kInterleaveBytes, nLen);
    return !IsUdpPusher(pSession) || DatagramTake(pSession, i, bControl, pFrame, nLen);
}

// Ends what a socket error or the end of the stream ended.
static int CloseAfterRecv(Session *pSession, Port *pPort, int nResult, int nError)
{
    if (nResult == 0)
        print("Client(socket=0x%x) close.\r\n", pPort->fd);
    print("recv(socket=0x%x)  err=%d.\r\n", pPort->fd, nError);
    SessionClosePortFor(pSession, pPort, nResult == 0 ? kEndClosed : kEndBroken, nError);
    return -1;
}

// Whether a datagram comes from where the session's requests come from.
static int IsOfPeer(const Session *pSession, const NetAddr *pFrom)
{
    const Port *pPort = SessionPeerPort(pSession);
    return pPort && AddrSameHost(&pPort->remote, pFrom);
}

// A datagram of its peer has come to a media port: that is where what it sends goes from now on. With
// PinMedia the port of a track is connected to its player; when the reports of that one come from elsewhere
// all of a sudden, so does he.
static void LearnPeer(Session *pSession, Port *pPort, const NetAddr *pFrom)
{
    int nFrom = SockGetPort(pFrom);
    if (nFrom == 0)  // he wants no reply (RFC 768)
        return;
    if (!g_settings.bPinMedia || IsUdpPusher(pSession)) {
        PortAim(pPort, pFrom);
        return;
    }
    int i = FindTrack(pSession, pPort);
    Port *pMedia = i < 0 ? nullptr : pSession->tracks[i].Media;
    int bMoved = (pPort->nFlags & PORT_LEARNT) && !AddrSame(&pPort->remote, pFrom);
    pPort->nFlags |= PORT_LEARNT;
    if (!AddrSame(&pPort->remote, pFrom))
        PortAim(pPort, pFrom);
    if (pMedia == pPort)
        PortConnect(pPort);
    if (pMedia && pMedia != pPort && bMoved && (pMedia->nFlags & PORT_LEARNT) && nFrom > 1) {
        NetAddr pair = *pFrom;
        AddrSetPort(&pair, nFrom - 1);
        PortAim(pMedia, &pair);
    }
}

// What a datagram costs: that of a pusher goes to every player.
static uint32_t WorkOf(const Session *pSession)
{
    return IsUdpPusher(pSession) && pSession->pProg ? 2 + ListCount(&pSession->pProg->players) : 1;
}

static int AfterDatagrams(Session *pSession)
{
    if (IsUdpPusher(pSession))
        FlushAfterRead(pSession, 0);
    return 0;
}

// What one call receives.
struct Datagrams {
    mmsghdr heads[kDatagramsPerCall];
    iovec parts[kDatagramsPerCall];
    NetAddr from[kDatagramsPerCall];
    uint8_t frames[kDatagramsPerCall][kInterleaveBytes + kLargestDatagram];
};
static Datagrams g_datagrams;  // the scheduler thread's

// Returns how many, or -1 (errno).
static int ReceiveSome(int fd, Datagrams *pOut)
{
    for (int i = 0; i < kDatagramsPerCall; i++) {
        pOut->parts[i] = {pOut->frames[i] + kInterleaveBytes, kLargestDatagram};
        pOut->heads[i] = {};
        msghdr *pHead = &pOut->heads[i].msg_hdr;
        pHead->msg_name = &pOut->from[i];
        pHead->msg_namelen = sizeof(pOut->from[i]);
        pHead->msg_iov = &pOut->parts[i];
        pHead->msg_iovlen = 1;
    }
    return recvmmsg(fd, pOut->heads, kDatagramsPerCall, 0, nullptr);
}

// Returns 0 when the session must end.
static int TakeDatagram(Session *pSession, Port *pPort, int i)
{
    const NetAddr *pFrom = &g_datagrams.from[i];
    size_t nBytes = g_datagrams.heads[i].msg_len;
    if ((g_settings.bPinMedia || IsUdpPusher(pSession)) && !IsOfPeer(pSession, pFrom))
        return 1;
    LearnPeer(pSession, pPort, pFrom);
    NoteReceived(pSession, nBytes);
    return OnDatagram(pSession, pPort, g_datagrams.frames[i], nBytes);
}

// Reads the datagrams of a media socket. They never mix with the text of the control connection: each is a
// sign of life, is looked at by itself, and is gone. An empty one, sent to open a NAT, is as good as any.
static int ReadUdp(Session *pSession, Port *pPort)
{
    Slice slice = SliceBegin();
    for (int i = 0; i < kDatagramsPerEvent; i += kDatagramsPerCall) {
        int n = ReceiveSome(pPort->fd, &g_datagrams);
        if (n < 0 && errno != EAGAIN && (errno == EINTR || PortBounce(pPort)))
            continue;
        if (n < 0 && errno != EAGAIN)
            return CloseAfterRecv(pSession, pPort, -1, errno);
        for (int k = 0; k < n; k++)
            if (!TakeDatagram(pSession, pPort, k)) {
                SessionEnd(pSession);
                return -1;
            }
        if (n < kDatagramsPerCall)  // no more has come
            return AfterDatagrams(pSession);
        if (SliceOver(&slice, WorkOf(pSession) * kDatagramsPerCall))
            break;
    }
    PortReadLater(pPort);
    return AfterDatagrams(pSession);
}

// Takes what was received into the buffer and parses it. 0 when the session is gone.
static int TakeInput(Session *pSession, Port *pPort, const char *pRaw, size_t nLen)
{
    NoteReceived(pSession, nLen);
    if (pPort->nFlags & PORT_TUNNEL_POST) {
        if (!TunnelDecode(pSession, pPort, pRaw, nLen)) {
            SessionNoteMalformed(pSession, "its tunnel cannot be read");
            SessionEnd(pSession);
            return 0;
        }
    } else {
        pSession->input.nLen += static_cast<uint32_t>(nLen);
    }
    pSession->input.pBuf[pSession->input.nLen] = 0;
    return HandleInput(pSession, pPort);
}

// One recv. Base64 text goes through a buffer of its own, anything else straight behind the bytes held.
// *ppRaw is where the bytes are.
static ssize_t Receive(Session *pSession, const Port *pPort, char *pText, size_t nText, char **ppRaw)
{
    pSession->input.bStream = (pSession->nFlags & SESSION_PUSHER) && pSession->nState == STATE_PLAYING;
    size_t nRoom = InputRoom(&pSession->input);
    *ppRaw = reinterpret_cast<char *>(pSession->input.pBuf + pSession->input.nLen);
    if (pPort->nFlags & PORT_TUNNEL_POST) {
        *ppRaw = pText;
        nRoom = nRoom < nText ? nRoom : nText;
    }
    ssize_t n;
    do
        n = recv(pPort->fd, *ppRaw, nRoom, 0);
    while (n < 0 && errno == EINTR);
    return n;
}

// A pusher that was told to sleep has nothing to send.
static int MayBeSilent(const Session *pSession)
{
    return (pSession->nFlags & SESSION_PUSHER) && pSession->pProg && pSession->pProg->sleep.bSleeping;
}

// What comes is left where it is: until the port's turn comes again, an answer that waits has gone, or the
// other half of a tunnel is there.
static int MayNotRead(const Session *pSession, const Port *pPort)
{
    if (pPort->nFlags & PORT_MORE_WAITS)
        return 1;
    return pPort->nType == PORT_TCP && ((pSession->nFlags & SESSION_TUNNEL_POST) || pSession->hold.pPort);
}

static int ReadTcp(Session *pSession, Port *pPort)
{
    char text[2048];
    char *pRaw = nullptr;
    ssize_t n;
    size_t nRead = 0;
    Slice slice = SliceBegin();
    while ((n = Receive(pSession, pPort, text, sizeof(text), &pRaw)) > 0) {
        if (!TakeInput(pSession, pPort, pRaw, static_cast<size_t>(n)))
            return 0;
        FlushAfterRead(pSession, static_cast<size_t>(n));
        nRead += static_cast<size_t>(n);
        if (nRead >= kBytesPerEvent || SliceOver(&slice, kSliceLook))
            PortReadLater(pPort);
        if (MayNotRead(pSession, pPort))
            return 0;
    }
    int nError = errno;
    if (n == 0 || nError != EAGAIN)
        return CloseAfterRecv(pSession, pPort, static_cast<int>(n), n == 0 ? 0 : nError);
    uint32_t nSilent = ClockUptime() - pSession->peer.tLastActivity;
    // nobody could say a word while the machine slept: silence counts anew
    if (nSilent >= kLongestSilence && g_settings.nStateTimeout > 0)
        pSession->peer.tLastActivity = ClockUptime();
    if (nSilent <= g_settings.nLiveTime || nSilent >= kLongestSilence || MayBeSilent(pSession))
        return 0;
    print("OnRead(fd=0x%x) TimeOut! The network will be closed.\r\n", pPort->fd);
    SessionClosePortFor(pSession, pPort, kEndSilent, 0);
    return -1;
}

int OnRead(int fd)
{
    Port *pPort = FindPort(fd);
    Session *pSession = FindSession(fd);
    if (pPort && !pSession && pPort->nType == PORT_UDP)
        return 0;
    if (!pPort && !pSession) {
        // not closed here: the descriptor is no longer ours and may serve somebody else by now
        print("OnRead() failed and CloseSock(fd=0x%x).\r\n", fd);
        return -1;
    }
    if (pPort && (pPort->nFlags & PORT_AWAITS_PEER))
        return FrontRead(pPort);
    ORX_ASSERT(pPort && pSession, "!port && !session");
    if (MayNotRead(pSession, pPort))
        return 0;
    return pPort->nType == PORT_UDP ? ReadUdp(pSession, pPort) : ReadTcp(pSession, pPort);
}

static void OnClose(int fd)
{
    print("OnClose(0x%x)\r\n", fd);
    Port *pPort = FindPort(fd);
    Session *pSession = FindSession(fd);
    int nErrno = pPort ? SockTakeError(fd) : 0;
    // a datagram that did not arrive, of which others are not told either: no reason to end
    if (pPort && pPort->nType == PORT_UDP && (nErrno == 0 || PortBounce(pPort)))
        return;
    if (pPort && pSession)
        SessionClosePortFor(pSession, pPort, nErrno ? kEndBroken : kEndClosed, nErrno);
    else if (pPort && (pPort->nFlags & PORT_AWAITS_PEER))
        FrontDrop(pPort);
    else if (pPort)
        PortClose(pPort);
    else
        ORX_ASSERT(!pSession, "!session");
}

static void OnPostedInput(int fd)
{
    Port *pPort = FindPort(fd);
    Session *pSession = FindSession(fd);
    if (!pPort || !pSession)
        return;
    if (pSession->nFlags & SESSION_TUNNEL_POST)
        TunnelPairPost(pSession, pPort);
    else if (HandleInput(pSession, pPort))  // more than the buffer took may wait, and is not reported again
        OnRead(fd);
}

// Goes on with what the buffer holds, or else with the socket: both in one task would take too long.
static void OnMoreInput(int fd, Port *pPort)
{
    if (!pPort)
        return;
    pPort->nFlags &= static_cast<uint16_t>(~PORT_MORE_WAITS);
    Session *pSession = FindSession(fd);
    if (pSession && pPort->nType == PORT_TCP && !(pSession->nFlags & SESSION_TUNNEL_POST)) {
        uint32_t nHeld = pSession->input.nLen;
        if (nHeld > 0 && !HandleInput(pSession, pPort))
            return;
        if (pSession->input.nLen < nHeld) {
            FlushAfterRead(pSession, nHeld - pSession->input.nLen);
            PortReadLater(pPort);
            return;
        }
    }
    OnRead(fd);
}

// pPort may be null: of the events of one wake-up, an earlier one can have closed it.
static void HandleEvent(int fd, uint32_t nEvent, Port *pPort)
{
    switch (nEvent) {
        case MONITOR_READ:
            OnRead(fd);
            break;
        case MONITOR_WRITE:
            print("OnWrite(0x%x)\r\n", fd);
            break;
        case MONITOR_CONNECT:
            print("OnConnect(0x%x)\r\n", fd);
            if (pPort)
                pPort->nFlags |= PORT_CONNECTED;
            break;
        case MONITOR_CLOSE:
            OnClose(fd);
            break;
        case EVENT_POSTED_INPUT:
            OnPostedInput(fd);
            break;
        case EVENT_MORE_INPUT:
            OnMoreInput(fd, pPort);
            break;
        case EVENT_JOB_DONE:
            AnswerHeldRequest(pPort);
            break;
        default:
            print("OnUnknownEvent(0x%x)\r\n", fd);
            ORX_ASSERT(0, "!\"unknown event\"");
    }
}

static int OnEvent(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    auto nArgument = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(TaskArgument(pTask)));
    uint32_t nEvent = nArgument & 0xFFFF;
    int fd = pTask->nParam;
    if (nEvent == MONITOR_ACCEPT) {
        OnAccept(fd);
        return -1;
    }
    // an event of a descriptor's earlier life must not reach the connection that has it now
    Port *pPort = FindPort(fd);
    if (!pPort || (pPort->nGeneration & 0xFFFF) == nArgument >> 16)
        HandleEvent(fd, nEvent, pPort);
    return -1;
}

static void PostEvent(int fd, uint32_t nGeneration, uint32_t nEvent, uint32_t nDelayMs)
{
    TaskSchedule(&g_server.scheduler, OnEvent, nDelayMs, fd, EventArgument(nEvent, nGeneration));
}

void EventsInit()
{
    g_server.events = {PostEvent, OnRead};
    g_nAcceptAgainMs = 0;
    g_pAcceptAgain = nullptr;
    LimitsInit();
    FrontsInit(OnPeerNamed);
}

void OnMonitorEvent(void * /*pContext*/, int fd, uint32_t nEvent, uint32_t nGeneration)
{
    PostEvent(fd, nGeneration, nEvent, 0);
}

}  // namespace orx
