#include "remote/unet.h"

#include <arpa/inet.h>
#include <enet/enet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <utility>

#include "base/console.h"
#include "base/textbuf.h"
#include "remote/unetzupo.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr size_t kPeers = 32;
constexpr size_t kChannels = 1;
constexpr int kWaitMs = 100;
constexpr size_t kPacketMax = 4 * 1024 * 1024;  // of a peer; the library would let it announce 32 MB

// What one look at the host has brought up.
struct UnetEvent {
    ENetEventType type = ENET_EVENT_TYPE_NONE;
    ENetPeer *pPeer = nullptr;
    UnetProxy *pProxy = nullptr;  // the bridge of that peer
    ENetPacket *pPacket = nullptr;
    ENetAddress address{};
};

static void Wake(const Unet *pUnet)
{
    eventfd_write(pUnet->fdWake, 1);
}

// Services the host without waiting, for one event. A disconnected peer is cut off from its bridge before the
// lock is released, because its slot may be used again from then on. Returns 1 with an event, 0 without, -1
// when the socket failed.
static int ServiceOnce(Unet *pUnet, UnetEvent *pOut)
{
    ENetEvent event{};
    HostLock lock(&pUnet->host);
    int nResult = enet_host_service(pUnet->host.pHost, &event, 0);
    if (nResult <= 0)
        return nResult;
    pOut->type = event.type;
    pOut->pPeer = event.peer;
    pOut->pPacket = event.packet;
    pOut->address = event.peer->address;
    pOut->pProxy = static_cast<UnetProxy *>(event.peer->data);
    if (event.type == ENET_EVENT_TYPE_DISCONNECT && pOut->pProxy)
        UnetProxyPeerGone(pOut->pProxy);
    return 1;
}

static void OnConnect(Unet *pUnet, const UnetEvent *pEvent)
{
    const auto *b = reinterpret_cast<const uint8_t *>(&pEvent->address.host);
    unsigned nPort = pEvent->address.port;
    if (pEvent->pPeer == pUnet->pServerPeer) {
        print("Connected to Zupo server %d.%d.%d.%d:%u.\n", b[0], b[1], b[2], b[3], nPort);
        ZupoConnected(pUnet);
    } else if (pEvent->pPeer == pUnet->pPunchingPeer) {
        print("A punching connected from %d.%d.%d.%d:%u.\n", b[0], b[1], b[2], b[3], nPort);
    } else {
        print("A new client connected from %d.%d.%d.%d:%u.\n", b[0], b[1], b[2], b[3], nPort);
        UnetProxy *pProxy = CreateUnetProxy(&pUnet->thread, &pUnet->host, pEvent->pPeer, pUnet->nRtspPort);
        if (pProxy)
            ListAppend(&pUnet->proxies, pProxy);
        else
            UnetResetPeer(pUnet, pEvent->pPeer);
    }
}

static void OnReceive(Unet *pUnet, const UnetEvent *pEvent)
{
    if (pEvent->pProxy) {
        UnetProxyReceive(pEvent->pProxy, pEvent->pPacket);
        return;
    }
    if (pEvent->pPeer == pUnet->pServerPeer)
        ZupoReceive(pUnet, pEvent->pPacket->data, pEvent->pPacket->dataLength);
    enet_packet_destroy(pEvent->pPacket);
}

static void OnDisconnect(Unet *pUnet, const UnetEvent *pEvent)
{
    const auto *b = reinterpret_cast<const uint8_t *>(&pEvent->address.host);
    print("%d.%d.%d.%d:%d disconected.\n", b[0], b[1], b[2], b[3], pEvent->address.port);
    if (pEvent->pPeer == pUnet->pServerPeer)
        ZupoDisconnected(pUnet);
    else if (pEvent->pPeer == pUnet->pPunchingPeer)
        UnetResetPeer(pUnet, std::exchange(pUnet->pPunchingPeer, nullptr));
}

