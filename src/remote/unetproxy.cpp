#include "remote/unetproxy.h"

#include <arpa/inet.h>
#include <enet/enet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/assertion.h"
#include "base/console.h"
#include "base/fdguard.h"
#include "remote/bridgeaddr.h"
#include "remote/tcpio.h"
#include "runtime/clock.h"
#include "runtime/descriptors.h"
#include "runtime/mutexguard.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr int kConnectSeconds = 2;          // to this very process
constexpr int kSocketBuffer = 204800;       // a large key frame
constexpr size_t kReadSize = 8192;          // with the pause: 6.5 Mbit/s to a peer
constexpr uint32_t kOutgoingHigh = 204800;  // a large key frame; above it the connection is not read any more
constexpr uint32_t kOutgoingLow = 10239;    // ... until less than 10 KB are left, a read or so
constexpr uint32_t kRoundPauseMs = 10;
constexpr size_t kQueueBacklog = 256 * 1024;  // queued bytes that leave no time for pauses
constexpr size_t kCarryBytes = 64 * 1024;  // of the queue in a round, before the other direction has its turn
constexpr size_t kQueueMax = 16 * 1024 * 1024;  // queued bytes that end the bridge
// What a queued packet takes besides its bytes: its record, a node of the list, and the allocator's share of
// these three blocks.
constexpr size_t kPacketCost = sizeof(ENetPacket) + sizeof(ListNode) + 3 * 2 * sizeof(void *);
constexpr int kBridgeDescriptors = 3;  // the connection, its other end, the one that wakes the bridge
constexpr int32_t kDrainMs = 5000;     // for the last bytes to reach the peer
constexpr uint8_t kCloseRequest[] = {0, 0, 0, 'c'};

// The library lets go of a packet: it was acknowledged, or its peer is gone. Always under the host's mutex.
static void OnPacketDone(ENetPacket *pPacket)
{
    static_cast<UnetProxy *>(pPacket->userData)->nOutgoing -= static_cast<uint32_t>(pPacket->dataLength);
}

// Sends bytes to the peer as one reliable packet. Returns 1, or 0 when the peer is gone.
static int SendToPeer(UnetProxy *pProxy, const uint8_t *pData, size_t nLen)
{
    ENetPacket *pPacket = enet_packet_create(pData, nLen, ENET_PACKET_FLAG_RELIABLE);
    if (!pPacket)
        return 0;
    MutexGuard lock(&pProxy->pUnetHost->mutex);
    pPacket->userData = pProxy;
    pPacket->freeCallback = OnPacketDone;
    pProxy->nOutgoing += static_cast<uint32_t>(nLen);
    if (!pProxy->pPeer || enet_peer_send(pProxy->pPeer, 0, pPacket) != 0) {
        enet_packet_destroy(pPacket);
        return 0;
    }
    enet_host_flush(pProxy->pUnetHost->pHost);
    return 1;
}

static uint32_t OutgoingDataTotal(UnetProxy *pProxy)
{
    MutexGuard lock(&pProxy->pUnetHost->mutex);
    return pProxy->nOutgoing;
}

static size_t QueuedBytes(UnetProxy *pProxy)
{
    MutexGuard lock(&pProxy->mutex);
    return pProxy->nQueued;
}

// The oldest packet, which stays in the queue, or null. Only the bridge's thread takes packets out.
static const ENetPacket *QueueHead(UnetProxy *pProxy)
{
    MutexGuard lock(&pProxy->mutex);
    return static_cast<ENetPacket *>(ListFirst(&pProxy->queue, 0));
}

static size_t PacketCost(const ENetPacket *pPacket)
{
    return pPacket->dataLength + kPacketCost;
}

static void QueueDropHead(UnetProxy *pProxy, size_t nCost)
{
    MutexGuard lock(&pProxy->mutex);
    ListFirst(&pProxy->queue, LIST_DETACH | LIST_FREE);
    pProxy->nQueued -= nCost;
}

static int IsCloseRequest(const ENetPacket *pPacket)
{
    return pPacket->dataLength == sizeof(kCloseRequest) &&
           memcmp(pPacket->data, kCloseRequest, sizeof(kCloseRequest)) == 0;
}

// Carries what the peer has sent, up to kCarryBytes. Returns 1, or 0 when the bridge is to end.
static int CarryToServer(UnetProxy *pProxy)
{
    const TcpWaiter waiter{&pProxy->thread};
    const ENetPacket *pPacket;
    for (size_t nCarried = 0; nCarried < kCarryBytes && (pPacket = QueueHead(pProxy));) {
        if (IsCloseRequest(pPacket)) {
            ThreadExit(&pProxy->thread);  // nobody waits for what is still on its way
            return 0;
        }
        if (!TcpSend(&waiter, pProxy->fd, pPacket->data, pPacket->dataLength))
            return 0;
        size_t nCost = PacketCost(pPacket);
        nCarried += nCost;
        QueueDropHead(pProxy, nCost);
    }
    return 1;
}

