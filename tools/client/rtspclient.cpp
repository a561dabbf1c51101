#include "client/rtspclient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/base64.h"
#include "client/rtppacket.h"

namespace orx {

constexpr size_t kReadBytes = 65536;
constexpr size_t kDatagramBytes = 65536;

uint64_t RtspNowUs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000U + static_cast<uint64_t>(now.tv_nsec) / 1000U;
}

static uint64_t DeadlineUs(int nTimeoutMs)
{
    return RtspNowUs() + static_cast<uint64_t>(std::max(nTimeoutMs, 0)) * 1000U;
}

static int LeftMs(uint64_t nDeadlineUs)
{
    uint64_t nNow = RtspNowUs();
    return nNow >= nDeadlineUs ? 0 : static_cast<int>((nDeadlineUs - nNow + 999) / 1000);
}

static void CloseFd(int *pFd)
{
    if (*pFd >= 0)
        close(*pFd);
    *pFd = -1;
}

RtspUdpPair::~RtspUdpPair()
{
    CloseFd(&fdRtp);
    CloseFd(&fdRtcp);
}

RtspClient::~RtspClient()
{
    RtspClose(this);
}

int RtspParseUrl(const char *szUrl, RtspUrl *pOut)
{
    std::string text = szUrl;
    if (text.compare(0, 7, "rtsp://") != 0)
        return 0;
    size_t nPath = text.find('/', 7);
    std::string authority = text.substr(7, nPath == std::string::npos ? nPath : nPath - 7);
    RtspUrl url;
    url.path = nPath == std::string::npos ? "" : text.substr(nPath);
    size_t nAt = authority.rfind('@');
    if (nAt != std::string::npos) {
        std::string account = authority.substr(0, nAt);
        size_t nColon = account.find(':');
        url.user = account.substr(0, nColon);
        url.password = nColon == std::string::npos ? "" : account.substr(nColon + 1);
        authority.erase(0, nAt + 1);
    }
    url.plain = "rtsp://" + authority + url.path;
    size_t nBracket = authority[0] == '[' ? authority.find(']') : std::string::npos;
    size_t nColon = authority.find(':', nBracket == std::string::npos ? 0 : nBracket);
    url.host =
        nBracket == std::string::npos ? authority.substr(0, nColon) : authority.substr(1, nBracket - 1);
    if (nColon != std::string::npos)
        url.nPort = static_cast<int>(strtol(authority.c_str() + nColon + 1, nullptr, 10));
    if (url.host.empty() || url.nPort < 1 || url.nPort > 65535)
        return 0;
    *pOut = url;
    return 1;
}

// A name stands for an IPv4 address.
static int ResolveHost(const RtspUrl *pUrl, NetAddr *pAddr)
{
    addrinfo hints{};
    hints.ai_family = pUrl->host.find(':') == std::string::npos ? AF_INET : AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *pFound = nullptr;
    if (getaddrinfo(pUrl->host.c_str(), nullptr, &hints, &pFound) != 0)
        return 0;
    memcpy(&pAddr->in6, pFound->ai_addr, std::min<size_t>(pFound->ai_addrlen, sizeof pAddr->in6));
    freeaddrinfo(pFound);
    AddrSetPort(pAddr, pUrl->nPort);
    return 1;
}

static int WaitFd(int fd, short nEvents, uint64_t nDeadlineUs)
{
    for (;;) {
        pollfd wait{fd, nEvents, 0};
        int n = poll(&wait, 1, LeftMs(nDeadlineUs));
        if (n > 0)
            return 1;
        if (n == 0 || errno != EINTR)
            return 0;
    }
}

static int PrepareSocket(const RtspClient *pClient, int fd)
{
    int nOn = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn);
    if (pClient->nReceiveBuffer > 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &pClient->nReceiveBuffer, sizeof pClient->nReceiveBuffer);
    if (pClient->sourceIp.empty())
        return 1;
    sockaddr_in source{};
    source.sin_family = AF_INET;
    return inet_pton(AF_INET, pClient->sourceIp.c_str(), &source.sin_addr) == 1 &&
           bind(fd, reinterpret_cast<sockaddr *>(&source), sizeof source) == 0;
}