static void HandleEvent(Unet *pUnet, const UnetEvent *pEvent)
{
    switch (pEvent->type) {
        case ENET_EVENT_TYPE_CONNECT:
            OnConnect(pUnet, pEvent);
            break;
        case ENET_EVENT_TYPE_RECEIVE:
            OnReceive(pUnet, pEvent);
            break;
        case ENET_EVENT_TYPE_DISCONNECT:
            OnDisconnect(pUnet, pEvent);
            break;
        case ENET_EVENT_TYPE_NONE:
            break;
    }
}

static void ReapProxies(Unet *pUnet)
{
    auto *pProxy = ListFirstOf<UnetProxy>(&pUnet->proxies);
    while (pProxy) {
        auto *pNext = reinterpret_cast<UnetProxy *>(pProxy->node.pNext);
        if (UnetProxyEnded(pProxy))
            ListFree(&pUnet->proxies, pProxy);
        pProxy = pNext;
    }
}

// Waits for datagrams or to be woken. The lock is free meanwhile: bridges send on their own.
static void WaitForWork(const Unet *pUnet, int bSocketFailed)
{
    pollfd polls[2] = {{pUnet->fdWake, POLLIN, 0}, {pUnet->host.pHost->socket, POLLIN, 0}};
    // a socket that cannot send may well be readable all the time
    int nReady = bSocketFailed ? poll(polls, 1, kWaitMs / 10) : poll(polls, 2, kWaitMs);
    eventfd_t nCount = 0;
    if (nReady > 0 && polls[0].revents)
        eventfd_read(pUnet->fdWake, &nCount);
}

static void UnetServerEntry(Thread *pThread)
{
    auto *pUnet = static_cast<Unet *>(pThread->pArgument);
    print("UnetServerEntry(tid=0x%x) begin...\r\n", static_cast<unsigned>(ThreadKernelId()));
    while (!ThreadStopping(pThread)) {
        ZupoTick(pUnet);
        ReapProxies(pUnet);
        UnetEvent event;
        int nResult = ServiceOnce(pUnet, &event);
        if (nResult > 0)
            HandleEvent(pUnet, &event);
        else
            WaitForWork(pUnet, nResult < 0);
    }
    print("Exit UnetServerEntry()\r\n");
}

ENetPeer *UnetConnect(Unet *pUnet, uint32_t nIp, int nPort)
{
    ENetAddress address{};
    address.host = htonl(nIp);
    address.port = static_cast<uint16_t>(nPort);
    HostLock lock(&pUnet->host);
    ENetPeer *pPeer = enet_host_connect(pUnet->host.pHost, &address, kChannels, 0);
    if (pPeer)
        pPeer->data = nullptr;
    // at once, so that a path is opened even if another request replaces this one a moment later
    enet_host_flush(pUnet->host.pHost);
    return pPeer;
}

void UnetResetPeer(Unet *pUnet, ENetPeer *pPeer)
{
    HostLock lock(&pUnet->host);
    if (!pPeer)
        return;
    pPeer->data = nullptr;
    enet_peer_reset(pPeer);
}

int UnetSend(Unet *pUnet, ENetPeer *pPeer, const void *pData, size_t nLen)
{
    ENetPacket *pPacket = enet_packet_create(pData, nLen, ENET_PACKET_FLAG_RELIABLE);
    if (!pPacket)
        return 0;
    HostLock lock(&pUnet->host);
    if (enet_peer_send(pPeer, 0, pPacket) != 0) {
        enet_packet_destroy(pPacket);
        return 0;
    }
    enet_host_flush(pUnet->host.pHost);
    return 1;
}

static void FreeProxy(void * /*pUser*/, void *pItem)
{
    UnetProxyFree(static_cast<UnetProxy *>(pItem));
}

