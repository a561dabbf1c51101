#include "remote/unethost.h"

#include <arpa/inet.h>
#include <enet/enet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/random.h>

#include <utility>

#include "base/console.h"
#include "runtime/mutexguard.h"
#include "runtime/sockutil.h"

namespace orx {

constexpr size_t kPeers = 32;    // remote players at a time, and those below
constexpr size_t kOwnPeers = 2;  // the rendezvous server and a punched peer: strangers never take their slots
constexpr size_t kChannels = 1;  // a bridge carries one stream of bytes
constexpr int kWaitMs = 100;     // the library's own timers (resending, dead peers) are looked at so often
constexpr size_t kPacketMax = 4 * 1024 * 1024;  // of a peer; the library would let it announce 32 MB

// Returns the host, or null.
static ENetHost *MakeHost(uint32_t nBindIp, int nPort)
{
    ENetAddress address{htonl(nBindIp), static_cast<uint16_t>(nPort)};
    ENetHost *pHost = enet_host_create(&address, kPeers, kChannels, 0, 0);
    if (!pHost)
        return nullptr;
    // The library numbers connections from a seed of the time in seconds. A party that dials us while we
    // punch towards it must not come with the number of our own connection: it would pass for a repetition.
    getrandom(&pHost->randomSeed, sizeof(pHost->randomSeed), GRND_NONBLOCK);
    pHost->maximumPacketSize = kPacketMax;
    pHost->maximumWaitingData = kPacketMax;
    return pHost;
}

int UnetHostCreate(UnetHost *pHost, uint32_t nBindIp, int nPort, uint32_t nPerAddress)
{
    if (enet_initialize() != 0) {
        print("An error occurred while initializing ENet!\r\n");
        return 0;
    }
    pHost->pHost = MakeHost(nBindIp, nPort);
    pHost->fdWake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (!pHost->pHost || pHost->fdWake < 0 ||
        !UnetGateInit(&pHost->gate, pHost->pHost, kOwnPeers, nPerAddress)) {
        int nError = SockLastError();
        print("An error occurred while trying to create an ENet server host!\r\n");
        print("Unet: port %d at 0x%08x cannot be had, err=%d.\r\n", nPort, nBindIp, nError);
        UnetHostFree(pHost);
        return 0;
    }
    NetAddr local;
    SockGetLocalName(pHost->pHost->socket, &local);
    return SockGetPort(&local);
}

void UnetHostFree(UnetHost *pHost)
{
    if (pHost->pHost)
        enet_host_destroy(pHost->pHost);
    pHost->pHost = nullptr;
    UnetGateFree(&pHost->gate);
    SockClose(std::exchange(pHost->fdWake, -1));
    enet_deinitialize();
}

void UnetHostWait(const UnetHost *pHost, int bSocketFailed)
{
    pollfd polls[2] = {{pHost->fdWake, POLLIN, 0}, {pHost->pHost->socket, POLLIN, 0}};
    // a socket that cannot send may well be readable all the time
    int nReady = bSocketFailed ? poll(polls, 1, kWaitMs / 10) : poll(polls, 2, kWaitMs);
    eventfd_t nCount = 0;
    if (nReady > 0 && polls[0].revents)
        eventfd_read(pHost->fdWake, &nCount);
}

void UnetHostWake(const UnetHost *pHost)
{
    eventfd_write(pHost->fdWake, 1);
}

ENetPeer *UnetConnect(UnetHost *pHost, uint32_t nIp, int nPort)
{
    ENetAddress address{};
    address.host = htonl(nIp);
    address.port = static_cast<uint16_t>(nPort);
    MutexGuard lock(&pHost->mutex);
    ENetPeer *pPeer = enet_host_connect(pHost->pHost, &address, kChannels, 0);
    UnetGateOwn(&pHost->gate, pPeer);
    if (pPeer)
        pPeer->data = nullptr;
    // at once, so that a path is opened even if another request replaces this one a moment later
    enet_host_flush(pHost->pHost);
    return pPeer;
}

int UnetSend(UnetHost *pHost, ENetPeer *pPeer, const void *pData, size_t nLen)
{
    ENetPacket *pPacket = enet_packet_create(pData, nLen, ENET_PACKET_FLAG_RELIABLE);
    if (!pPacket)
        return 0;
    MutexGuard lock(&pHost->mutex);
    if (enet_peer_send(pPeer, 0, pPacket) != 0) {
        enet_packet_destroy(pPacket);
        return 0;
    }
    enet_host_flush(pHost->pHost);
    return 1;
}

void UnetResetPeer(UnetHost *pHost, ENetPeer *pPeer)
{
    MutexGuard lock(&pHost->mutex);
    if (!pPeer)
        return;
    pPeer->data = nullptr;
    enet_peer_reset(pPeer);
}

}  // namespace orx
