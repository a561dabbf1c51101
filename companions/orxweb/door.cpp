#include "orxweb/door.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "net/proxyheader.h"
#include "shared/loop.h"

namespace orx {

constexpr int kHeaderMs = 10000;     // a front's connection that says nothing
constexpr int kLookMs = 20;          // while a header is not whole
constexpr int kUnsentBytes = 65536;  // what waits in the kernel would only be late

// A front's connection: what comes first names its visitor.
struct Caller {
    int fd = -1;
    WebPeer peer;
    LoopWatch watch;
    LoopTimer timer;
    uint64_t nEndMs = 0;
};

struct Door {
    DoorSettings settings;
    Loop *pLoop = nullptr;
    int fdListen = -1;
    LoopWatch watch;
    LoopTimer timer;             // while there are no descriptors
    std::set<Caller *> callers;  // the thread's
    std::thread thread;
};
static Door g_door;

static std::mutex g_mutex;
static std::map<int, WebPeer> g_peers;       // guarded by it, as is the next: by descriptor
static std::map<uint64_t, int> g_byAddress;  // how many of each address

static int IsLoopback(const NetAddr *pAddr)
{
    if (AddrIsIpv6(pAddr))
        return IN6_IS_ADDR_LOOPBACK(&pAddr->in6.sin6_addr);
    return ntohl(pAddr->in4.sin_addr.s_addr) >> 24 == 127;
}

// The address at which a visitor came in; of no family where that is not known any more.
static NetAddr OwnAddress(int fd)
{
    NetAddr own;
    socklen_t nOwn = sizeof(own);
    if (getsockname(fd, &own.any, &nOwn) != 0)
        return {};
    AddrUnmap(&own);
    return own;
}

static void Refuse(int fd)
{
    static const char reply[] =
        "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 5\r\nContent-Length: 0\r\nConnection: "
        "close\r\n\r\n";
    (void)!send(fd, reply, sizeof(reply) - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    close(fd);
}

static int Admit(int fd, const WebPeer &peer)
{
    uint64_t nKey = AddrCounted(&peer.addr);
    std::lock_guard lock(g_mutex);
    int &nOfOne = g_byAddress[nKey];
    if (static_cast<int>(g_peers.size()) >= g_door.settings.nMost ||
        (!peer.bLocal && nOfOne >= g_door.settings.nMostOfOne)) {
        if (nOfOne == 0)
            g_byAddress.erase(nKey);
        return 0;
    }
    nOfOne++;
    g_peers[fd] = peer;
    return 1;
}

void DoorLeft(int fd)
{
    std::lock_guard lock(g_mutex);
    auto it = g_peers.find(fd);
    if (it == g_peers.end())
        return;
    auto counted = g_byAddress.find(AddrCounted(&it->second.addr));
    if (counted != g_byAddress.end() && --counted->second <= 0)
        g_byAddress.erase(counted);
    g_peers.erase(it);
}

WebPeer DoorPeer(int fd)
{
    std::lock_guard lock(g_mutex);
    auto it = g_peers.find(fd);
    return it == g_peers.end() ? WebPeer() : it->second;
}

static void Enter(int fd, const WebPeer &peer)
{
    int nOn = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    setsockopt(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kUnsentBytes, sizeof(kUnsentBytes));
    if (!Admit(fd, peer))
        Refuse(fd);
    else if (!g_door.settings.pfnTake(fd, &peer.addr))
        DoorLeft(fd);
}

// --- connections of fronts ---

static void CallerFree(Caller *pCaller)
{
    LoopSetWatch(g_door.pLoop, &pCaller->watch, 0);
    LoopClearTimer(g_door.pLoop, &pCaller->timer);
    DoorLeft(-1 - pCaller->fd);
    g_door.callers.erase(pCaller);
    delete pCaller;
}

static void CallerDrop(Caller *pCaller)
{
    int fd = pCaller->fd;
    CallerFree(pCaller);
    close(fd);
}

static void CallerEnter(Caller *pCaller)
{
    int fd = pCaller->fd;
    WebPeer peer = pCaller->peer;
    CallerFree(pCaller);
    Enter(fd, peer);
}

static void CallerTake(Caller *pCaller, const ProxyHeader &header)
{
    uint8_t bytes[kProxyHeaderMost];
    if (recv(pCaller->fd, bytes, header.nBytes, MSG_DONTWAIT) != static_cast<ssize_t>(header.nBytes)) {
        CallerDrop(pCaller);
        return;
    }
    pCaller->peer.bFronted = 1;
    if (header.bPeer) {
        pCaller->peer.addr = header.peer;
        pCaller->peer.bLocal = 0;
    }
    CallerEnter(pCaller);
}

// Whether it has said all that it will.
static int HasEnded(int fd)
{
    pollfd polled{fd, POLLRDHUP, 0};
    return poll(&polled, 1, 0) > 0;
}

static void CallerLook(Caller *pCaller)
{
    uint8_t bytes[kProxyHeaderMost];
    ProxyHeader header;
    ssize_t n = recv(pCaller->fd, bytes, sizeof(bytes), MSG_PEEK | MSG_DONTWAIT);
    if (LoopNowMs() >= pCaller->nEndMs || n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        CallerDrop(pCaller);
        return;
    }
    ProxyResult result = n > 0 ? ProxyHeaderParse(bytes, static_cast<size_t>(n), &header) : ProxyResult::More;
    if (result == ProxyResult::Done) {
        CallerTake(pCaller, header);
    } else if (result == ProxyResult::Bad) {
        CallerEnter(pCaller);  // a visitor's own bytes
    } else if (n > 0 && HasEnded(pCaller->fd)) {
        CallerDrop(pCaller);
    } else if (n > 0) {
        LoopSetWatch(g_door.pLoop, &pCaller->watch, 0);  // it would be ready all the time
        LoopSetTimer(g_door.pLoop, &pCaller->timer, kLookMs);
    }
}

static void CallerOpen(int fd, const WebPeer &peer)
{
    if (!Admit(-1 - fd, peer)) {  // it counts before it is taken, too
        Refuse(fd);
        return;
    }
    auto *pCaller = new Caller;
    g_door.callers.insert(pCaller);
    pCaller->fd = fd;
    pCaller->peer = peer;
    pCaller->nEndMs = LoopNowMs() + kHeaderMs;
    pCaller->watch = {fd, [](void *pUser, uint32_t) { CallerLook(static_cast<Caller *>(pUser)); }, pCaller};
    pCaller->timer.pfnDue = [](void *pUser) { CallerLook(static_cast<Caller *>(pUser)); };
    pCaller->timer.pUser = pCaller;
    LoopSetTimer(g_door.pLoop, &pCaller->timer, kHeaderMs);
    LoopSetWatch(g_door.pLoop, &pCaller->watch, EPOLLIN);
}

// --- the listener ---

static void OnPause(void *)
{
    LoopSetWatch(g_door.pLoop, &g_door.watch, EPOLLIN);
}

static void OnListener(void *, uint32_t)
{
    WebPeer peer;
    socklen_t nAddr = sizeof(peer.addr);
    int fd = accept4(g_door.fdListen, &peer.addr.any, &nAddr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            LoopSetWatch(g_door.pLoop, &g_door.watch, 0);
            LoopSetTimer(g_door.pLoop, &g_door.timer, 500);
        }
        return;
    }
    AddrUnmap(&peer.addr);
    const NetAddr own = OwnAddress(fd);
    peer.bLocal = IsLoopback(&peer.addr) || AddrSameHost(&own, &peer.addr);
    if (g_door.settings.pfnIsFront && g_door.settings.pfnIsFront(&peer.addr, &own))
        CallerOpen(fd, peer);
    else
        Enter(fd, peer);
}

static int ListenAddress(const DoorSettings *pSettings, NetAddr *pOut)
{
    *pOut = NetAddr();
    if (inet_pton(AF_INET, pSettings->listen.c_str(), &pOut->in4.sin_addr) == 1)
        pOut->any.sa_family = AF_INET;
    else if (inet_pton(AF_INET6, pSettings->listen.c_str(), &pOut->in6.sin6_addr) == 1)
        pOut->any.sa_family = AF_INET6;
    else
        return 0;
    AddrSetPort(pOut, pSettings->nPort);
    return 1;
}

static int Listen(const DoorSettings *pSettings)
{
    NetAddr addr;
    if (!ListenAddress(pSettings, &addr)) {
        errno = EINVAL;
        return -1;
    }
    int fd = socket(addr.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int nOn = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    if (AddrIsIpv6(&addr)) {
        int nOff = 0;  // "::" is both families
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &nOff, sizeof(nOff));
    }
    if (fd >= 0 && bind(fd, &addr.any, AddrSize(&addr)) == 0 && listen(fd, 128) == 0)
        return fd;
    int nError = errno;
    close(fd);
    errno = nError;
    return -1;
}

int DoorOpen(const DoorSettings *pSettings, std::string *pWhy)
{
    g_door.settings = *pSettings;
    g_door.fdListen = Listen(pSettings);
    if (g_door.fdListen < 0) {
        *pWhy = pSettings->listen + ":" + std::to_string(pSettings->nPort) + ": " + strerror(errno);
        return 0;
    }
    g_door.pLoop = LoopOpen();
    if (!g_door.pLoop) {
        *pWhy = strerror(errno);
        return 0;
    }
    g_door.watch = {g_door.fdListen, OnListener};
    g_door.timer.pfnDue = OnPause;
    LoopSetWatch(g_door.pLoop, &g_door.watch, EPOLLIN);
    g_door.thread = std::thread([] { LoopRun(g_door.pLoop); });
    return 1;
}

void DoorClose()
{
    if (!g_door.thread.joinable())
        return;
    LoopStop(g_door.pLoop);
    g_door.thread.join();
    while (!g_door.callers.empty())
        CallerDrop(*g_door.callers.begin());
    LoopSetWatch(g_door.pLoop, &g_door.watch, 0);
    close(g_door.fdListen);
    LoopClose(g_door.pLoop);
}

}  // namespace orx
