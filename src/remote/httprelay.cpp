#include "remote/httprelay.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/console.h"
#include "base/fdguard.h"
#include "base/textbuf.h"
#include "remote/hostlookup.h"
#include "remote/tcpio.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr int kConnectSeconds = 2;      // the web server is on the box or next to it
constexpr size_t kReadSize = 8192;      // with the pause: 400 KB a second
constexpr int32_t kGoodbyeMs = 2000;    // for a client to take a refusal
constexpr uint32_t kRoundPauseMs = 20;  // caps a relay at kReadSize per direction and pause

// Finds the web server's address; a look-up that outlasts the thread goes on without it. Returns 1 or 0.
static int ResolveTarget(const HttpRelay *pRelay, sockaddr_in *pAddr)
{
    HostLookup *pLookup = HostLookupStart(pRelay->pCommon->szTargetIp);
    if (!pLookup)
        return 0;
    uint32_t nIp = 0;
    int nResult = HostLookupResult(pLookup, &nIp);
    while (nResult < 0 && !ThreadStopping(&pRelay->thread)) {
        poll(nullptr, 0, kTcpStepMs);
        nResult = HostLookupResult(pLookup, &nIp);
    }
    HostLookupFree(pLookup);
    pAddr->sin_family = AF_INET;
    pAddr->sin_addr.s_addr = htonl(nIp);
    pAddr->sin_port = htons(pRelay->pCommon->nTargetPort);
    return nResult > 0;
}

static TcpWaiter Waiter(const HttpRelay *pRelay)
{
    return {&pRelay->thread, pRelay->pCommon->fdStop, pRelay->pCommon->nSilentMs};
}

// Connects to the web server and sends what the client sent first. Returns 1 or 0.
static int OpenTarget(HttpRelay *pRelay)
{
    sockaddr_in addr{};
    if (!ResolveTarget(pRelay, &addr))
        return 0;
    FdGuard sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.fd < 0) {
        print("can't create socket!");
        return 0;
    }
    // closing resets, so that a relay that ends leaves nothing lingering at the web server
    linger reset{1, 0};
    setsockopt(sock.fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    if (!TcpConnect(&pRelay->thread, sock.fd, &addr, kConnectSeconds))
        return 0;
    const TcpWaiter waiter = Waiter(pRelay);
    if (!TcpSend(&waiter, sock.fd, pRelay->pFirst, pRelay->nFirst))
        return 0;
    pRelay->fdTarget = sock.Release();
    free(pRelay->pFirst);
    pRelay->pFirst = nullptr;
    return 1;
}

