#include "link.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/fdguard.h"
#include "remote/zupo.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr size_t kPeers = 8;  // the rendezvous server, the box, and the box's punches
constexpr size_t kReadSize = 8192;
constexpr size_t kOutgoingHigh = 204800;  // reading the local side stops above, and goes on below the other
constexpr size_t kOutgoingLow = 10240;
constexpr size_t kLocalHigh = 1024 * 1024;  // the host is paused above, and goes on below the other
constexpr size_t kLocalLow = 256 * 1024;
constexpr size_t kLocalMax = 64 * 1024 * 1024;
constexpr uint32_t kPausedServiceMs = 2000;  // the box takes a silence of 5 seconds for a death
constexpr uint32_t kAskAgainMs = 3000;
constexpr uint32_t kFinishMs = 3000;  // for the last bytes, in either direction
constexpr char kCloseRequest[] = {0, 0, 0, 'c'};

static int IsPast(uint32_t nTime)
{
    return ClockDiff(ClockMs(), nTime) >= 0;
}

static void SetState(Link *pLink, LinkState state, uint32_t nMs)
{
    pLink->state = state;
    pLink->nDeadline = ClockMs() + nMs;
}

static void Fail(Link *pLink, const char *szWhy)
{
    pLink->state = LinkState::Dead;
    pLink->szFailure = szWhy;
}

static ENetPeer *Dial(Link *pLink, in_addr ip, uint16_t nPort)
{
    ENetAddress address{ip.s_addr, nPort};
    return enet_host_connect(pLink->pHost, &address, 1, 0);
}

static void DialBox(Link *pLink, in_addr ip, uint16_t nPort)
{
    pLink->pBox = Dial(pLink, ip, nPort);
    pLink->state = LinkState::Connecting;
}

static void OnPacketDone(ENetPacket *pPacket)
{
    static_cast<Link *>(pPacket->userData)->nOutgoing -= pPacket->dataLength;
}

static void SendToBox(Link *pLink, const char *pData, size_t nLen)
{
    ENetPacket *pPacket = enet_packet_create(pData, nLen, ENET_PACKET_FLAG_RELIABLE);
    if (!pPacket)
        return;
    pPacket->userData = pLink;
    pPacket->freeCallback = OnPacketDone;
    pLink->nOutgoing += nLen;
    if (enet_peer_send(pLink->pBox, 0, pPacket) != 0)
        enet_packet_destroy(pPacket);
}

// As SendToBox, but never by chance what the box takes for a close request.
static void SendData(Link *pLink, const char *pData, size_t nLen)
{
    size_t nFirst = 0;
    if (nLen == sizeof(kCloseRequest) && memcmp(pData, kCloseRequest, nLen) == 0)
        nFirst = nLen / 2;
    if (nFirst > 0)
        SendToBox(pLink, pData, nFirst);
    SendToBox(pLink, pData + nFirst, nLen - nFirst);
}

static void Ask(Link *pLink)
{
    uint8_t packet[kZupoPacketSize];
    size_t nLen = ZupoEncodeFind(packet, pLink->pTarget->identity.c_str());
    ENetPacket *pPacket = enet_packet_create(packet, nLen, ENET_PACKET_FLAG_RELIABLE);
    if (pPacket && enet_peer_send(pLink->pServer, 0, pPacket) != 0)
        enet_packet_destroy(pPacket);
    pLink->nNextAsk = ClockMs() + kAskAgainMs;
}

static void OnAnswer(Link *pLink, const uint8_t *pData, size_t nLen)
{
    ZUPO_PACKET_HEAD head;
    ZupoAddress address;
    if (!ZupoHeadDecode(&head, pData, nLen) || head.nCmd != ZUPO_FIND_REPLY ||
        pLink->state != LinkState::Asking)
        return;  // an answer to asking again is only of use to the box
    if (head.nResult == kZupoUnknown)
        Fail(pLink, "no box of that identity is registered");
    else if (head.nResult != kZupoAccepted)
        Fail(pLink, "the rendezvous server refuses");
    else if (!ZupoAddressDecode(&address, pData + sizeof(head), nLen - sizeof(head)))
        Fail(pLink, "the rendezvous server's answer is too short");
    else
        DialBox(pLink, in_addr{htonl(address.nIp)}, address.nPort);
}

