#include "remote/httprelay.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/console.h"
#include "base/fdguard.h"
#include "remote/hostlookup.h"
#include "remote/tcpio.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr int kConnectSeconds = 2;      // the web server is on the box or next to it
constexpr size_t kReadSize = 8192;      // with the pause: 400 KB a second
constexpr uint32_t kRoundPauseMs = 20;  // caps a relay at kReadSize per direction and pause

// Finds the web server's address; a look-up that outlasts the thread goes on without it. Returns 1 or 0.
static int ResolveTarget(const HttpRelay *pRelay, sockaddr_in *pAddr)
{
    HostLookup *pLookup = HostLookupStart(pRelay->szTargetIp);
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
    pAddr->sin_port = htons(pRelay->nTargetPort);
    return nResult > 0;
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
    if (!TcpSend(&pRelay->thread, sock.fd, pRelay->pFirst, pRelay->nFirst))
        return 0;
    pRelay->fdTarget = sock.Release();
    free(pRelay->pFirst);
    pRelay->pFirst = nullptr;
    return 1;
}

// Carries one read from one side to the other. Returns 1, or 0 when either side is gone.
static int CarryOver(const Thread *pThread, int fdFrom, int fdTo, uint8_t *pBuffer)
{
    ssize_t nRead = recv(fdFrom, pBuffer, kReadSize, 0);
    if (nRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 1;
    return nRead > 0 && TcpSend(pThread, fdTo, pBuffer, static_cast<size_t>(nRead));
}

static int RelayRound(HttpRelay *pRelay, uint8_t *pBuffer)
{
    pollfd sides[2] = {{pRelay->fdClient, POLLIN, 0}, {pRelay->fdTarget, POLLIN, 0}};
    if (poll(sides, 2, kTcpStepMs) < 0 && errno != EINTR)
        return 0;
    if (sides[0].revents && !CarryOver(&pRelay->thread, pRelay->fdClient, pRelay->fdTarget, pBuffer))
        return 0;
    return !sides[1].revents || CarryOver(&pRelay->thread, pRelay->fdTarget, pRelay->fdClient, pBuffer);
}

static void HttpRelayEntry(Thread *pThread)
{
    auto *pRelay = static_cast<HttpRelay *>(pThread->pArgument);
    pRelay->bOpened = OpenTarget(pRelay);
    if (!pRelay->bOpened)
        return;
    uint8_t buffer[kReadSize];
    while (!ThreadStopping(pThread) && RelayRound(pRelay, buffer))
        ThreadPause(pThread, kRoundPauseMs);
    SockClose(std::exchange(pRelay->fdClient, -1));
    SockClose(std::exchange(pRelay->fdTarget, -1));
}

HttpRelay *HttpRelayOpen(int fdClient, const char *szTargetIp, int nTargetPort, const void *pFirst,
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
    pRelay->szTargetIp = szTargetIp;
    pRelay->nTargetPort = static_cast<uint16_t>(nTargetPort);
    if (!ThreadCreate(&pRelay->thread, HttpRelayEntry, pRelay)) {
        print("Create http proxy thread failed!\r\n");
        pRelay->bParked = 1;
    }
    return pRelay;
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
    if (!(pRelay->thread.nFlags.load(std::memory_order_acquire) & THREAD_ENDED))
        return 0;
    ThreadJoin(&pRelay->thread);
    pRelay->bParked = !pRelay->bOpened;
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
