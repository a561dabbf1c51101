#include "server/front/remoteservices.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <pthread.h>

#include "base/console.h"
#include "base/fdguard.h"
#include "base/textbuf.h"
#include "net/addrlist.h"
#include "net/ifaddr.h"
#include "net/proxyheader.h"
#include "remote/httpproxy.h"
#include "remote/unet.h"
#include "runtime/mutexguard.h"
#include "runtime/sockutil.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/front/events.h"

namespace orx {

constexpr size_t kShortGuid = 20;  // an identity must be longer to be registered

// A connection on its way from the proxy thread to the scheduler thread.
struct HandOver {
    ListNode node;  // first
    int fd = -1;    // owned
    size_t nLen = 0;
    uint8_t *pData = nullptr;  // owned, from malloc
    int bFronted = 0;          // came through a front
    FrontedPeer front{};       // then
};

struct RemoteServices {
    HttpProxy proxy;
    Unet unet;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // guards what follows
    List handOvers;                                     // HandOver, one per task to run; owned
    AddrList fronts;                                    // ProxyProtocolFrom, a copy
};

static RemoteServices *g_pRemote = nullptr;  // main thread, but for its list

static void FreeHandOver(void * /*pUser*/, void *pItem)
{
    auto *pHandOver = static_cast<HandOver *>(pItem);
    SockClose(pHandOver->fd);
    free(pHandOver->pData);
    delete pHandOver;
}

static void InitHandOvers(List *pList)
{
    ListInit(pList, nullptr);
    ListUsedDefMap(pList, 0);
    ListDataProc(pList, FreeHandOver, nullptr);
}

// Of several tasks that wait the newest runs first, but a tunnel's GET must come in before its POST: each
// task takes the oldest connection.
static int OnHandOver(Task *, uint32_t, uint32_t, uint32_t)
{
    RemoteServices *pRemote = g_pRemote;
    HandOver *pHandOver;
    {
        MutexGuard lock(&pRemote->mutex);
        pHandOver = static_cast<HandOver *>(ListFirst(&pRemote->handOvers, LIST_DETACH));
    }
    RtspSessionCreate(std::exchange(pHandOver->fd, -1), pHandOver->pData, pHandOver->nLen,
                      pHandOver->bFronted ? &pHandOver->front : nullptr);
    FreeHandOver(nullptr, pHandOver);
    return -1;
}

// Proxy thread: the session is made where all sessions live.
static int AcceptTunnel(void *pContext, int fd, const void *pData, size_t nLen, const HttpFronted *pFronted)
{
    auto *pRemote = static_cast<RemoteServices *>(pContext);
    FdGuard sock(fd);
    auto *pHandOver = new (std::nothrow) HandOver;
    if (!pHandOver)
        return 0;
    pHandOver->pData = static_cast<uint8_t *>(malloc(nLen));
    if (!pHandOver->pData) {
        delete pHandOver;
        return 0;
    }
    memcpy(pHandOver->pData, pData, nLen);
    pHandOver->nLen = nLen;
    pHandOver->bFronted = pFronted != nullptr;
    if (pFronted)
        pHandOver->front = {pFronted->bPeer, pFronted->peer};
    pHandOver->fd = sock.Release();
    {
        MutexGuard lock(&pRemote->mutex);
        ListAppend(&pRemote->handOvers, pHandOver);
    }
    TaskSchedule(&g_server.scheduler, OnHandOver, 0, fd, nullptr);
    return 1;
}

// Proxy thread.
static int IsFront(void *pContext, const NetAddr *pAddr)
{
    auto *pRemote = static_cast<RemoteServices *>(pContext);
    MutexGuard lock(&pRemote->mutex);
    return AddrListHas(&pRemote->fronts, pAddr);
}

static int ReadHeader(const uint8_t *pData, size_t nBytes, HttpFronted *pOut)
{
    static_assert(kHttpHeaderMost == kProxyHeaderMost, "a whole header fits");
    ProxyHeader header;
    ProxyResult eResult = ProxyHeaderParse(pData, nBytes, &header);
    *pOut = {header.nBytes, header.bPeer, header.peer};
    return eResult == ProxyResult::Done ? 1 : eResult == ProxyResult::More ? 0 : -1;
}

void RemoteServicesFollowSettings()
{
    if (!g_pRemote)
        return;
    MutexGuard lock(&g_pRemote->mutex);
    g_pRemote->fronts = g_server.proxyFrom;
}

// Notes how a listener of that port went, with errno when it was not opened. Returns whether it was.
static int Noted(const char *szName, int nPort, int bOpen)
{
    int nErrno = errno;
    char szAddress[80];
    TextBuf address{szAddress, sizeof(szAddress)};
    TextAdd(&address, SettingsListenIpv6(&g_settings) ? "[%s]:%d" : "%s:%d", g_settings.szListenIp, nPort);
    ListenerNote(szName, szAddress, bOpen ? 0 : nErrno ? nErrno : EADDRNOTAVAIL);
    return bOpen;
}

static int StartProxy(RemoteServices *pRemote)
{
    HttpProxySettings settings;
    settings.szListenIp = g_settings.szListenIp;
    settings.bIpv6 = SettingsListenIpv6(&g_settings);
    settings.nListenPort = static_cast<int>(g_settings.nHttpProxyListenPort);
    settings.szTargetIp = g_settings.szHttpProxyTargetIp;
    settings.nTargetPort = static_cast<int>(g_settings.nHttpProxyTargetPort);
    settings.nMaxRelays = g_settings.nMaxWebRelays;
    settings.pfnHandOver = AcceptTunnel;
    settings.pContext = pRemote;
    settings.fronts = {IsFront, ReadHeader};
    settings.bFast = g_settings.bFastWebPort;
    errno = 0;
    return Noted("web", settings.nListenPort, HttpProxyStart(&pRemote->proxy, &settings));
}

static void Register(RemoteServices *pRemote)
{
    int nPort = static_cast<int>(g_settings.nZupoPort);
    if (strlen(g_settings.szDeviceGuid) <= kShortGuid)
        print("Not registered: DeviceGuid has no more than %d characters.\r\n", static_cast<int>(kShortGuid));
    else if (ZupoRegisterCreate(&pRemote->unet, g_settings.szZupoServer, nPort, g_settings.szConfigPath))
        print("ZupoRegisterCreate(Server: %s:%d)\r\n", g_settings.szZupoServer, nPort);
    else
        print("Not registered: %s:%d is no server.\r\n", g_settings.szZupoServer, nPort);
}

static int StartRelay(RemoteServices *pRemote)
{
    UnetSettings settings;
    NetAddr bindTo;
    int bKnown = SockSetAddrEx(&bindTo, g_settings.szListenIp, static_cast<int>(g_settings.nListenPort),
                               SettingsListenIpv6(&g_settings));
    // the relay's library has IPv4 alone: on "::" it is there as on 0.0.0.0, on another IPv6 address nowhere
    if (!bKnown || (AddrIsIpv6(&bindTo) && !IN6_IS_ADDR_UNSPECIFIED(&bindTo.in6.sin6_addr))) {
        print("Unet: ListenIp=%s is no address that is known.\r\n", g_settings.szListenIp);
        errno = 0;
        return Noted("relay", static_cast<int>(g_settings.nUnetPort), 0);
    }
    settings.nBindIp = SockGetIp(&bindTo);
    settings.nPort = static_cast<int>(g_settings.nUnetPort);
    settings.nRtspPort = static_cast<int>(g_settings.nListenPort);
    settings.nPerAddress = g_settings.nMaxRelayPeersPerAddress;
    settings.pfnGetAddress = NetGetAddress;
    settings.szCfgPath = g_settings.szConfigPath;
    errno = 0;
    if (!Noted("relay", settings.nPort, UnetStart(&pRemote->unet, &settings)))
        return 0;
    if (g_settings.bZupo)
        Register(pRemote);
    return 1;
}

int RemoteServicesStart()
{
    if (!g_settings.bHttpProxy && !g_settings.bUnet && !g_settings.bZupo)
        return 1;
    g_pRemote = new (std::nothrow) RemoteServices;
    if (!g_pRemote)
        return 0;
    InitHandOvers(&g_pRemote->handOvers);
    RemoteServicesFollowSettings();
    if (g_settings.bHttpProxy && !StartProxy(g_pRemote))
        return 0;
    return (!g_settings.bUnet && !g_settings.bZupo) || StartRelay(g_pRemote);
}

RelayFacts RemoteServicesRelay()
{
    if (!g_pRemote || !g_pRemote->unet.nPort)
        return {};
    return {1, g_pRemote->unet.bRegistered, g_pRemote->unet.nPeers};
}

void RemoteServicesStop()
{
    if (!g_pRemote)
        return;
    HttpProxyStop(&g_pRemote->proxy);
    UnetStop(&g_pRemote->unet);
}

void RemoteServicesFree()
{
    if (!g_pRemote)
        return;
    ListDestroy(&g_pRemote->handOvers);
    pthread_mutex_destroy(&g_pRemote->mutex);
    delete g_pRemote;
    g_pRemote = nullptr;
}

}  // namespace orx