static void OnConnect(Link *pLink, const ENetPeer *pPeer)
{
    if (pPeer == pLink->pServer)
        Ask(pLink);
    // anybody else is the box's punch: it has done its work by arriving
    if (pPeer != pLink->pBox)
        return;
    pLink->bReached = 1;
    pLink->state = LinkState::Open;
    if (pLink->pServer)
        enet_peer_disconnect(std::exchange(pLink->pServer, nullptr), 0);
    if (pLink->fd < 0)
        LinkClose(pLink);
}

static void OnDisconnect(Link *pLink, const ENetPeer *pPeer)
{
    if (pPeer == pLink->pServer) {
        pLink->pServer = nullptr;
        if (pLink->state == LinkState::Asking)
            Fail(pLink, "the rendezvous server cannot be reached");
    }
    if (pPeer != pLink->pBox)
        return;
    pLink->pBox = nullptr;
    if (pLink->state == LinkState::Connecting)
        Fail(pLink, "the box does not answer");
    else if (pLink->state == LinkState::Open)
        SetState(pLink, LinkState::Draining, kFinishMs);
}

static void OnReceive(Link *pLink, const ENetPeer *pPeer, const ENetPacket *pPacket)
{
    if (pPeer == pLink->pServer)
        OnAnswer(pLink, pPacket->data, pPacket->dataLength);
    if (pPeer == pLink->pBox && pLink->state == LinkState::Open)
        pLink->toLocal.append(reinterpret_cast<const char *>(pPacket->data), pPacket->dataLength);
}

static void ServiceHost(Link *pLink)
{
    ENetEvent event{};
    size_t nEnough = pLink->toLocal.size() + kLocalLow;  // a fast box could keep this loop going
    while (pLink->state != LinkState::Dead && pLink->toLocal.size() < nEnough &&
           enet_host_service(pLink->pHost, &event, 0) > 0) {
        if (event.type == ENET_EVENT_TYPE_CONNECT)
            OnConnect(pLink, event.peer);
        else if (event.type == ENET_EVENT_TYPE_DISCONNECT)
            OnDisconnect(pLink, event.peer);
        else
            OnReceive(pLink, event.peer, event.packet);
        if (event.packet)
            enet_packet_destroy(event.packet);
    }
    pLink->nNextService = ClockMs() + kPausedServiceMs;
}

// While the local side takes too little, the host is looked at only as often as keeps the box from giving up;
// what it does not acknowledge stalls the box's end of this link.
static void StepHost(Link *pLink)
{
    pLink->bPaused = pLink->toLocal.size() > (pLink->bPaused ? kLocalLow : kLocalHigh);
    if (!pLink->bPaused || IsPast(pLink->nNextService))
        ServiceHost(pLink);
    if (pLink->toLocal.size() > kLocalMax)
        Fail(pLink, "the local side does not read");
}

static void WriteLocal(Link *pLink)
{
    size_t nSent = 0;
    while (nSent < pLink->toLocal.size()) {
        ssize_t n =
            send(pLink->fd, pLink->toLocal.data() + nSent, pLink->toLocal.size() - nSent, MSG_NOSIGNAL);
        if (n <= 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                LinkClose(pLink);
            break;
        }
        nSent += static_cast<size_t>(n);
    }
    pLink->toLocal.erase(0, nSent);
}

static void ReadLocal(Link *pLink)
{
    while (pLink->state == LinkState::Open) {
        pLink->bHeldBack = pLink->nOutgoing > (pLink->bHeldBack ? kOutgoingLow : kOutgoingHigh);
        if (pLink->bHeldBack)
            return;
        char buffer[kReadSize];
        ssize_t n = recv(pLink->fd, buffer, sizeof(buffer), 0);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            return;
        if (n <= 0)
            LinkClose(pLink);
        else
            SendData(pLink, buffer, static_cast<size_t>(n));
    }
}