// Carries one read from one side to the other. Returns 1, or 0 when either side is gone.
static int CarryOver(const HttpRelay *pRelay, int fdFrom, int fdTo, uint8_t *pBuffer)
{
    ssize_t nRead = recv(fdFrom, pBuffer, kReadSize, 0);
    if (nRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 1;
    const TcpWaiter waiter = Waiter(pRelay);
    return nRead > 0 && TcpSend(&waiter, fdTo, pBuffer, static_cast<size_t>(nRead));
}

// Waits for either side and carries what came. Returns 1, or 0 when the relay is to end.
static int RelayRound(const HttpRelay *pRelay, uint8_t *pBuffer)
{
    pollfd polls[3] = {
        {pRelay->fdClient, POLLIN, 0}, {pRelay->fdTarget, POLLIN, 0}, {pRelay->pCommon->fdStop, POLLIN, 0}};
    int nReady = poll(polls, 3, pRelay->pCommon->nSilentMs);
    if (nReady < 0)
        return errno == EINTR;
    if (nReady == 0 || polls[2].revents)
        return 0;
    if (polls[0].revents && !CarryOver(pRelay, pRelay->fdClient, pRelay->fdTarget, pBuffer))
        return 0;
    return !polls[1].revents || CarryOver(pRelay, pRelay->fdTarget, pRelay->fdClient, pBuffer);
}

// A reply with a page of one line, as much of it as the socket takes at once: all of it, on a connection that
// was sent nothing before.
static void SendPage(int fd, const char *szStatus, const char *szLine)
{
    char page[256];
    TextBuf text{page, sizeof(page)};
    TextAdd(
        &text,
        "HTTP/1.0 %s\r\nContent-Type: text/plain\r\nContent-Length: %zu\r\nConnection: close\r\n\r\n%s\r\n",
        szStatus, strlen(szLine) + 2, szLine);
    if (send(fd, page, text.nLen, MSG_NOSIGNAL | MSG_DONTWAIT) > 0)
        shutdown(fd, SHUT_WR);
}

// Reads on until the client has closed: closing with bytes unread would reset the connection, and the page
// with it.
static void AwaitClient(const HttpRelay *pRelay, uint8_t *pBuffer)
{
    uint32_t nStart = ClockMs();
    int32_t nLeft = kGoodbyeMs;
    pollfd polls[2] = {{pRelay->fdClient, POLLIN, 0}, {pRelay->pCommon->fdStop, POLLIN, 0}};
    while (nLeft > 0 && poll(polls, 2, nLeft) > 0 && !polls[1].revents &&
           recv(pRelay->fdClient, pBuffer, kReadSize, 0) > 0)
        nLeft = kGoodbyeMs - ClockDiff(ClockMs(), nStart);
}

static void Relay(HttpRelay *pRelay)
{
    uint8_t buffer[kReadSize];
    if (OpenTarget(pRelay)) {
        while (!ThreadStopping(&pRelay->thread) && RelayRound(pRelay, buffer))
            ThreadPause(&pRelay->thread, kRoundPauseMs);
    } else if (pRelay->pCommon->bLimited) {
        HttpTellDown(pRelay->fdClient);
        AwaitClient(pRelay, buffer);
    } else {
        pRelay->bWait = 1;
        return;
    }
    SockClose(std::exchange(pRelay->fdClient, -1));
    SockClose(std::exchange(pRelay->fdTarget, -1));
}

static void HttpRelayEntry(Thread *pThread)
{
    auto *pRelay = static_cast<HttpRelay *>(pThread->pArgument);
    Relay(pRelay);
    int fdEnded = pRelay->pCommon->fdEnded;
    pRelay->bEnded = 1;
    eventfd_write(fdEnded, 1);
}

void HttpRefuseBusy(int fdClient)
{
    FdGuard client(fdClient);
    uint8_t buffer[kReadSize];
    (void)recv(client.fd, buffer, sizeof(buffer), MSG_DONTWAIT);  // see AwaitClient, without waiting here
    SendPage(client.fd, "503 Service Unavailable", "Too many connections.");
}

void HttpTellDown(int fdClient)
{
    SendPage(fdClient, "502 Bad Gateway", "The web server does not answer.");
}

HttpRelay *HttpRelayOpen(const HttpRelayCommon *pCommon, int fdClient, uint64_t nClientIp, const void *pFirst,
                         size_t nFirst)
{
    FdGuard client(fdClient);
    auto *pRelay = new (std::nothrow) HttpRelay;
    if (!pRelay)
        return nullptr;
    pRelay->pFirst = static_cast<uint8_t *>(malloc(nFirst));
    if (!pRelay->pFirst) {
        delete pRelay;
        return nullptr;
    }
    memcpy(pRelay->pFirst, pFirst, nFirst);
    pRelay->nFirst = nFirst;
    pRelay->fdClient = client.Release();
    pRelay->nClientIp = nClientIp;
    pRelay->pCommon = pCommon;
    if (ThreadCreateSmall(&pRelay->thread, HttpRelayEntry, pRelay))
        return pRelay;
    print("Create http proxy thread failed!\r\n");
    pRelay->bParked = 1;
    if (!pCommon->bLimited)
        return pRelay;
    HttpRefuseBusy(std::exchange(pRelay->fdClient, -1));
    HttpRelayFree(pRelay);
    return nullptr;
}

// Whether the client of a parked relay has gone. Its bytes, if it sends any, stay unread.
static int ClientGaveUp(const HttpRelay *pRelay)
{
    return TcpWait(pRelay->fdClient, POLLRDHUP, 0) != 0;
}

int HttpRelayPoll(HttpRelay *pRelay, int bCheckParked)
{
    if (pRelay->bParked)
        return bCheckParked && ClientGaveUp(pRelay);
    if (!pRelay->bEnded)
        return 0;
    ThreadJoin(&pRelay->thread);
    pRelay->bParked = pRelay->bWait;
    return !pRelay->bParked;
}

void HttpRelayFree(HttpRelay *pRelay)
{
    ThreadJoin(&pRelay->thread);
    SockClose(pRelay->fdClient);
    SockClose(pRelay->fdTarget);
    free(pRelay->pFirst);
    delete pRelay;
}

}  // namespace orx
