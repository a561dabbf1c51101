#include "remote/httpproxy.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/console.h"
#include "base/eventlog.h"
#include "base/fdguard.h"
#include "base/textbuf.h"
#include "remote/tcpio.h"
#include "runtime/clock.h"
#include "runtime/descriptors.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr size_t kFirstRead = 4095;     // what a connection is judged by: the head of a request
constexpr int32_t kSilentSeconds = 3;   // after which a connection that sends nothing is dropped
constexpr unsigned kUnnamedMax = 64;    // connections whose fronts have not named the peer yet
constexpr int32_t kHeaderSeconds = 5;   // ... one whose front sends no header
constexpr int kPendingWaitMs = 250;     // so late at most is a silent connection dropped
constexpr int kParkedWaitMs = 1000;     // ... one whose client has given up, and descriptors are tried again
constexpr unsigned kAcceptMax = 64;     // in a round, before those that have spoken have their turn
constexpr unsigned kAddressShare = 4;   // one address may have this part of all connections
constexpr uint32_t kRoundPauseMs = 10;  // a crowd of visitors costs one round in 10 ms
constexpr uint32_t kFastPauseMs = 1;    // ... or in one, where they are not to wait
constexpr char kTunnelMark[] = "application/x-rtsp-tunnelled";

// Takes the pending connection out of the list, keeping the order of the rest. Returns its socket.
static int PendingTake(HttpProxy *pProxy, unsigned nIndex)
{
    int fd = pProxy->pendings[nIndex].fd;
    pProxy->nPending--;
    memmove(&pProxy->pendings[nIndex], &pProxy->pendings[nIndex + 1],
            (pProxy->nPending - nIndex) * sizeof(HttpPending));
    return fd;
}

// Sends a connection on its way by the first bytes it has sent.
static void Classify(HttpProxy *pProxy, const HttpPending *pPending, const uint8_t *pData, size_t nLen)
{
    int fd = pPending->fd;
    if (memmem(pData, nLen, kTunnelMark, sizeof(kTunnelMark) - 1)) {
        pProxy->pfnHandOver(pProxy->pContext, fd, pData, nLen,
                            pPending->bFronted ? &pPending->fronted : nullptr);
        return;
    }
    if (!DescriptorsSpare(1)) {
        HttpRefuseBusy(fd);
        return;
    }
    if (pProxy->pFast) {
        FastRelaysAdd(pProxy->pFast, fd, pPending->nIp, pData, nLen);
        return;
    }
    HttpRelay *pRelay = HttpRelayOpen(&pProxy->common, fd, pPending->nIp, pData, nLen);
    if (pRelay)
        ListAppend(&pProxy->relays, pRelay);
}

// Whether one more connection from that address is within the limit.
static int HasRoom(const HttpProxy *pProxy, uint64_t nIp)
{
    unsigned nMax = pProxy->nMaxRelays, nAll = pProxy->nPending, nSame = 0;
    if (nMax == 0)
        return 1;
    for (unsigned i = 0; i < pProxy->nPending; i++)
        nSame += pProxy->pendings[i].nIp == nIp;
    for (auto *p = ListFirstOf<HttpRelay>(&pProxy->relays); p;
         p = reinterpret_cast<HttpRelay *>(p->node.pNext)) {
        nAll++;
        nSame += p->nClientIp == nIp;
    }
    if (pProxy->pFast)
        FastRelaysCount(pProxy->pFast, nIp, &nAll, &nSame);
    unsigned nShare = nMax < kAddressShare ? 1 : nMax / kAddressShare;
    return nAll < nMax && nSame < nShare;
}

static void Refuse(const HttpProxy *pProxy, int fd, const NetAddr *pAddr)
{
    char szPeer[kAddrTextSize];
    SockAddrToString(pAddr, szPeer);
    EventSayBounded(EventLevel::Warn, "connection.refused",
                    {EventText("peer", szPeer), EventText("limit", "MaxWebRelays"),
                     EventNumber("most", pProxy->nMaxRelays)});
    HttpRefuseBusy(fd);
}

static void TellAccepted(int fd, const NetAddr *pAddr)
{
    char szAddr[kAddrTextSize];
    SockAddrToString(pAddr, szAddr);
    print("HttpProxyServer accept(0x%x) from %s\n", static_cast<unsigned>(fd), szAddr);
}

