#include "server/core/port.h"

#include <cerrno>
#include <new>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "base/assertion.h"
#include "base/console.h"
#include "remote/bridgeaddr.h"
#include "runtime/sockutil.h"
#include "server/core/registry.h"

namespace orx {

static Port *NewPort(int fd, uint8_t nType)
{
    static uint32_t nLastGeneration = 0;  // scheduler thread only
    auto *pPort = new (std::nothrow) Port;
    if (!pPort)
        return nullptr;
    if (++nLastGeneration == 0)
        nLastGeneration = 1;
    pPort->fd = fd;
    pPort->nType = nType;
    pPort->nGeneration = nLastGeneration;
    RequestInit(&pPort->request);
    return pPort;
}

// Frees a port that is in no map; its socket stays.
static void DeletePort(void *pRecord)
{
    auto *pPort = static_cast<Port *>(pRecord);
    RequestReset(&pPort->request);
    delete pPort;
}

static Port *RefuseTcp(Port *pPort)
{
    print("WARNING: CreateTcpPort() failed! The socket 0x%x is invalid.\r\n", pPort->fd);
    SockClose(pPort->fd);
    DeletePort(pPort);
    return nullptr;
}

Port *CreateTcpPort(int fd)
{
    Port *pPort = NewPort(fd, PORT_TCP);
    if (!pPort) {
        print("warning: NOT enough memory to CreateTcpPort()!\n");
        SockClose(fd);
        return nullptr;
    }
    if (SockGetPeerName(fd, &pPort->remote) != 0)
        return RefuseTcp(pPort);
    if (IsBridgeAddress(SockGetIp(&pPort->remote)))
        pPort->nFlags |= PORT_RELAYED;
    SockGetLocalName(fd, &pPort->local);
    SockSetOption(fd, IPPROTO_TCP, TCP_NODELAY,
                  1);  // a reply is on its way before a close resets the connection
    SockSetKeepAlive(fd);
    if (FindPort(fd) || !AvlInsert(&g_server.portMap, fd, pPort))
        return RefuseTcp(pPort);
    if (!MonitorAdd(&g_server.monitor, fd, MONITOR_READ | MONITOR_CLOSE, pPort->nGeneration))
        print("warning: can't monitor event\n");
    return pPort;
}

void PortNamePeer(Port *pPort, const NetAddr *pPeer)
{
    if (pPeer)
        pPort->remote = *pPeer;
    pPort->nFlags |= PORT_FRONTED;
    if (IsBridgeAddress(SockGetIp(&pPort->remote)))
        pPort->nFlags |= PORT_RELAYED;
}

// Closes the socket and frees the record of a UDP port that could not be made.
static Port *RefuseUdp(Port *pPort)
{
    SockClose(pPort->fd);
    DeletePort(pPort);
    return nullptr;
}

Port *CreateUdpPort(const NetAddr *pLocal, int nLocalPort, const NetAddr *pRemote, int nRemotePort)
{
    ORX_ASSERT(nLocalPort && nRemotePort, "nLocalPort && nRemotePort");
    Port *pPort = NewPort(-1, PORT_UDP);
    if (!pPort) {
        print("warning: NOT enough memory to CreateUdpPort()!\n");
        return nullptr;
    }
    pPort->local = *pLocal;
    pPort->remote = *pRemote;
    AddrSetPort(&pPort->local, nLocalPort);
    AddrSetPort(&pPort->remote, nRemotePort);
    pPort->fd = SockBindUdp(&pPort->local);
    if (pPort->fd < 0)
        return RefuseUdp(pPort);
    if ((nLocalPort & 1) == 0)
        SockSetOption(pPort->fd, SOL_SOCKET, SO_SNDBUF, kSendBufferBytes);
    // large datagrams pass narrow links in fragments, also where nobody tells how narrow they are
    SockSetOption(pPort->fd, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT);
    if (AddrIsIpv6(&pPort->local))
        SockSetOption(pPort->fd, IPPROTO_IPV6, IPV6_MTU_DISCOVER, IPV6_PMTUDISC_DONT);
    if (FindPort(pPort->fd) || !AvlInsert(&g_server.portMap, pPort->fd, pPort))
        return RefuseUdp(pPort);
    if (!MonitorAdd(&g_server.monitor, pPort->fd, MONITOR_READ, pPort->nGeneration)) {
        print("warning: can't monitor event\n");
        AvlDelete(&g_server.portMap, pPort->fd);
        return nullptr;
    }
    print("CreateUdpPort(local=%d, remote=%d)\r\n", nLocalPort, nRemotePort);
    return pPort;
}

void PortAim(Port *pPort, const NetAddr *pTo)
{
    pPort->remote = *pTo;
    PortDisconnect(pPort);
}

void PortConnect(Port *pPort)
{
    if (!(pPort->nFlags & (PORT_AIMED | PORT_BOUNCED)) &&
        connect(pPort->fd, &pPort->remote.any, AddrSize(&pPort->remote)) == 0)
        pPort->nFlags |= PORT_AIMED;
}

int PortDisconnect(Port *pPort)
{
    if (!(pPort->nFlags & PORT_AIMED))
        return 0;
    pPort->nFlags &= static_cast<uint16_t>(~PORT_AIMED);
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    (void)connect(pPort->fd, &nobody, sizeof(nobody));
    (void)SockTakeError(pPort->fd);  // of what was sent to that peer
    return 1;
}

int PortBounce(Port *pPort)
{
    if (!PortDisconnect(pPort))
        return 0;
    pPort->nFlags |= PORT_BOUNCED;
    return 1;
}

Port *FindPort(int fd)
{
    return static_cast<Port *>(AvlValue(&g_server.portMap, fd));
}

Port *FindPortAlive(int fd, uint32_t nGeneration)
{
    Port *pPort = FindPort(fd);
    return pPort && pPort->nGeneration == nGeneration ? pPort : nullptr;
}

void PortSchedule(const Port *pPort, TaskProc pfnRun, uint32_t nDelayMs)
{
    TaskSchedule(&g_server.scheduler, pfnRun, nDelayMs, pPort->fd,
                 reinterpret_cast<void *>(static_cast<uintptr_t>(pPort->nGeneration)));
}

Port *PortOfTask(const Task *pTask)
{
    return FindPortAlive(pTask->nParam,
                         static_cast<uint32_t>(reinterpret_cast<uintptr_t>(TaskArgument(pTask))));
}

void PortPostEvent(const Port *pPort, uint32_t nEvent, uint32_t nDelayMs)
{
    g_server.events.pfnPost(pPort->fd, pPort->nGeneration, nEvent, nDelayMs);
}

void PortReadLater(Port *pPort)
{
    if (pPort->nFlags & PORT_MORE_WAITS)
        return;
    pPort->nFlags |= PORT_MORE_WAITS;
    PortPostEvent(pPort, EVENT_MORE_INPUT, 1);  // not 0, which would go in front of everybody
}

int PortReadNow(const Port *pPort)
{
    return g_server.events.pfnRead(pPort->fd);
}

void PortClose(Port *pPort)
{
    if (pPort)
        AvlDelete(&g_server.portMap, pPort->fd);
}

int OnFreePort(AvlNode *pNode)
{
    auto *pPort = static_cast<Port *>(pNode->value);
    print("OnFreePort(fd=0x%x)\r\n", pPort->fd);
    if (pPort->fd == -1) {
        print("Invalid port socket fd=0x%x!\r\n", pPort->fd);
    } else if (pPort->nType) {
        MonitorRemove(&g_server.monitor, pPort->fd);
        SockClose(pPort->fd);
    }
    Retire(&pPort->retired, pPort, DeletePort);
    return 0;
}

}  // namespace orx