// A connected non-blocking socket, or -1.
static int OpenSocket(const RtspClient *pClient, uint64_t nDeadlineUs)
{
    NetAddr addr;
    if (!ResolveHost(&pClient->url, &addr))
        return -1;
    int fd = socket(addr.any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    int nError = 0;
    socklen_t nLen = sizeof nError;
    if (PrepareSocket(pClient, fd) &&
        (connect(fd, &addr.any, AddrSize(&addr)) == 0 ||
         (errno == EINPROGRESS && WaitFd(fd, POLLOUT, nDeadlineUs) &&
          getsockopt(fd, SOL_SOCKET, SO_ERROR, &nError, &nLen) == 0 && nError == 0)))
        return fd;
    close(fd);
    return -1;
}

int RtspConnect(RtspClient *pClient, const char *szUrl, int nTimeoutMs)
{
    RtspClose(pClient);
    pClient->error = "not a URL of the form rtsp://host:port/name";
    if (!RtspParseUrl(szUrl, &pClient->url))
        return 0;
    pClient->error = "cannot connect to " + pClient->url.host + ":" + std::to_string(pClient->url.nPort);
    if (!pClient->url.user.empty()) {
        pClient->user = pClient->url.user;
        pClient->password = pClient->url.password;
    }
    pClient->fd = OpenSocket(pClient, DeadlineUs(nTimeoutMs));
    return pClient->fd >= 0;
}

static int SendOn(int fd, const void *pData, size_t nBytes, uint64_t nDeadlineUs)
{
    const auto *p = static_cast<const char *>(pData);
    while (nBytes > 0) {
        ssize_t n = send(fd, p, nBytes, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno != EAGAIN || !WaitFd(fd, POLLOUT, nDeadlineUs)))
            return 0;
        if (n > 0) {
            p += n;
            nBytes -= static_cast<size_t>(n);
        }
    }
    return 1;
}

static std::string RandomCookie()
{
    static const char digits[] = "0123456789abcdef";
    std::string cookie;
    uint64_t nSeed = RtspNowUs() * 6364136223846793005U + static_cast<uint64_t>(getpid());
    for (int i = 0; i < 22; i++) {
        nSeed = nSeed * 6364136223846793005U + 1442695040888963407U;
        cookie += digits[nSeed >> 60];
    }
    return cookie;
}

static std::string TunnelHead(const RtspClient *pClient, const char *szMethod, const std::string &cookie)
{
    const std::string &path = pClient->url.path;
    return std::string(szMethod) + " " + (path.empty() ? "/" : path) +
           " HTTP/1.0\r\nx-sessioncookie: " + cookie + "\r\n";
}

int RtspConnectTunnel(RtspClient *pClient, const char *szUrl, int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    if (!RtspConnect(pClient, szUrl, nTimeoutMs))
        return 0;
    pClient->error = "the server refused the tunnel";
    std::string cookie = RandomCookie();
    std::string get = TunnelHead(pClient, "GET", cookie) +
                      "Accept: application/x-rtsp-tunnelled\r\nPragma: no-cache\r\n\r\n";
    RtspMessage reply;
    if (!SendOn(pClient->fd, get.data(), get.size(), nDeadlineUs) ||
        !RtspWaitReply(pClient, 0, &reply, LeftMs(nDeadlineUs)) || reply.nStatus != 200)
        return 0;
    std::string post = TunnelHead(pClient, "POST", cookie) +
                       "Content-Type: application/x-rtsp-tunnelled\r\nContent-Length: 32767\r\n\r\n";
    pClient->fdPost = OpenSocket(pClient, nDeadlineUs);
    return pClient->fdPost >= 0 && SendOn(pClient->fdPost, post.data(), post.size(), nDeadlineUs);
}

void RtspClose(RtspClient *pClient)
{
    CloseFd(&pClient->fd);
    CloseFd(&pClient->fdPost);
    pClient->nCSeq = 0;
    pClient->session.clear();
    pClient->bChallenged = 0;
    pClient->sdp.clear();
    pClient->tracks.clear();
    pClient->buffer.clear();
    pClient->inbox.clear();
    pClient->bClosed = 0;
}

void RtspReset(RtspClient *pClient)
{
    linger reset{1, 0};
    for (int fd : {pClient->fd, pClient->fdPost})
        if (fd >= 0)
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    RtspClose(pClient);
}

void RtspShutdown(RtspClient *pClient)
{
    shutdown(pClient->fdPost >= 0 ? pClient->fdPost : pClient->fd, SHUT_WR);
}