// The front of a connection has named its peer, whose share is looked at now; it waits for its first bytes,
// behind all others, or is refused.
static void OnNamed(HttpProxy *pProxy, HttpPending pending)
{
    NetAddr addr = pending.fronted.peer;
    if (!pending.fronted.bPeer && SockGetPeerName(pending.fd, &addr) != 0) {
        SockClose(pending.fd);
        return;
    }
    TellAccepted(pending.fd, &addr);
    pending.nIp = AddrCounted(&addr);
    pending.bUnnamed = 0;
    pending.bFronted = 1;
    pending.nTime = ClockUptime();
    if (HasRoom(pProxy, pending.nIp))
        pProxy->pendings[pProxy->nPending++] = pending;
    else
        Refuse(pProxy, pending.fd, &addr);
}

static void TellNoHeader(int fd, const char *szReason)
{
    char szPeer[kAddrTextSize] = "";
    NetAddr addr;
    if (SockGetPeerName(fd, &addr) == 0)
        SockAddrToString(&addr, szPeer);
    print("HttpProxyServer: the front %s sent no PROXY header on 0x%x\n", szPeer, static_cast<unsigned>(fd));
    EventSayBounded(EventLevel::Warn, "front.refused",
                    {EventText("peer", szPeer), EventText("reason", szReason)});
}

