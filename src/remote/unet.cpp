#include "remote/unet.h"

#include <arpa/inet.h>
#include <enet/enet.h>

#include "base/console.h"
#include "base/eventlog.h"
#include "base/textbuf.h"
#include "remote/bridgeaddr.h"
#include "remote/unetproxy.h"
#include "runtime/mutexguard.h"

namespace orx {

// What one look at the host has brought up.
struct UnetEvent {
    ENetEventType type = ENET_EVENT_TYPE_NONE;
    ENetPeer *pPeer = nullptr;
    UnetProxy *pProxy = nullptr;  // the bridge of that peer
    ENetPacket *pPacket = nullptr;
    ENetAddress address{};
};

// Services the host without waiting, for one event. A disconnected peer is cut off from its bridge before the
// lock is released, because its slot may be used again from then on. Returns 1 with an event, 0 without, -1
// when the socket failed.
static int ServiceOnce(Unet *pUnet, UnetEvent *pOut)
{
    ENetEvent event{};
    MutexGuard lock(&pUnet->host.mutex);
    int nResult = UnetGateService(&pUnet->host.gate, &event);
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

// szAs: the address that its connections come from here; null when it was turned away.
static void SayCome(const char *szPeer, const char *szAs)
{
    if (szAs)
        EventSayBounded(EventLevel::Info, "relay.peer_come",
                        {EventText("peer", szPeer), EventText("as", szAs)});
    else
        EventSayBounded(EventLevel::Warn, "relay.peer_refused", {EventText("peer", szPeer)});
}

// A player: it gets a bridge to the RTSP port.
static void BeginBridge(Unet *pUnet, ENetPeer *pPeer, const uint8_t *b, unsigned nPort)
{
    char szPeer[sizeof(UnetProxy::szPeer)], szAs[32];
    TextBuf peer{szPeer, sizeof(szPeer)}, as{szAs, sizeof(szAs)};
    uint32_t nAs = BridgeAddress(pPeer->incomingPeerID);
    TextAdd(&peer, "%d.%d.%d.%d:%u", b[0], b[1], b[2], b[3], nPort);
    TextAdd(&as, "%u.%u.%u.%u", nAs >> 24, nAs >> 16 & 0xFF, nAs >> 8 & 0xFF, nAs & 0xFF);
    UnetProxy *pProxy = CreateUnetProxy(&pUnet->thread, &pUnet->host, pPeer, &pUnet->rtsp);
    SayCome(szPeer, pProxy ? szAs : nullptr);
    if (!pProxy) {
        UnetResetPeer(&pUnet->host, pPeer);
        return;
    }
    TextCopy(pProxy->szPeer, sizeof(pProxy->szPeer), szPeer);
    ListAppend(&pUnet->proxies, pProxy);
}

static void OnConnect(Unet *pUnet, const UnetEvent *pEvent)
{
    const auto *b = reinterpret_cast<const uint8_t *>(&pEvent->address.host);
    unsigned nPort = pEvent->address.port;
    if (pEvent->pPeer == pUnet->registration.pServerPeer) {
        print("Connected to Zupo server %d.%d.%d.%d:%u.\n", b[0], b[1], b[2], b[3], nPort);
        RegistrationConnected(&pUnet->registration);
    } else if (pEvent->pPeer == pUnet->registration.pPunchingPeer) {
        print("A punching connected from %d.%d.%d.%d:%u.\n", b[0], b[1], b[2], b[3], nPort);
    } else {
        print("A new client connected from %d.%d.%d.%d:%u.\n", b[0], b[1], b[2], b[3], nPort);
        BeginBridge(pUnet, pEvent->pPeer, b, nPort);
    }
}

static void OnReceive(Unet *pUnet, const UnetEvent *pEvent)
{
    if (pEvent->pProxy) {
        UnetProxyReceive(pEvent->pProxy, pEvent->pPacket);
        return;
    }
    if (pEvent->pPeer == pUnet->registration.pServerPeer)
        RegistrationReceive(&pUnet->registration, pEvent->pPacket->data, pEvent->pPacket->dataLength);
    enet_packet_destroy(pEvent->pPacket);
}

static void OnDisconnect(Unet *pUnet, const UnetEvent *pEvent)
{
    const auto *b = reinterpret_cast<const uint8_t *>(&pEvent->address.host);
    print("%d.%d.%d.%d:%d disconected.\n", b[0], b[1], b[2], b[3], pEvent->address.port);
    RegistrationPeerGone(&pUnet->registration, pEvent->pPeer);
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
        if (UnetProxyEnded(pProxy)) {
            EventSayBounded(EventLevel::Info, "relay.peer_gone", {EventText("peer", pProxy->szPeer)});
            ListFree(&pUnet->proxies, pProxy);
        }
        pProxy = pNext;
    }
}

static void UnetServerEntry(Thread *pThread)
{
    auto *pUnet = static_cast<Unet *>(pThread->pArgument);
    print("UnetServerEntry(tid=0x%x) begin...\r\n", static_cast<unsigned>(ThreadKernelId()));
    while (!ThreadStopping(pThread)) {
        RegistrationTick(&pUnet->registration);
        ReapProxies(pUnet);
        pUnet->nPeers = ListCount(&pUnet->proxies);
        pUnet->bRegistered = pUnet->registration.bRegistered;
        UnetEvent event;
        int nResult = ServiceOnce(pUnet, &event);
        if (nResult > 0)
            HandleEvent(pUnet, &event);
        else
            UnetHostWait(&pUnet->host, nResult < 0);
    }
    print("Exit UnetServerEntry()\r\n");
}

static void FreeProxy(void * /*pUser*/, void *pItem)
{
    UnetProxyFree(static_cast<UnetProxy *>(pItem));
}

int UnetStart(Unet *pUnet, const UnetSettings *pSettings)
{
    pUnet->nPort = UnetHostCreate(&pUnet->host, pSettings->nBindIp, pSettings->nPort, pSettings->nPerAddress);
    if (pUnet->nPort == 0)
        return 0;
    pUnet->rtsp = {};
    pUnet->rtsp.sin_family = AF_INET;
    pUnet->rtsp.sin_addr.s_addr = htonl(pSettings->nBindIp ? pSettings->nBindIp : INADDR_LOOPBACK);
    pUnet->rtsp.sin_port = htons(static_cast<uint16_t>(pSettings->nRtspPort));
    RegistrationInit(&pUnet->registration, &pUnet->host, pSettings->nRtspPort, pSettings->pfnGetAddress,
                     pSettings->szCfgPath);
    ListInit(&pUnet->proxies, nullptr);
    ListUsedDefMap(&pUnet->proxies, 0);
    ListDataProc(&pUnet->proxies, FreeProxy, nullptr);
    if (!ThreadCreateSmall(&pUnet->thread, UnetServerEntry, pUnet)) {
        UnetHostFree(&pUnet->host);
        return 0;
    }
    print("Unet local port = %d.\r\n", pUnet->nPort);
    return 1;
}

int ZupoRegisterCreate(Unet *pUnet, const char *szServer, int nPort, const char *szCfgPath)
{
    if (!pUnet->host.pHost || !RegistrationStart(&pUnet->registration, szServer, nPort, szCfgPath))
        return 0;
    UnetHostWake(&pUnet->host);
    return 1;
}

void UnetStop(Unet *pUnet)
{
    if (!pUnet->host.pHost)
        return;
    ThreadExit(&pUnet->thread);
    UnetHostWake(&pUnet->host);
    ThreadJoin(&pUnet->thread);
    // all are asked before one is waited for, so that the waits overlap
    for (auto *p = ListFirstOf<UnetProxy>(&pUnet->proxies); p;
         p = reinterpret_cast<UnetProxy *>(p->node.pNext))
        UnetProxyStop(p);
    ListDestroy(&pUnet->proxies);
    RegistrationFree(&pUnet->registration);
    UnetHostFree(&pUnet->host);
}

}  // namespace orx