int RtspSendRaw(RtspClient *pClient, const void *pData, size_t nBytes, int nTimeoutMs)
{
    int fd = pClient->fdPost >= 0 ? pClient->fdPost : pClient->fd;
    return fd >= 0 && SendOn(fd, pData, nBytes, DeadlineUs(nTimeoutMs));
}

int RtspSendBytes(RtspClient *pClient, const void *pData, size_t nBytes, int nTimeoutMs)
{
    if (pClient->fdPost < 0 || nBytes == 0)
        return RtspSendRaw(pClient, pData, nBytes, nTimeoutMs);
    std::string text(Base64EncodedSize(nBytes), '\0');
    size_t nText = Base64EncodeCount(text.data(), pData, nBytes) - 1;
    return RtspSendRaw(pClient, text.data(), nText, nTimeoutMs);
}

int RtspSend(RtspClient *pClient, const char *szMethod, const char *szUrl, const char *szHeaders,
             const std::string &body, int nTimeoutMs)
{
    std::string url = szUrl ? szUrl : pClient->url.plain;
    std::string text =
        std::string(szMethod) + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++pClient->nCSeq) + "\r\n";
    if (!pClient->session.empty())
        text += "Session: " + pClient->session + "\r\n";
    if (pClient->bChallenged)
        text += "Authorization: " +
                RtspAuthorization(&pClient->challenge, pClient->user, pClient->password, szMethod, url) +
                "\r\n";
    if (szHeaders)
        text += szHeaders;
    if (!body.empty())
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    text += "\r\n" + body;
    return RtspSendBytes(pClient, text.data(), text.size(), nTimeoutMs) ? pClient->nCSeq : 0;
}

// Takes the next message out of the buffer. Returns 1, 0 when none is complete, -1 for what can be none.
static int NextMessage(RtspClient *pClient, RtspMessage *pOut)
{
    long n = RtspParse(pClient->buffer.data(), pClient->buffer.size(), pOut);
    if (n <= 0)
        return static_cast<int>(n);
    pClient->buffer.erase(0, static_cast<size_t>(n));
    pOut->nArrivalUs = RtspNowUs();
    if (const char *szSession = pOut->kind == RTSP_REPLY ? RtspFindHeader(pOut, "Session") : nullptr)
        pClient->session.assign(szSession, strcspn(szSession, ";"));
    return 1;
}

// Returns 1 with more in the buffer, 0 when the time is over or the connection has ended.
static int ReadMore(RtspClient *pClient, uint64_t nDeadlineUs)
{
    if (pClient->fd < 0 || pClient->bClosed)
        return 0;
    for (;;) {
        size_t nHeld = pClient->buffer.size();
        pClient->buffer.resize(nHeld + kReadBytes);
        ssize_t n = recv(pClient->fd, pClient->buffer.data() + nHeld, kReadBytes, 0);
        int nError = errno;
        pClient->buffer.resize(nHeld + static_cast<size_t>(n > 0 ? n : 0));
        if (n > 0)
            return 1;
        if (n == 0 || (nError != EAGAIN && nError != EINTR)) {
            pClient->bClosed = n == 0 ? 1 : 2;
            return 0;
        }
        if (!WaitFd(pClient->fd, POLLIN, nDeadlineUs))
            return 0;
    }
}

int RtspWait(RtspClient *pClient, const std::function<bool(const RtspMessage &)> &fits, RtspMessage *pOut,
             int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    auto found = std::find_if(pClient->inbox.begin(), pClient->inbox.end(), fits);
    if (found != pClient->inbox.end()) {
        if (pOut)
            *pOut = std::move(*found);
        pClient->inbox.erase(found);
        return 1;
    }
    for (;;) {
        RtspMessage message;
        int n = NextMessage(pClient, &message);
        if (n < 0 || (n == 0 && !ReadMore(pClient, nDeadlineUs)))
            return 0;
        if (n == 0)
            continue;
        if (fits(message)) {
            if (pOut)
                *pOut = std::move(message);
            return 1;
        }
        pClient->inbox.push_back(std::move(message));
    }
}

int RtspWaitReply(RtspClient *pClient, int nCSeq, RtspMessage *pOut, int nTimeoutMs)
{
    return RtspWait(
        pClient,
        [nCSeq](const RtspMessage &message) {
            if (message.kind != RTSP_REPLY)
                return false;
            return nCSeq == 0 || RtspHeaderNumber(&message, "CSeq", nCSeq) == nCSeq;
        },
        pOut, nTimeoutMs);
}

