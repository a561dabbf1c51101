#include "server/front/fronts.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "base/console.h"
#include "base/eventlog.h"
#include "net/addrlist.h"
#include "net/proxyheader.h"
#include "remote/bridgeaddr.h"
#include "runtime/sockutil.h"
#include "server/core/registry.h"

namespace orx {

static constexpr uint32_t kHeaderWaitMs = 5000;
static constexpr unsigned kFronts = 64;    // addresses that may have connections that wait at the same time
static constexpr unsigned kWaiters = 128;  // of one of them

struct Front {
    NetAddr addr;
    unsigned nWaiters = 0;  // 0: the place is free
};

static Front g_fronts[kFronts];
static void (*g_pfnNamed)(Port *pPort) = nullptr;

void FrontsInit(void (*pfnNamed)(Port *pPort))
{
    g_pfnNamed = pfnNamed;
    for (Front &front : g_fronts)
        front = Front();
}

int FrontIs(int fd)
{
    NetAddr addr;
    return g_server.proxyFrom.bGiven && SockGetPeerName(fd, &addr) == 0 &&
           !IsBridgeAddress(SockGetIp(&addr)) && AddrListHas(&g_server.proxyFrom, &addr);
}

// The entry of an address, with bNew a free one where it has none; null when there is none.
static Front *FindFront(const NetAddr *pAddr, int bNew)
{
    Front *pFree = nullptr;
    for (Front &front : g_fronts) {
        if (front.nWaiters > 0 && AddrSameHost(&front.addr, pAddr))
            return &front;
        if (front.nWaiters == 0)
            pFree = &front;
    }
    if (!bNew || !pFree)
        return nullptr;
    pFree->addr = *pAddr;
    return pFree;
}

static void Tell(const NetAddr *pAddr, const char *szWhat)
{
    char szRemote[kAddrTextSize];
    SockAddrToString(pAddr, szRemote);
    print("The front %s %s. Its connection is closed.\r\n", szRemote, szWhat);
    EventSayBounded(EventLevel::Warn, "front.refused",
                    {EventText("peer", szRemote), EventText("reason", szWhat)});
}

// The port waits no longer.
static void Leave(Port *pPort)
{
    pPort->nFlags &= static_cast<uint16_t>(~PORT_AWAITS_PEER);
    if (Front *pFront = FindFront(&pPort->remote, 0))
        pFront->nWaiters--;
}

void FrontDrop(Port *pPort)
{
    Leave(pPort);
    PortClose(pPort);
}

static int OnWaitOver(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Port *pPort = PortOfTask(pTask);
    if (pPort && (pPort->nFlags & PORT_AWAITS_PEER)) {
        Tell(&pPort->remote, "sent no PROXY header for 5 seconds");
        FrontDrop(pPort);
    }
    return -1;
}

void FrontAwait(int fd)
{
    Port *pPort = CreateTcpPort(fd);
    if (!pPort)
        return;
    Front *pFront = FindFront(&pPort->remote, 1);
    if (!pFront || pFront->nWaiters >= kWaiters) {
        Tell(&pPort->remote, "has too many connections without a PROXY header");
        PortClose(pPort);
        return;
    }
    pFront->nWaiters++;
    pPort->nFlags |= PORT_AWAITS_PEER;
    SockSetNonBlock(fd, 1);
    PortSchedule(pPort, OnWaitOver, kHeaderWaitMs);
}

// Takes the header off the socket, which holds it.
static int TakeHeader(Port *pPort, const ProxyHeader *pHeader)
{
    uint8_t header[kProxyHeaderMost];
    ssize_t n = recv(pPort->fd, header, pHeader->nBytes, 0);
    if (n != static_cast<ssize_t>(pHeader->nBytes)) {
        FrontDrop(pPort);
        return -1;
    }
    Leave(pPort);
    PortNamePeer(pPort, pHeader->bPeer ? &pHeader->peer : nullptr);
    g_pfnNamed(pPort);
    return 0;
}

int FrontRead(Port *pPort)
{
    uint8_t header[kProxyHeaderMost];
    ProxyHeader found;
    ssize_t n;
    do
        n = recv(pPort->fd, header, sizeof(header), MSG_PEEK);
    while (n < 0 && errno == EINTR);
    if (n < 0 && errno == EAGAIN)
        return 0;
    ProxyResult eResult = n > 0 ? ProxyHeaderParse(header, static_cast<size_t>(n), &found) : ProxyResult::Bad;
    switch (eResult) {
        case ProxyResult::More:
            return 0;
        case ProxyResult::Done:
            return TakeHeader(pPort, &found);
        case ProxyResult::Bad:
            break;
    }
    Tell(&pPort->remote, n > 0 ? "sent what is no PROXY header" : "closed it without a PROXY header");
    FrontDrop(pPort);
    return -1;
}

}  // namespace orx