// Looks for the header of a connection's front. Returns as PendingRead.
static int HeaderRead(HttpProxy *pProxy, unsigned nIndex)
{
    uint8_t header[kHttpHeaderMost];
    HttpPending pending = pProxy->pendings[nIndex];
    ssize_t nRead = recv(pending.fd, header, sizeof(header), MSG_PEEK);
    if (nRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    int nResult =
        nRead > 0 ? pProxy->fronts.pfnReadHeader(header, static_cast<size_t>(nRead), &pending.fronted) : -1;
    if (nResult == 0)
        return 0;
    PendingTake(pProxy, nIndex);
    if (nResult > 0 && recv(pending.fd, header, pending.fronted.nHeader, 0) ==
                           static_cast<ssize_t>(pending.fronted.nHeader)) {
        OnNamed(pProxy, pending);
        return 1;
    }
    TellNoHeader(pending.fd,
                 nRead == 0 ? "closed it without a PROXY header" : "sent what is no PROXY header");
    SockClose(pending.fd);
    return 1;
}

// Looks at a pending connection. Returns 1 when it has left its place in the list, 0 when it has nothing to
// read yet.
static int PendingRead(HttpProxy *pProxy, unsigned nIndex)
{
    uint8_t buffer[kFirstRead];
    if (pProxy->pendings[nIndex].bUnnamed)
        return HeaderRead(pProxy, nIndex);
    ssize_t nRead = recv(pProxy->pendings[nIndex].fd, buffer, sizeof(buffer), 0);
    if (nRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    HttpPending pending = pProxy->pendings[nIndex];
    PendingTake(pProxy, nIndex);
    if (nRead > 0)
        Classify(pProxy, &pending, buffer, static_cast<size_t>(nRead));
    else
        SockClose(pending.fd);
    return 1;
}

static void PendingAdd(HttpProxy *pProxy, int fd, uint64_t nIp, int bUnnamed)
{
    // the oldest makes room: served when it has spoken by now, else dropped
    if (pProxy->nPending == kHttpPendingMax &&
        (!PendingRead(pProxy, 0) || pProxy->nPending == kHttpPendingMax))  // it may be back, at the end
        SockClose(PendingTake(pProxy, 0));
    HttpPending *p = &pProxy->pendings[pProxy->nPending++];
    *p = HttpPending();
    p->fd = fd;
    p->nIp = nIp;
    p->nTime = ClockUptime();
    p->bUnnamed = bUnnamed;
}

static void DropSilent(HttpProxy *pProxy, uint32_t nNow)
{
    for (unsigned i = 0; i < pProxy->nPending;) {
        int32_t nMost = pProxy->pendings[i].bUnnamed ? kHeaderSeconds : kSilentSeconds;
        if (ClockDiff(nNow, pProxy->pendings[i].nTime) < nMost) {
            i++;
            continue;
        }
        int bUnnamed = pProxy->pendings[i].bUnnamed;
        int fd = PendingTake(pProxy, i);
        if (bUnnamed)
            TellNoHeader(fd, "sent no PROXY header for 5 seconds");
        print("sock=%d is timeout!\r\n", fd);
        SockClose(fd);
    }
}

// The same of one that came from a front, which may have many.
static int HasRoomForFront(const HttpProxy *pProxy)
{
    unsigned nUnnamed = 0;
    for (unsigned i = 0; i < pProxy->nPending; i++)
        nUnnamed += pProxy->pendings[i].bUnnamed;
    return nUnnamed < kUnnamedMax;
}

// A connection that was accepted: it waits for its first bytes, or is refused.
static void OnAccepted(HttpProxy *pProxy, int fd, const NetAddr *pAddr)
{
    const HttpFrontProcs *pFronts = &pProxy->fronts;
    int bFront = pFronts->pfnIsFront && pFronts->pfnIsFront(pProxy->pContext, pAddr);
    if (!bFront)
        TellAccepted(fd, pAddr);
    SockSetKeepAlive(fd);
    uint64_t nIp = bFront ? 0 : AddrCounted(pAddr);
    if ((bFront ? HasRoomForFront(pProxy) : HasRoom(pProxy, nIp)) && DescriptorsSpare(0))
        PendingAdd(pProxy, fd, nIp, bFront);
    else
        Refuse(pProxy, fd, pAddr);
}

// Without a descriptor the listening socket would stay ready: it is left alone for a while.
static void OnAcceptFailed(HttpProxy *pProxy)
{
    int nError = errno;
    if (nError == EAGAIN || nError == EWOULDBLOCK) {
        pProxy->bNoDescriptor = 0;
        return;
    }
    if (!pProxy->bNoDescriptor)
        print("accept(socket=0x%x) err=%d.\r\n", static_cast<unsigned>(pProxy->fdListen), nError);
    pProxy->bNoDescriptor = 1;
}

static void AcceptSome(HttpProxy *pProxy)
{
    for (unsigned i = 0; i < kAcceptMax; i++) {
        NetAddr addr;
        socklen_t nSize = sizeof(addr);
        int fd = accept4(pProxy->fdListen, &addr.any, &nSize, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && (errno == EINTR || errno == ECONNABORTED))
            continue;
        if (fd < 0) {
            OnAcceptFailed(pProxy);
            return;
        }
        AddrUnmap(&addr);
        OnAccepted(pProxy, fd, &addr);
    }
}

// Frees the relays that are over, and, with bCheckParked, those whose client has given up waiting.
static void ReapRelays(HttpProxy *pProxy, int bCheckParked)
{
    pProxy->nParked = 0;
    auto *pRelay = ListFirstOf<HttpRelay>(&pProxy->relays);
    while (pRelay) {
        auto *pNext = reinterpret_cast<HttpRelay *>(pRelay->node.pNext);
        if (HttpRelayPoll(pRelay, bCheckParked))
            ListFree(&pProxy->relays, pRelay);
        else
            pProxy->nParked += pRelay->bParked ? 1 : 0;
        pRelay = pNext;
    }
}

// The time-outs, looked at when the uptime has advanced.
static void OncePerSecond(HttpProxy *pProxy)
{
    uint32_t nNow = ClockUptime();
    int bAdvanced = nNow != pProxy->nCheckTime;
    if (bAdvanced)
        DropSilent(pProxy, nNow);
    pProxy->nCheckTime = nNow;
    ReapRelays(pProxy, bAdvanced);
}

// How long nothing may happen before something is due by the clock.
static int WaitMs(const HttpProxy *pProxy)
{
    if (pProxy->nPending > 0)
        return kPendingWaitMs;
    return pProxy->nParked > 0 || pProxy->bNoDescriptor ? kParkedWaitMs : -1;
}

static void ProxyRound(HttpProxy *pProxy)
{
    OncePerSecond(pProxy);
    pollfd polls[2 + kHttpPendingMax];
    unsigned nPending = pProxy->nPending;
    polls[0] = {pProxy->bNoDescriptor ? -1 : pProxy->fdListen, POLLIN, 0};
    polls[1] = {pProxy->common.fdEnded, POLLIN, 0};
    for (unsigned i = 0; i < nPending; i++)
        polls[2 + i] = {pProxy->pendings[i].fd, POLLIN, 0};
    int nReady = poll(polls, 2 + nPending, WaitMs(pProxy));
    eventfd_t nEnded = 0;
    if (nReady > 0 && polls[1].revents)
        eventfd_read(pProxy->common.fdEnded, &nEnded);
    // before new connections are accepted, which may push old ones out
    for (unsigned i = 0, nGone = 0; nReady > 0 && i < nPending; i++)
        if (polls[2 + i].revents)
            nGone += static_cast<unsigned>(PendingRead(pProxy, i - nGone));
    if (pProxy->bNoDescriptor || (nReady > 0 && polls[0].revents))
        AcceptSome(pProxy);
}

static void HttpProxyServerEntry(Thread *pThread)
{
    auto *pProxy = static_cast<HttpProxy *>(pThread->pArgument);
    print("Enter HttpProxyServerEntry(tid=0x%x)...\r\n", static_cast<unsigned>(ThreadKernelId()));
    while (!ThreadStopping(pThread)) {
        ProxyRound(pProxy);
        ThreadPause(pThread, pProxy->pFast ? kFastPauseMs : kRoundPauseMs);
    }
    print("Exit HttpProxyServerEntry()\r\n");
    SockClose(pProxy->fdListen);
    pProxy->fdListen = -1;
}

static void FreeRelay(void * /*pUser*/, void *pItem)
{
    HttpRelayFree(static_cast<HttpRelay *>(pItem));
}

// Copies what the settings say into the record. Returns 1, or 0 without descriptors for what wakes threads.
static int TakeSettings(HttpProxy *pProxy, const HttpProxySettings *pSettings)
{
    HttpRelayCommon *pCommon = &pProxy->common;
    TextCopy(pCommon->szTargetIp, sizeof(pCommon->szTargetIp), pSettings->szTargetIp);
    pCommon->nTargetPort = static_cast<uint16_t>(pSettings->nTargetPort);
    pCommon->bLimited = pSettings->nMaxRelays > 0;
    pCommon->nSilentMs = pCommon->bLimited ? pSettings->nSilentMs : -1;
    pCommon->fdStop = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    pCommon->fdEnded = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    pProxy->nMaxRelays = pSettings->nMaxRelays;
    pProxy->pfnHandOver = pSettings->pfnHandOver;
    pProxy->pContext = pSettings->pContext;
    pProxy->fronts = pSettings->fronts;
    pProxy->nPending = pProxy->nParked = 0;
    pProxy->bNoDescriptor = 0;
    ListInit(&pProxy->relays, nullptr);
    ListUsedDefMap(&pProxy->relays, 0);
    ListDataProc(&pProxy->relays, FreeRelay, nullptr);
    if (pCommon->fdStop < 0 || pCommon->fdEnded < 0)
        return 0;
    pProxy->pFast = pSettings->bFast ? FastRelaysStart(pCommon) : nullptr;
    return pProxy->pFast || !pSettings->bFast;
}

static void CloseEvents(HttpProxy *pProxy)
{
    FastRelaysStop(std::exchange(pProxy->pFast, nullptr));
    SockClose(std::exchange(pProxy->common.fdStop, -1));
    SockClose(std::exchange(pProxy->common.fdEnded, -1));
}

int HttpProxyStart(HttpProxy *pProxy, const HttpProxySettings *pSettings)
{
    NetAddr addr;
    char szAddr[kAddrTextSize];
    int bKnown = SockSetAddrEx(&addr, pSettings->szListenIp, pSettings->nListenPort, pSettings->bIpv6);
    FdGuard listener(bKnown ? SockListenTcp(&addr) : -1);
    // browsers open many connections at once: as many may wait to be accepted as may be pending
    if (listener.fd < 0 || listen(listener.fd, kHttpPendingMax) != 0) {
        print("Listen error %d\n", SockLastError());
        return 0;
    }
    int bReady = TakeSettings(pProxy, pSettings);
    SockAddrToString(&addr, szAddr);
    print("Http proxy: socket=0x%x listen on %s, Target=%s:%d\n", static_cast<unsigned>(listener.fd), szAddr,
          pProxy->common.szTargetIp, pSettings->nTargetPort);
    pProxy->fdListen = listener.fd;
    if (!bReady || !ThreadCreateSmall(&pProxy->thread, HttpProxyServerEntry, pProxy)) {
        pProxy->fdListen = -1;
        CloseEvents(pProxy);
        return 0;
    }
    listener.Release();
    return 1;
}

void HttpProxyStop(HttpProxy *pProxy)
{
    if (!pProxy->thread.bCreated)
        return;
    ThreadExit(&pProxy->thread);
    eventfd_write(pProxy->common.fdEnded, 1);
    ThreadJoin(&pProxy->thread);
    // all are asked before one is waited for, so that the waits overlap
    for (auto *p = ListFirstOf<HttpRelay>(&pProxy->relays); p;
         p = reinterpret_cast<HttpRelay *>(p->node.pNext))
        ThreadExit(&p->thread);
    eventfd_write(pProxy->common.fdStop, 1);
    ListDestroy(&pProxy->relays);
    while (pProxy->nPending > 0)
        SockClose(PendingTake(pProxy, 0));
    CloseEvents(pProxy);
}

}  // namespace orx