int RtspWaitRequest(RtspClient *pClient, const char *szMethod, RtspMessage *pOut, int nTimeoutMs)
{
    return RtspWait(
        pClient,
        [szMethod](const RtspMessage &message) {
            return message.kind == RTSP_REQUEST && (!szMethod || message.method == szMethod);
        },
        pOut, nTimeoutMs);
}

int RtspWaitFrame(RtspClient *pClient, int nChannel, RtspMessage *pOut, int nTimeoutMs)
{
    return RtspWait(
        pClient,
        [nChannel](const RtspMessage &message) {
            return message.kind == RTSP_FRAME && (nChannel < 0 || message.nChannel == nChannel);
        },
        pOut, nTimeoutMs);
}

int RtspWaitBytes(RtspClient *pClient, size_t nBytes, std::string *pOut, int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    while (pClient->buffer.size() < nBytes)
        if (!ReadMore(pClient, nDeadlineUs))
            return 0;
    pOut->assign(pClient->buffer, 0, nBytes);
    pClient->buffer.erase(0, nBytes);
    return 1;
}

// Moves what is complete from the buffer into the inbox.
static void SortBuffer(RtspClient *pClient)
{
    RtspMessage message;
    while (NextMessage(pClient, &message) > 0)
        pClient->inbox.push_back(std::move(message));
}

int RtspWaitClosed(RtspClient *pClient, int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    do
        SortBuffer(pClient);
    while (ReadMore(pClient, nDeadlineUs));
    return pClient->bClosed != 0;
}

int RtspPoll(RtspClient *pClient)
{
    do
        SortBuffer(pClient);
    while (ReadMore(pClient, 0));
    return pClient->fd >= 0 && !pClient->bClosed;
}

int RtspRequest(RtspClient *pClient, const char *szMethod, const char *szUrl, const char *szHeaders,
                const std::string &body, RtspMessage *pReply, int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    for (int bRetried = 0;; bRetried = 1) {
        int nCSeq = RtspSend(pClient, szMethod, szUrl, szHeaders, body, LeftMs(nDeadlineUs));
        if (!nCSeq || !RtspWaitReply(pClient, nCSeq, pReply, LeftMs(nDeadlineUs)))
            return 0;
        const char *szChallenge = RtspFindHeader(pReply, "WWW-Authenticate");
        if (pReply->nStatus != 401 || bRetried || pClient->user.empty() || !szChallenge ||
            !RtspParseChallenge(szChallenge, &pClient->challenge))
            return 1;
        pClient->bChallenged = 1;
    }
}

// Returns 1 for a reply of 200; otherwise says in client.error what happened.
static int RequestOk(RtspClient *pClient, const char *szMethod, const char *szUrl, const char *szHeaders,
                     const std::string &body, RtspMessage *pReply, int nTimeoutMs)
{
    RtspMessage reply;
    RtspMessage *pOut = pReply ? pReply : &reply;
    if (!RtspRequest(pClient, szMethod, szUrl, szHeaders, body, pOut, nTimeoutMs)) {
        pClient->error = std::string(szMethod) +
                         (pClient->bClosed ? ": the server closed the connection" : ": no answer in time");
        return 0;
    }
    if (pOut->nStatus != 200)
        pClient->error = std::string(szMethod) + ": " + std::to_string(pOut->nStatus) + " " + pOut->reason;
    return pOut->nStatus == 200;
}

static void TakeTracks(RtspClient *pClient, const std::string &sdp)
{
    pClient->sdp = sdp;
    pClient->tracks.clear();
    for (const SdpTrack &track : SdpScan(sdp))
        pClient->tracks.emplace_back().sdp = track;
}

int RtspDescribe(RtspClient *pClient, RtspMessage *pReply, int nTimeoutMs)
{
    RtspMessage reply;
    if (!pReply)
        pReply = &reply;
    if (!RequestOk(pClient, "DESCRIBE", nullptr, "Accept: application/sdp\r\n", "", pReply, nTimeoutMs))
        return 0;
    TakeTracks(pClient, pReply->body);
    return 1;
}

static long TransportNumber(const std::string &transport, const char *szName, int nBase)
{
    size_t nAt = transport.find(szName);
    return nAt == std::string::npos ? -1 : strtol(transport.c_str() + nAt + strlen(szName), nullptr, nBase);
}

