#include "remote/httpproxy.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/console.h"
#include "base/fdguard.h"
#include "base/textbuf.h"
#include "remote/httprelay.h"
#include "remote/tcpio.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr size_t kFirstRead = 4095;     // what a connection is judged by: the head of a request
constexpr int32_t kSilentSeconds = 3;   // after which a connection that sends nothing is dropped
constexpr int kWaitMs = 20;             // so late at most are relays looked after, and a stop is noticed
constexpr uint32_t kRoundPauseMs = 10;  // a crowd of visitors costs one round in 10 ms
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
static void Classify(HttpProxy *pProxy, int fd, const uint8_t *pData, size_t nLen)
{
    if (memmem(pData, nLen, kTunnelMark, sizeof(kTunnelMark) - 1)) {
        pProxy->pfnHandOver(pProxy->pContext, fd, pData, nLen);
        return;
    }
    HttpRelay *pRelay = HttpRelayOpen(fd, pProxy->szTargetIp, pProxy->nTargetPort, pData, nLen);
    if (pRelay)
        ListAppend(&pProxy->relays, pRelay);
}

// Looks at a pending connection. Returns 1 when it has left the list, 0 when it has nothing to read yet.
static int PendingRead(HttpProxy *pProxy, unsigned nIndex)
{
    uint8_t buffer[kFirstRead];
    ssize_t nRead = recv(pProxy->pendings[nIndex].fd, buffer, sizeof(buffer), 0);
    if (nRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 0;
    int fd = PendingTake(pProxy, nIndex);
    if (nRead > 0)
        Classify(pProxy, fd, buffer, static_cast<size_t>(nRead));
    else
        SockClose(fd);
    return 1;
}

static void PendingAdd(HttpProxy *pProxy, int fd)
{
    // the oldest makes room: served when it has spoken by now, else dropped
    if (pProxy->nPending == kHttpPendingMax && !PendingRead(pProxy, 0))
        SockClose(PendingTake(pProxy, 0));
    pProxy->pendings[pProxy->nPending++] = {fd, ClockUptime()};
}

static void DropSilent(HttpProxy *pProxy, uint32_t nNow)
{
    for (unsigned i = 0; i < pProxy->nPending;) {
        if (ClockDiff(nNow, pProxy->pendings[i].nTime) < kSilentSeconds) {
            i++;
            continue;
        }
        int fd = PendingTake(pProxy, i);
        print("sock=%d is timeout!\r\n", fd);
        SockClose(fd);
    }
}

static void AcceptAll(HttpProxy *pProxy)
{
    for (;;) {
        sockaddr_in addr{};
        socklen_t nSize = sizeof(addr);
        int fd = accept4(pProxy->fdListen, reinterpret_cast<sockaddr *>(&addr), &nSize,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && (errno == EINTR || errno == ECONNABORTED))
            continue;
        if (fd < 0)
            return;
        char szAddr[kAddrTextSize];
        SockAddrToString(&addr, szAddr);
        print("HttpProxyServer accept(0x%x) from %s\n", static_cast<unsigned>(fd), szAddr);
        SockSetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);  // ends it when the client's network vanishes
        PendingAdd(pProxy, fd);
    }
}

// Frees the relays that are over, and, with bCheckParked, those whose client has given up waiting.
static void ReapRelays(HttpProxy *pProxy, int bCheckParked)
{
    auto *pRelay = ListFirstOf<HttpRelay>(&pProxy->relays);
    while (pRelay) {
        auto *pNext = reinterpret_cast<HttpRelay *>(pRelay->node.pNext);
        if (HttpRelayPoll(pRelay, bCheckParked))
            ListFree(&pProxy->relays, pRelay);
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

static void ProxyRound(HttpProxy *pProxy)
{
    OncePerSecond(pProxy);
    pollfd polls[1 + kHttpPendingMax];
    unsigned nPending = pProxy->nPending;
    polls[0] = {pProxy->fdListen, POLLIN, 0};
    for (unsigned i = 0; i < nPending; i++)
        polls[1 + i] = {pProxy->pendings[i].fd, POLLIN, 0};
    if (poll(polls, 1 + nPending, kWaitMs) <= 0)
        return;
    // before new connections are accepted, which may push old ones out
    for (unsigned i = 0, nGone = 0; i < nPending; i++)
        if (polls[1 + i].revents)
            nGone += static_cast<unsigned>(PendingRead(pProxy, i - nGone));
    if (polls[0].revents)
        AcceptAll(pProxy);
}

static void HttpProxyServerEntry(Thread *pThread)
{
    auto *pProxy = static_cast<HttpProxy *>(pThread->pArgument);
    print("Enter HttpProxyServerEntry(tid=0x%x)...\r\n", static_cast<unsigned>(ThreadKernelId()));
    while (!ThreadStopping(pThread)) {
        ProxyRound(pProxy);
        ThreadPause(pThread, kRoundPauseMs);
    }
    print("Exit HttpProxyServerEntry()\r\n");
    SockClose(pProxy->fdListen);
    pProxy->fdListen = -1;
}

static void FreeRelay(void * /*pUser*/, void *pItem)
{
    HttpRelayFree(static_cast<HttpRelay *>(pItem));
}

int HttpProxyStart(HttpProxy *pProxy, const char *szListenIp, int nListenPort, const char *szTargetIp,
                   int nTargetPort, HttpHandOver pfnHandOver, void *pContext)
{
    sockaddr_in addr{};
    char szAddr[kAddrTextSize];
    FdGuard listener(SockSetAddr(&addr, szListenIp, nListenPort) ? SockListenTcp(&addr) : -1);
    // browsers open many connections at once: as many may wait to be accepted as may be pending
    if (listener.fd < 0 || listen(listener.fd, kHttpPendingMax) != 0) {
        print("Listen error %d\n", SockLastError());
        return 0;
    }
    TextCopy(pProxy->szTargetIp, sizeof(pProxy->szTargetIp), szTargetIp);
    pProxy->nTargetPort = static_cast<uint16_t>(nTargetPort);
    pProxy->pfnHandOver = pfnHandOver;
    pProxy->pContext = pContext;
    pProxy->nPending = 0;
    ListInit(&pProxy->relays, nullptr);
    ListUsedDefMap(&pProxy->relays, 0);
    ListDataProc(&pProxy->relays, FreeRelay, nullptr);
    SockAddrToString(&addr, szAddr);
    print("Http proxy: socket=0x%x listen on %s, Target=%s:%d\n", static_cast<unsigned>(listener.fd), szAddr,
          pProxy->szTargetIp, nTargetPort);
    pProxy->fdListen = listener.fd;
    if (!ThreadCreate(&pProxy->thread, HttpProxyServerEntry, pProxy)) {
        pProxy->fdListen = -1;
        return 0;
    }
    listener.Release();
    return 1;
}

void HttpProxyStop(HttpProxy *pProxy)
{
    if (!pProxy->thread.bCreated)
        return;
    ThreadJoin(&pProxy->thread);
    // all are asked before one is waited for, so that the waits overlap
    for (auto *p = ListFirstOf<HttpRelay>(&pProxy->relays); p;
         p = reinterpret_cast<HttpRelay *>(p->node.pNext))
        ThreadExit(&p->thread);
    ListDestroy(&pProxy->relays);
    while (pProxy->nPending > 0)
        SockClose(PendingTake(pProxy, 0));
}

}  // namespace orx
