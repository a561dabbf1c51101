#include "remote/unetproxy.h"

#include <enet/enet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/assertion.h"
#include "base/console.h"
#include "base/fdguard.h"
#include "remote/tcpio.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr int kConnectSeconds = 2;          // to this very process
constexpr int kSocketBuffer = 204800;       // a large key frame
constexpr size_t kReadSize = 8192;          // with the pause: 6.5 Mbit/s to a peer
constexpr uint32_t kOutgoingHigh = 204800;  // a large key frame; above it the connection is not read any more
constexpr uint32_t kOutgoingLow = 10239;    // ... until less than 10 KB are left, a read or so
constexpr uint32_t kRoundPauseMs = 10;
constexpr size_t kQueueBacklog = 256 * 1024;    // queued bytes that leave no time for pauses
constexpr size_t kQueueMax = 16 * 1024 * 1024;  // queued bytes that end the bridge
constexpr int32_t kDrainMs = 5000;              // for the last bytes to reach the peer
constexpr uint8_t kCloseRequest[] = {0, 0, 0, 'c'};

struct QueueLock {
    UnetProxy *pProxy;
    explicit QueueLock(UnetProxy *p) : pProxy(p) { pthread_mutex_lock(&p->mutex); }
    ~QueueLock() { pthread_mutex_unlock(&pProxy->mutex); }
    QueueLock(QueueLock &&) = delete;
    QueueLock &operator=(QueueLock &&) = delete;
};

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
    HostLock lock(pProxy->pUnetHost);
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
    HostLock lock(pProxy->pUnetHost);
    return pProxy->nOutgoing;
}

static size_t QueuedBytes(UnetProxy *pProxy)
{
    QueueLock lock(pProxy);
    return pProxy->nQueued;
}

// The oldest packet, which stays in the queue, or null. Only the bridge's thread takes packets out.
static const ENetPacket *QueueHead(UnetProxy *pProxy)
{
    QueueLock lock(pProxy);
    return static_cast<ENetPacket *>(ListFirst(&pProxy->queue, 0));
}

static void QueueDropHead(UnetProxy *pProxy, size_t nLen)
{
    QueueLock lock(pProxy);
    ListFirst(&pProxy->queue, LIST_DETACH | LIST_FREE);
    pProxy->nQueued -= nLen;
}

static int IsCloseRequest(const ENetPacket *pPacket)
{
    return pPacket->dataLength == sizeof(kCloseRequest) &&
           memcmp(pPacket->data, kCloseRequest, sizeof(kCloseRequest)) == 0;
}

// Carries one packet of the peer. Returns 1, or 0 when the bridge is to end.
static int CarryToServer(UnetProxy *pProxy)
{
    const ENetPacket *pPacket = QueueHead(pProxy);
    if (!pPacket)
        return 1;
    if (IsCloseRequest(pPacket)) {
        ThreadExit(&pProxy->thread);  // nobody waits for what is still on its way
        return 0;
    }
    if (!TcpSend(&pProxy->thread, pProxy->fd, pPacket->data, pPacket->dataLength))
        return 0;
    QueueDropHead(pProxy, pPacket->dataLength);
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

// Carries what the RTSP server has sent. Returns 1, or 0 when the bridge is to end.
static int CarryToPeer(UnetProxy *pProxy)
{
    if (TcpWait(pProxy->fd, POLLIN, QueuedBytes(pProxy) > 0 ? 0 : kTcpStepMs) == 0)
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
    HostLock lock(pProxy->pUnetHost);
    if (!pProxy->pPeer)
        return;
    pProxy->pPeer->data = nullptr;
    enet_peer_reset(pProxy->pPeer);
    pProxy->pPeer = nullptr;
}

static const void *PeerName(UnetProxy *pProxy)
{
    HostLock lock(pProxy->pUnetHost);
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

// A connection to the own RTSP port, or -1.
static int ConnectRtsp(const Thread *pCaller, int nRtspPort)
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
    sockaddr_in addr{};
    if (!SockSetAddr(&addr, "127.0.0.1", nRtspPort) ||
        !TcpConnect(pCaller, sock.fd, &addr, kConnectSeconds)) {
        print("Create UnetProxy object failed!\r\n");
        return -1;
    }
    return sock.Release();
}

static void FreePacket(void * /*pUser*/, void *pItem)
{
    enet_packet_destroy(static_cast<ENetPacket *>(pItem));
}

UnetProxy *CreateUnetProxy(Thread *pCaller, UnetHost *pUnetHost, ENetPeer *pPeer, int nRtspPort)
{
    FdGuard sock(ConnectRtsp(pCaller, nRtspPort));
    if (sock.fd < 0)
        return nullptr;
    auto *pProxy = new (std::nothrow) UnetProxy;
    if (!pProxy) {
        print("Create UnetProxy object failed!\r\n");
        return nullptr;
    }
    ListInit(&pProxy->queue, nullptr);
    ListDataProc(&pProxy->queue, FreePacket, nullptr);
    pProxy->pUnetHost = pUnetHost;
    pProxy->fd = sock.Release();
    pProxy->bActive = 1;
    {
        HostLock lock(pUnetHost);
        pProxy->pPeer = pPeer;
        pPeer->data = pProxy;
    }
    print("One UnetProxy object created.\r\n");
    if (!ThreadCreate(&pProxy->thread, UnetProxyEntry, pProxy)) {
        print("Create UnetProxy object failed!\r\n");
        UnetProxyFree(pProxy);
        return nullptr;
    }
    return pProxy;
}

// Appends the packet. Returns 1, or 0 when it does not fit: what follows would arrive with a gap.
static int QueueAppend(UnetProxy *pProxy, ENetPacket *pPacket)
{
    QueueLock lock(pProxy);
    if (pProxy->nQueued + pPacket->dataLength > kQueueMax || !ListAppend(&pProxy->queue, pPacket))
        return 0;
    pProxy->nQueued += pPacket->dataLength;
    return 1;
}

void UnetProxyReceive(UnetProxy *pProxy, ENetPacket *pPacket)
{
    if (pProxy->bActive && QueueAppend(pProxy, pPacket))
        return;
    enet_packet_destroy(pPacket);
    if (!pProxy->bActive)
        return;
    print("UnetProxy queue is full, closing it.\r\n");
    pProxy->bActive = 0;
    ThreadExit(&pProxy->thread);
}

void UnetProxyPeerGone(UnetProxy *pProxy)
{
    if (pProxy->pPeer)
        pProxy->pPeer->data = nullptr;
    pProxy->pPeer = nullptr;
    ThreadExit(&pProxy->thread);
}

int UnetProxyEnded(const UnetProxy *pProxy)
{
    return (pProxy->thread.nFlags.load(std::memory_order_acquire) & THREAD_ENDED) != 0;
}

void UnetProxyFree(UnetProxy *pProxy)
{
    ThreadJoin(&pProxy->thread);
    ResetPeer(pProxy);
    SockClose(pProxy->fd);
    ListDestroy(&pProxy->queue);
    pthread_mutex_destroy(&pProxy->mutex);
    delete pProxy;
}

}  // namespace orx
