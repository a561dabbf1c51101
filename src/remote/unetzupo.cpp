#include "remote/unetzupo.h"

#include <arpa/inet.h>

#include <utility>

#include "base/assertion.h"
#include "base/console.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "remote/hostlookup.h"
#include "runtime/clock.h"

namespace orx {

// all in seconds
constexpr int32_t kRetryPeriod = 30;
constexpr int32_t kRefusedPeriod = 60;
constexpr int32_t kHeartbeatPeriod = 10;

constexpr char kDefaultInterface[] = "eth0";

void ZupoInit(Unet *pUnet)
{
    pUnet->nZupoPort = 0;
    pUnet->pServerPeer = nullptr;
    pUnet->pPunchingPeer = nullptr;
    pUnet->bRegistered = 0;
    pUnet->nLastTime = 0;
    pUnet->device = {};
    pUnet->nSeenIp = 0;
}

void ZupoFree(Unet *pUnet)
{
    HostLookupFree(pUnet->pLookup);
    pUnet->pLookup = nullptr;
    pUnet->nZupoPort = 0;
}

// The address of the interface that carries the box's own network, host order; 0 when there is none.
static uint32_t PrivateIp(const Unet *pUnet, const Profile *pProfile)
{
    char szInterface[32] = "";
    char szAddress[32] = "";
    if (ProfileGetInt("WIFI", "UseWirelessLan", 0, pProfile))
        ProfileGetStr("WIFI", "DevName", szInterface, sizeof(szInterface), "", pProfile);
    if (!szInterface[0])
        TextCopy(szInterface, sizeof(szInterface), kDefaultInterface);
    in_addr address{};
    if (!pUnet->pfnGetAddress || pUnet->pfnGetAddress(szInterface, szAddress, sizeof(szAddress)) != 0 ||
        inet_pton(AF_INET, szAddress, &address) != 1)
        return 0;
    return ntohl(address.s_addr);
}

// Brings the device information up to date; what a configuration that cannot be read would say stays as it
// was.
static void GetDeviceInfo(Unet *pUnet)
{
    Profile *pProfile = ProfileInit(pUnet->szCfgPath);
    if (!pProfile)
        return;
    DeviceInfo info;
    ProfileGetStr("MAIN", "DeviceGuid", info.szGuid, sizeof(info.szGuid), "", pProfile);
    info.nPrivateIp = PrivateIp(pUnet, pProfile);
    info.nPort = static_cast<uint16_t>(pUnet->nRtspPort);
    if (ProfileGetInt("UPNP", "UpnpEnable", 0, pProfile))
        info.nMappedPort = static_cast<uint16_t>(ProfileGetInt("UPNP", "MappedListenPort", 0, pProfile));
    ProfileFree(pProfile);
    const DeviceInfo before = std::exchange(pUnet->device, info);
    if (before.nPrivateIp != info.nPrivateIp || before.nMappedPort != info.nMappedPort)
        print("GetDeviceInfo(private_ip=0x%x, port=%d, mappingport=%d)\r\n", info.nPrivateIp, info.nPort,
              info.nMappedPort);
}

static void Forget(Unet *pUnet)
{
    pUnet->bRegistered = 0;
    UnetResetPeer(pUnet, std::exchange(pUnet->pServerPeer, nullptr));
}

// One connection attempt: the name is looked up first, which may take several calls.
static void TryConnect(Unet *pUnet, int nPort)
{
    uint32_t nIp = 0;
    int nResult = pUnet->pLookup ? HostLookupResult(pUnet->pLookup, &nIp) : 0;
    if (nResult < 0)
        return;
    HostLookupFree(std::exchange(pUnet->pLookup, nullptr));
    if (nResult > 0)
        pUnet->pServerPeer = UnetConnect(pUnet, nIp, nPort);
}

void ZupoTick(Unet *pUnet)
{
    int nPort = pUnet->nZupoPort.load(std::memory_order_acquire);
    if (nPort == 0)
        return;
    uint32_t nNow = ClockUptime();
    int32_t nPassed = ClockDiff(nNow, pUnet->nLastTime);
    if (!pUnet->pServerPeer && !pUnet->pLookup && nPassed >= kRetryPeriod) {
        pUnet->nLastTime = nNow;
        pUnet->pLookup = HostLookupStart(pUnet->szZupoServer);
    }
    if (pUnet->pLookup)
        TryConnect(pUnet, nPort);
    if (pUnet->pServerPeer && pUnet->bRegistered && nPassed >= kHeartbeatPeriod) {
        pUnet->nLastTime = nNow;
        GetDeviceInfo(pUnet);
        uint8_t packet[kZupoPacketSize];
        UnetSend(pUnet, pUnet->pServerPeer, packet, ZupoEncode(packet, ZUPO_HEARTBEAT, 0));
    }
}

void ZupoConnected(Unet *pUnet)
{
    GetDeviceInfo(pUnet);
    uint8_t packet[kZupoPacketSize];
    UnetSend(pUnet, pUnet->pServerPeer, packet, ZupoEncodeRegister(packet, &pUnet->device));
}

static void OnRegisterReply(Unet *pUnet, const ZUPO_PACKET_HEAD *pHead, const ZupoAddress *pSeen)
{
    pUnet->nSeenIp = pSeen->nIp;
    if (pHead->nResult == kZupoAccepted) {
        pUnet->bRegistered = 1;
        return;
    }
    Forget(pUnet);
    pUnet->nLastTime = ClockUptime() + (kRefusedPeriod - kRetryPeriod);
}

static void OnPunch(Unet *pUnet, const ZupoAddress *pTarget)
{
    UnetResetPeer(pUnet, std::exchange(pUnet->pPunchingPeer, nullptr));
    if (pTarget->nIp && pTarget->nPort)
        pUnet->pPunchingPeer = UnetConnect(pUnet, pTarget->nIp, pTarget->nPort);
}

// Returns 1, or 0 for a packet that breaks the protocol.
static int OnZupoReceive(Unet *pUnet, const uint8_t *pData, size_t dataLength)
{
    ZUPO_PACKET_HEAD ack_head;
    if (!ORX_PEER_ASSERT(dataLength >= sizeof(ZUPO_PACKET_HEAD), "dataLength >= (sizeof(ZUPO_PACKET_HEAD))"))
        return 0;
    ZupoHeadDecode(&ack_head, pData, dataLength);
    if (ack_head.nCmd != ZUPO_REGISTER_REPLY && ack_head.nCmd != ZUPO_PUNCH)
        return 1;
    ZupoAddress address;
    if (!ORX_PEER_ASSERT(ack_head.nDataLen == kZupoAddressSize, "ack_head.nDataLen==6"))
        return 0;
    int bWhole =
        ZupoAddressDecode(&address, pData + sizeof(ZUPO_PACKET_HEAD), dataLength - sizeof(ZUPO_PACKET_HEAD));
    if (!ORX_PEER_ASSERT(bWhole, "dataLength >= (sizeof(ZUPO_PACKET_HEAD))+ack_head.nDataLen"))
        return 0;
    if (ack_head.nCmd == ZUPO_PUNCH)
        OnPunch(pUnet, &address);
    else
        OnRegisterReply(pUnet, &ack_head, &address);
    return 1;
}

void ZupoReceive(Unet *pUnet, const void *pData, size_t nLen)
{
    if (!OnZupoReceive(pUnet, static_cast<const uint8_t *>(pData), nLen))
        Forget(pUnet);
}

void ZupoDisconnected(Unet *pUnet)
{
    Forget(pUnet);
}

}  // namespace orx