// Ends a round. While much is queued nothing may pause: the peer has been told that all of it arrived, and
// goes on sending.
static void PauseRound(UnetProxy *pProxy)
{
    if (QueuedBytes(pProxy) < kQueueBacklog)
        ThreadPause(&pProxy->thread, kRoundPauseMs);
}

// Leaves the connection unread while a slow peer has too much to take; what the peer sends is carried on.
// Returns 1, or 0 when the bridge is to end.
static int HoldBack(UnetProxy *pProxy)
{
    uint32_t nTotal = OutgoingDataTotal(pProxy);
    if (nTotal <= kOutgoingHigh)
        return 1;
    print("Begin Sleep() due to OutgoingDataTotal=%u\r\n", nTotal);
    int bGoOn = 1;
    while (bGoOn && nTotal > kOutgoingLow && !ThreadStopping(&pProxy->thread)) {
        PauseRound(pProxy);
        bGoOn = CarryToServer(pProxy);
        nTotal = OutgoingDataTotal(pProxy);
    }
    print("End Sleep() due to OutgoingDataTotal=%u\r\n", nTotal);
    return bGoOn;
}

// Waits until the RTSP server has sent something, the peer has, or the bridge is to end. Returns 1 when it is
// the first of these.
static int WaitForServer(const UnetProxy *pProxy, int bQueued)
{
    pollfd polls[2] = {{pProxy->fd, POLLIN, 0}, {pProxy->fdWake, POLLIN, 0}};
    if (poll(polls, 2, bQueued ? 0 : -1) <= 0)
        return 0;
    eventfd_t nCount = 0;
    if (polls[1].revents)
        eventfd_read(pProxy->fdWake, &nCount);
    return polls[0].revents != 0;
}

// Carries what the RTSP server has sent. Returns 1, or 0 when the bridge is to end.
static int CarryToPeer(UnetProxy *pProxy)
{
    if (!WaitForServer(pProxy, QueuedBytes(pProxy) > 0))
        return 1;
    uint8_t buffer[kReadSize];
    ssize_t nRead = recv(pProxy->fd, buffer, sizeof(buffer), 0);
    if (nRead < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return 1;
    if (nRead <= 0) {
        print("CloseSocket due to iError=%d, e=%d\r\n", static_cast<int>(nRead), SockLastError());
        return 0;
    }
    if (!SendToPeer(pProxy, buffer, static_cast<size_t>(nRead)))
        return 0;
    return HoldBack(pProxy);
}

// Resetting the peer throws away what it has not acknowledged, so the last bytes of an RTSP server that has
// closed its connection get some time to arrive.
static void DrainOutgoing(UnetProxy *pProxy)
{
    uint32_t nStart = ClockMs();
    while (OutgoingDataTotal(pProxy) > 0 && ClockDiff(ClockMs(), nStart) < kDrainMs &&
           !ThreadStopping(&pProxy->thread))
        ThreadPause(&pProxy->thread, kRoundPauseMs);
}

// A slot of the host is used again, so it must not keep the name of this bridge.
static void ResetPeer(UnetProxy *pProxy)
{
    MutexGuard lock(&pProxy->pUnetHost->mutex);
    if (!pProxy->pPeer)
        return;
    pProxy->pPeer->data = nullptr;
    enet_peer_reset(pProxy->pPeer);
    pProxy->pPeer = nullptr;
}

static const void *PeerName(UnetProxy *pProxy)
{
    MutexGuard lock(&pProxy->pUnetHost->mutex);
    return pProxy->pPeer;
}

static void UnetProxyEntry(Thread *pThread)
{
    auto *pProxy = static_cast<UnetProxy *>(pThread->pArgument);
    const void *pName = PeerName(pProxy);
    print("Enter UnetProxyEntry(peer=0x%p, tid=0x%x)...\r\n", pName, static_cast<unsigned>(ThreadKernelId()));
    while (!ThreadStopping(pThread) && CarryToPeer(pProxy) && CarryToServer(pProxy))
        PauseRound(pProxy);
    pProxy->bActive = 0;
    DrainOutgoing(pProxy);
    print("Exit UnetProxyEntry(peer=0x%p)\r\n", pName);
    ResetPeer(pProxy);
    SockClose(std::exchange(pProxy->fd, -1));
}

// Binds to the address that tells the peer of a slot from the box itself and from other peers. Returns 1 or
// 0.
static int BindToSlot(int fd, uint32_t nSlot)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(BridgeAddress(nSlot));
    return bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0;
}