// What happens by the clock while the box is being reached.
static void StepSearch(Link *pLink)
{
    if (pLink->state != LinkState::Asking && pLink->state != LinkState::Connecting)
        return;
    if (IsPast(pLink->nDeadline))
        Fail(pLink, pLink->state == LinkState::Asking ? "the rendezvous server does not answer"
                                                      : "the box does not answer");
    else if (pLink->state == LinkState::Connecting && pLink->pServer && IsPast(pLink->nNextAsk))
        Ask(pLink);  // the box punches once more
}

static void StepFinish(Link *pLink)
{
    if (pLink->state == LinkState::Closing && (pLink->nOutgoing == 0 || IsPast(pLink->nDeadline)))
        pLink->state = LinkState::Dead;
    if (pLink->state == LinkState::Draining && (pLink->toLocal.empty() || IsPast(pLink->nDeadline)))
        pLink->state = LinkState::Dead;
}

void LinkStep(Link *pLink)
{
    if (pLink->state == LinkState::Dead)
        return;
    StepHost(pLink);
    StepSearch(pLink);
    if (pLink->fd >= 0 && (pLink->state == LinkState::Open || pLink->state == LinkState::Draining)) {
        WriteLocal(pLink);
        ReadLocal(pLink);
        enet_host_flush(pLink->pHost);
    }
    StepFinish(pLink);
}

short LinkLocalEvents(const Link *pLink)
{
    int nEvents = pLink->toLocal.empty() ? 0 : POLLOUT;
    if (pLink->state == LinkState::Open && !pLink->bHeldBack)
        nEvents |= POLLIN;
    return static_cast<short>(nEvents);
}

short LinkHostEvents(const Link *pLink)
{
    return pLink->bPaused ? 0 : POLLIN;
}

void LinkClose(Link *pLink)
{
    SockClose(std::exchange(pLink->fd, -1));
    pLink->toLocal.clear();
    if (pLink->state == LinkState::Open) {
        SendToBox(pLink, kCloseRequest, sizeof(kCloseRequest));
        enet_host_flush(pLink->pHost);
        SetState(pLink, LinkState::Closing, kFinishMs);
    } else if (pLink->state != LinkState::Closing) {
        pLink->state = LinkState::Dead;
    }
}

Link *LinkOpen(const LinkTarget *pTarget, int fd)
{
    FdGuard local(fd);
    auto *pLink = new (std::nothrow) Link;
    ENetAddress any{ENET_HOST_ANY, 0};
    if (!pLink || !(pLink->pHost = enet_host_create(&any, kPeers, 1, 0, 0))) {
        delete pLink;
        return nullptr;
    }
    // the box punches while we dial: should both number their connections alike, it would take ours for its
    // own
    getrandom(&pLink->pHost->randomSeed, sizeof(pLink->pHost->randomSeed), GRND_NONBLOCK);
    pLink->fd = local.Release();
    if (pLink->fd >= 0)
        SockSetNonBlock(pLink->fd, 1);
    pLink->pTarget = pTarget;
    SetState(pLink, LinkState::Asking, pTarget->nTimeoutMs);
    uint16_t nPort = ntohs(pTarget->address.in4.sin_port);
    if (pTarget->identity.empty())
        DialBox(pLink, pTarget->address.in4.sin_addr, nPort);
    else
        pLink->pServer = Dial(pLink, pTarget->address.in4.sin_addr, nPort);
    return pLink;
}

void LinkFree(Link *pLink)
{
    SockClose(pLink->fd);
    // the box's punches need not time out
    for (size_t i = 0; i < pLink->pHost->peerCount; i++)
        if (&pLink->pHost->peers[i] != pLink->pBox)
            enet_peer_disconnect_now(&pLink->pHost->peers[i], 0);
    enet_host_destroy(pLink->pHost);
    delete pLink;
}

}  // namespace orx