static void TakeTransport(RtspClient *pClient, RtspTrack *pTrack, const RtspMessage *pReply)
{
    const char *szTransport = RtspFindHeader(pReply, "Transport");
    std::string transport = szTransport ? szTransport : "";
    long nPort = TransportNumber(transport, "server_port=", 10);
    socklen_t nLen = sizeof pTrack->udp.serverRtp;
    pTrack->bSetUp = 1;
    if (transport.find("ssrc=") != std::string::npos)
        pTrack->nSsrc =
            static_cast<uint32_t>(strtoul(transport.c_str() + transport.find("ssrc=") + 5, nullptr, 16));
    pTrack->nChannel = static_cast<int>(TransportNumber(transport, "interleaved=", 10));
    if (nPort < 0 || getpeername(pClient->fd, &pTrack->udp.serverRtp.any, &nLen) != 0)
        return;
    pTrack->udp.serverRtcp = pTrack->udp.serverRtp;
    AddrSetPort(&pTrack->udp.serverRtp, static_cast<int>(nPort));
    AddrSetPort(&pTrack->udp.serverRtcp, static_cast<int>(nPort + 1));
}

static int SetupTrack(RtspClient *pClient, RtspTrack *pTrack, const std::string &transport,
                      RtspMessage *pReply, int nTimeoutMs)
{
    RtspMessage reply;
    if (!pReply)
        pReply = &reply;
    std::string header = "Transport: " + transport + "\r\n";
    std::string url = SdpTrackUrl(pClient->url.plain, &pTrack->sdp);
    if (!RequestOk(pClient, "SETUP", url.c_str(), header.c_str(), "", pReply, nTimeoutMs))
        return 0;
    TakeTransport(pClient, pTrack, pReply);
    return 1;
}

static std::string ChannelPair(size_t nTrack)
{
    return "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * nTrack) + "-" +
           std::to_string(2 * nTrack + 1);
}

int RtspSetup(RtspClient *pClient, size_t nTrack, RtspTransport transport, RtspMessage *pReply,
              int nTimeoutMs)
{
    if (nTrack >= pClient->tracks.size())
        return 0;
    RtspTrack *pTrack = &pClient->tracks[nTrack];
    if (transport != RTSP_OVER_UDP)
        return SetupTrack(pClient, pTrack, ChannelPair(nTrack), pReply, nTimeoutMs);
    if (pTrack->udp.fdRtp < 0 && !RtspUdpOpen(&pTrack->udp, pClient->fd))
        return 0;
    int nPort = pTrack->udp.nPort;
    std::string text =
        "RTP/AVP;unicast;client_port=" + std::to_string(nPort) + "-" + std::to_string(nPort + 1);
    return SetupTrack(pClient, pTrack, text, pReply, nTimeoutMs);
}

int RtspPlay(RtspClient *pClient, const char *szHeaders, RtspMessage *pReply, int nTimeoutMs)
{
    return RequestOk(pClient, "PLAY", nullptr, szHeaders, "", pReply, nTimeoutMs);
}

int RtspOpenPlayer(RtspClient *pClient, const char *szUrl, RtspTransport transport, int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    int bConnected = transport == RTSP_OVER_TUNNEL ? RtspConnectTunnel(pClient, szUrl, nTimeoutMs)
                                                   : RtspConnect(pClient, szUrl, nTimeoutMs);
    if (!bConnected || !RtspDescribe(pClient, nullptr, LeftMs(nDeadlineUs)))
        return 0;
    for (size_t i = 0; i < pClient->tracks.size(); i++)
        if (!RtspSetup(pClient, i, transport, nullptr, LeftMs(nDeadlineUs)))
            return 0;
    return RtspPlay(pClient, nullptr, nullptr, LeftMs(nDeadlineUs));
}

int RtspAnnounce(RtspClient *pClient, const std::string &sdp, RtspMessage *pReply, int nTimeoutMs)
{
    if (!RequestOk(pClient, "ANNOUNCE", nullptr, "Content-Type: application/sdp\r\nSupported: orx.sleep\r\n",
                   sdp, pReply, nTimeoutMs))
        return 0;
    TakeTracks(pClient, sdp);
    return 1;
}

int RtspSetupPush(RtspClient *pClient, size_t nTrack, RtspMessage *pReply, int nTimeoutMs)
{
    if (nTrack >= pClient->tracks.size())
        return 0;
    return SetupTrack(pClient, &pClient->tracks[nTrack], ChannelPair(nTrack) + ";mode=record", pReply,
                      nTimeoutMs);
}