// Makes host and event descriptor. Returns 1, or 0 with what there is left to the caller.
static int CreateHost(Unet *pUnet, const UnetSettings *pSettings)
{
    ENetAddress address{ENET_HOST_ANY, static_cast<uint16_t>(pSettings->nPort)};
    in_addr bindIp{};
    if (pSettings->szBindIp && inet_pton(AF_INET, pSettings->szBindIp, &bindIp) == 1)
        address.host = bindIp.s_addr;
    pUnet->host.pHost = enet_host_create(&address, kPeers, kChannels, 0, 0);
    pUnet->fdWake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (!pUnet->host.pHost || pUnet->fdWake < 0) {
        print("An error occurred while trying to create an ENet server host!\r\n");
        return 0;
    }
    // The library numbers connections from a seed of the time in seconds. A party that dials us while we
    // punch towards it must not come with the number of our own connection: it would pass for a repetition.
    getrandom(&pUnet->host.pHost->randomSeed, sizeof(pUnet->host.pHost->randomSeed), GRND_NONBLOCK);
    pUnet->host.pHost->maximumPacketSize = kPacketMax;
    pUnet->host.pHost->maximumWaitingData = kPacketMax;
    sockaddr_in local{};
    SockGetLocalName(pUnet->host.pHost->socket, &local);
    pUnet->nPort = SockGetPort(&local);
    return 1;
}

static void FreeHost(Unet *pUnet)
{
    if (pUnet->host.pHost)
        enet_host_destroy(pUnet->host.pHost);
    pUnet->host.pHost = nullptr;
    SockClose(std::exchange(pUnet->fdWake, -1));
    enet_deinitialize();
}

int UnetStart(Unet *pUnet, const UnetSettings *pSettings)
{
    if (enet_initialize() != 0) {
        print("An error occurred while initializing ENet!\r\n");
        return 0;
    }
    pUnet->nRtspPort = pSettings->nRtspPort;
    pUnet->pfnGetAddress = pSettings->pfnGetAddress;
    TextCopy(pUnet->szCfgPath, sizeof(pUnet->szCfgPath), pSettings->szCfgPath);
    ZupoInit(pUnet);
    ListInit(&pUnet->proxies, nullptr);
    ListUsedDefMap(&pUnet->proxies, 0);
    ListDataProc(&pUnet->proxies, FreeProxy, nullptr);
    if (!CreateHost(pUnet, pSettings) || !ThreadCreate(&pUnet->thread, UnetServerEntry, pUnet)) {
        FreeHost(pUnet);
        return 0;
    }
    print("Unet local port = %d.\r\n", pUnet->nPort);
    return 1;
}

int ZupoRegisterCreate(Unet *pUnet, const char *szServer, int nPort, const char *szCfgPath)
{
    if (!pUnet->host.pHost || pUnet->nZupoPort != 0 || nPort < 1 || nPort > 65535)
        return 0;
    if (!TextCopy(pUnet->szZupoServer, sizeof(pUnet->szZupoServer), szServer) || !pUnet->szZupoServer[0])
        return 0;
    if (szCfgPath && !TextCopy(pUnet->szCfgPath, sizeof(pUnet->szCfgPath), szCfgPath))
        return 0;
    pUnet->nZupoPort.store(nPort, std::memory_order_release);
    Wake(pUnet);
    return 1;
}

void UnetStop(Unet *pUnet)
{
    if (!pUnet->host.pHost)
        return;
    ThreadExit(&pUnet->thread);
    Wake(pUnet);
    ThreadJoin(&pUnet->thread);
    // all are asked before one is waited for, so that the waits overlap
    for (auto *p = ListFirstOf<UnetProxy>(&pUnet->proxies); p;
         p = reinterpret_cast<UnetProxy *>(p->node.pNext))
        ThreadExit(&p->thread);
    ListDestroy(&pUnet->proxies);
    ZupoFree(pUnet);
    FreeHost(pUnet);
}

}  // namespace orx