// A connection to the own RTSP port, or -1.
static int ConnectRtsp(const Thread *pCaller, const sockaddr_in *pRtsp, uint32_t nSlot)
{
    FdGuard sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.fd < 0) {
        print("can't create socket!");
        return -1;
    }
    SockSetOption(sock.fd, SOL_SOCKET, SO_SNDBUF, kSocketBuffer);
    SockSetOption(sock.fd, SOL_SOCKET, SO_RCVBUF, kSocketBuffer);
    int nOn = 1;
    int iError = setsockopt(sock.fd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    ORX_ASSERT(iError == 0, "iError == 0");
    if (!BindToSlot(sock.fd, nSlot) || !TcpConnect(pCaller, sock.fd, pRtsp, kConnectSeconds)) {
        print("Create UnetProxy object failed!\r\n");
        return -1;
    }
    return sock.Release();
}

static void FreePacket(void * /*pUser*/, void *pItem)
{
    enet_packet_destroy(static_cast<ENetPacket *>(pItem));
}

// The record with what it needs but a peer and a thread, or null.
static UnetProxy *NewProxy(UnetHost *pUnetHost)
{
    FdGuard wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    auto *pProxy = wake.fd >= 0 ? new (std::nothrow) UnetProxy : nullptr;
    if (!pProxy)
        return nullptr;
    ListInit(&pProxy->queue, nullptr);
    ListDataProc(&pProxy->queue, FreePacket, nullptr);
    pProxy->pUnetHost = pUnetHost;
    pProxy->fdWake = wake.Release();
    pProxy->bActive = 1;
    return pProxy;
}

UnetProxy *CreateUnetProxy(Thread *pCaller, UnetHost *pUnetHost, ENetPeer *pPeer, const sockaddr_in *pRtsp)
{
    if (!DescriptorsSpare(kBridgeDescriptors))
        return nullptr;
    BridgeNotePeer(pPeer->incomingPeerID, ntohl(pPeer->address.host));
    FdGuard sock(ConnectRtsp(pCaller, pRtsp, pPeer->incomingPeerID));
    if (sock.fd < 0)
        return nullptr;
    UnetProxy *pProxy = NewProxy(pUnetHost);
    if (!pProxy) {
        print("Create UnetProxy object failed!\r\n");
        return nullptr;
    }
    pProxy->fd = sock.Release();
    {
        MutexGuard lock(&pUnetHost->mutex);
        pProxy->pPeer = pPeer;
        pPeer->data = pProxy;
    }
    print("One UnetProxy object created.\r\n");
    if (!ThreadCreateSmall(&pProxy->thread, UnetProxyEntry, pProxy)) {
        print("Create UnetProxy object failed!\r\n");
        UnetProxyFree(pProxy);
        return nullptr;
    }
    return pProxy;
}

// Appends the packet. Returns 1, or 0 when it does not fit: what follows would arrive with a gap.
static int QueueAppend(UnetProxy *pProxy, ENetPacket *pPacket)
{
    MutexGuard lock(&pProxy->mutex);
    if (pProxy->nQueued + PacketCost(pPacket) > kQueueMax || !ListAppend(&pProxy->queue, pPacket))
        return 0;
    pProxy->nQueued += PacketCost(pPacket);
    return 1;
}

void UnetProxyReceive(UnetProxy *pProxy, ENetPacket *pPacket)
{
    if (pProxy->bActive && QueueAppend(pProxy, pPacket)) {
        eventfd_write(pProxy->fdWake, 1);
        return;
    }
    enet_packet_destroy(pPacket);
    if (!pProxy->bActive)
        return;
    print("UnetProxy queue is full, closing it.\r\n");
    pProxy->bActive = 0;
    UnetProxyStop(pProxy);
}

void UnetProxyPeerGone(UnetProxy *pProxy)
{
    if (pProxy->pPeer)
        pProxy->pPeer->data = nullptr;
    pProxy->pPeer = nullptr;
    UnetProxyStop(pProxy);
}

void UnetProxyStop(UnetProxy *pProxy)
{
    ThreadExit(&pProxy->thread);
    eventfd_write(pProxy->fdWake, 1);
}

int UnetProxyEnded(const UnetProxy *pProxy)
{
    return (pProxy->thread.nFlags.load(std::memory_order_acquire) & THREAD_ENDED) != 0;
}

void UnetProxyFree(UnetProxy *pProxy)
{
    UnetProxyStop(pProxy);
    ThreadJoin(&pProxy->thread);
    ResetPeer(pProxy);
    SockClose(pProxy->fd);
    SockClose(pProxy->fdWake);
    ListDestroy(&pProxy->queue);
    pthread_mutex_destroy(&pProxy->mutex);
    delete pProxy;
}

}  // namespace orx