int RtspOpenPusher(RtspClient *pClient, const char *szUrl, const std::string &sdp, const char *szStart,
                   int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    if (!RtspConnect(pClient, szUrl, nTimeoutMs) || !RtspAnnounce(pClient, sdp, nullptr, LeftMs(nDeadlineUs)))
        return 0;
    for (size_t i = 0; i < pClient->tracks.size(); i++)
        if (!RtspSetupPush(pClient, i, nullptr, LeftMs(nDeadlineUs)))
            return 0;
    return RequestOk(pClient, szStart, nullptr, "Range: npt=0.000-\r\n", "", nullptr, LeftMs(nDeadlineUs));
}

int RtspSendFrame(RtspClient *pClient, int nChannel, const void *pPacket, size_t nBytes, int nTimeoutMs)
{
    std::string frame;
    FrameAddHead(&frame, nChannel, nBytes);
    frame.append(static_cast<const char *>(pPacket), nBytes);
    return RtspSendBytes(pClient, frame.data(), frame.size(), nTimeoutMs);
}

int RtspRespond(RtspClient *pClient, const RtspMessage *pRequest, const char *szForward, int nTimeoutMs)
{
    const char *szClient = RtspFindHeader(pRequest, "ClientSsId");
    if (!szClient)
        return 0;
    std::string headers = std::string("ClientSsId: ") + szClient + "\r\nForward: " + szForward + "\r\n";
    return RtspSend(pClient, "RESPOND", nullptr, headers.c_str(), "", nTimeoutMs) != 0;
}

// The address that a socket has here, of any protocol; any of IPv4 with -1.
static NetAddr LocalAddress(int fd)
{
    NetAddr addr;
    socklen_t nLen = sizeof addr;
    if (getsockname(fd, &addr.any, &nLen) != 0)
        addr.in4.sin_family = AF_INET;
    return addr;
}

// A UDP socket on the address and the given port (0: any), or -1. Its buffer holds what comes at once: the
// packets since the last key picture, or the second that a recording is sent ahead.
static int BindUdp(NetAddr addr, int nPort)
{
    constexpr int kBytes = 2 << 20;
    int fd = socket(addr.any.sa_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kBytes, sizeof kBytes) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kBytes, sizeof kBytes);
    AddrSetPort(&addr, nPort);
    if (fd >= 0 && bind(fd, &addr.any, AddrSize(&addr)) != 0)
        CloseFd(&fd);
    return fd;
}

int RtspUdpOpen(RtspUdpPair *pPair, int fdNear)
{
    NetAddr near = LocalAddress(fdNear);
    for (int nTry = 0; nTry < 100; nTry++) {
        int fdAny = BindUdp(near, 0);
        int nAny = fdAny < 0 ? 0 : ntohs(LocalAddress(fdAny).in4.sin_port);
        int fdOther =
            nAny ? BindUdp(near, nAny ^ 1) : -1;  // the even or odd neighbour that completes the pair
        if (fdOther >= 0) {
            pPair->nPort = nAny & ~1;
            pPair->fdRtp = nAny & 1 ? fdOther : fdAny;
            pPair->fdRtcp = nAny & 1 ? fdAny : fdOther;
            return 1;
        }
        CloseFd(&fdAny);
    }
    return 0;
}

int RtspUdpReceive(int fd, std::string *pOut, int nTimeoutMs)
{
    uint64_t nDeadlineUs = DeadlineUs(nTimeoutMs);
    pOut->resize(kDatagramBytes);
    for (;;) {
        ssize_t n = recv(fd, pOut->data(), pOut->size(), 0);
        if (n >= 0) {
            pOut->resize(static_cast<size_t>(n));
            return 1;
        }
        if (errno != EINTR && (errno != EAGAIN || !WaitFd(fd, POLLIN, nDeadlineUs))) {
            pOut->clear();
            return 0;
        }
    }
}

int RtspUdpSendReport(RtspTrack *pTrack, uint32_t nOwnSsrc, uint32_t nHighestSequence)
{
    std::string report = RtcpReceiverReport(nOwnSsrc, pTrack->nSsrc, nHighestSequence);
    return sendto(pTrack->udp.fdRtcp, report.data(), report.size(), MSG_NOSIGNAL, &pTrack->udp.serverRtcp.any,
                  AddrSize(&pTrack->udp.serverRtcp)) == static_cast<ssize_t>(report.size());
}

}  // namespace orx
