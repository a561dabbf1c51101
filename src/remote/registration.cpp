#include "remote/registration.h"

#include <arpa/inet.h>

#include <utility>

#include "base/assertion.h"
#include "base/console.h"
#include "base/eventlog.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "remote/hostlookup.h"
#include "runtime/clock.h"

namespace orx {

// all in seconds
constexpr int32_t kRetryPeriod = 30;  // between attempts: a box without a network asks the resolver so often
constexpr int32_t kRefusedPeriod = 60;    // a server that said no is left alone for longer
constexpr int32_t kHeartbeatPeriod = 10;  // routers commonly forget an idle UDP path after 30

constexpr char kDefaultInterface[] = "eth0";  // the wired port, which every box has

void RegistrationInit(Registration *pReg, UnetHost *pHost, int nRtspPort, InterfaceAddressProc pfnGetAddress,
                      const char *szCfgPath)
{
    pReg->pHost = pHost;
    pReg->nRtspPort = nRtspPort;
    pReg->pfnGetAddress = pfnGetAddress;
    TextCopy(pReg->szCfgPath, sizeof(pReg->szCfgPath), szCfgPath);
    pReg->nPort = 0;
    pReg->pServerPeer = nullptr;
    pReg->pPunchingPeer = nullptr;
    pReg->bRegistered = 0;
    pReg->nLastTime = 0;
    pReg->device = {};
    pReg->nSeenIp = 0;
}

int RegistrationStart(Registration *pReg, const char *szServer, int nPort, const char *szCfgPath)
{
    if (pReg->nPort != 0 || nPort < 1 || nPort > 65535)
        return 0;
    if (!TextCopy(pReg->szServer, sizeof(pReg->szServer), szServer) || !pReg->szServer[0])
        return 0;
    if (szCfgPath && !TextCopy(pReg->szCfgPath, sizeof(pReg->szCfgPath), szCfgPath))
        return 0;
    pReg->nPort.store(nPort, std::memory_order_release);
    return 1;
}

void RegistrationFree(Registration *pReg)
{
    HostLookupFree(pReg->pLookup);
    pReg->pLookup = nullptr;
    pReg->nPort = 0;
}

// The address of the interface that carries the box's own network, host order; 0 when there is none.
static uint32_t PrivateIp(const Registration *pReg, const Profile *pProfile)
{
    char szInterface[32] = "";
    char szAddress[32] = "";
    if (ProfileGetInt("WIFI", "UseWirelessLan", 0, pProfile))
        ProfileGetStr("WIFI", "DevName", szInterface, sizeof(szInterface), "", pProfile);
    if (!szInterface[0])
        TextCopy(szInterface, sizeof(szInterface), kDefaultInterface);
    in_addr address{};
    if (!pReg->pfnGetAddress || pReg->pfnGetAddress(szInterface, szAddress, sizeof(szAddress)) != 0 ||
        inet_pton(AF_INET, szAddress, &address) != 1)
        return 0;
    return ntohl(address.s_addr);
}

// Brings the device information up to date; what a configuration that cannot be read would say stays as it
// was.
static void GetDeviceInfo(Registration *pReg)
{
    Profile *pProfile = ProfileInit(pReg->szCfgPath);
    if (!pProfile)
        return;
    DeviceInfo info;
    ProfileGetStr("MAIN", "DeviceGuid", info.szGuid, sizeof(info.szGuid), "", pProfile);
    info.nPrivateIp = PrivateIp(pReg, pProfile);
    info.nPort = static_cast<uint16_t>(pReg->nRtspPort);
    if (ProfileGetInt("UPNP", "UpnpEnable", 0, pProfile))
        info.nMappedPort = static_cast<uint16_t>(ProfileGetInt("UPNP", "MappedListenPort", 0, pProfile));
    ProfileFree(pProfile);
    const DeviceInfo before = std::exchange(pReg->device, info);
    if (before.nPrivateIp != info.nPrivateIp || before.nMappedPort != info.nMappedPort)
        print("GetDeviceInfo(private_ip=0x%x, port=%d, mappingport=%d)\r\n", info.nPrivateIp, info.nPort,
              info.nMappedPort);
}

static void Forget(Registration *pReg)
{
    pReg->bRegistered = 0;
    UnetResetPeer(pReg->pHost, std::exchange(pReg->pServerPeer, nullptr));
}

// Not each attempt: the first that fails, and a server that was there.
static void SayLost(Registration *pReg, const char *szReason)
{
    if (!pReg->bLostSaid)
        EventSay(EventLevel::Warn, "registration.lost",
                 {EventText("server", pReg->szServer), EventText("reason", szReason)});
    pReg->bLostSaid = 1;
}

// One connection attempt: the name is looked up first, which may take several calls.
static void TryConnect(Registration *pReg, int nPort)
{
    uint32_t nIp = 0;
    int nResult = pReg->pLookup ? HostLookupResult(pReg->pLookup, &nIp) : 0;
    if (nResult < 0)
        return;
    if (nResult == 0)
        SayLost(pReg, "its name cannot be resolved");
    HostLookupFree(std::exchange(pReg->pLookup, nullptr));
    if (nResult > 0)
        pReg->pServerPeer = UnetConnect(pReg->pHost, nIp, nPort);
}

void RegistrationTick(Registration *pReg)
{
    int nPort = pReg->nPort.load(std::memory_order_acquire);
    if (nPort == 0)
        return;
    uint32_t nNow = ClockUptime();
    int32_t nPassed = ClockDiff(nNow, pReg->nLastTime);
    if (!pReg->pServerPeer && !pReg->pLookup && nPassed >= kRetryPeriod) {
        pReg->nLastTime = nNow;
        pReg->pLookup = HostLookupStart(pReg->szServer);
    }
    if (pReg->pLookup)
        TryConnect(pReg, nPort);
    if (pReg->pServerPeer && pReg->bRegistered && nPassed >= kHeartbeatPeriod) {
        pReg->nLastTime = nNow;
        GetDeviceInfo(pReg);
        uint8_t packet[kZupoPacketSize];
        UnetSend(pReg->pHost, pReg->pServerPeer, packet, ZupoEncode(packet, ZUPO_HEARTBEAT, 0));
    }
}

void RegistrationConnected(Registration *pReg)
{
    pReg->bLostSaid = 0;
    EventSay(EventLevel::Info, "registration.begin", {EventText("server", pReg->szServer)});
    GetDeviceInfo(pReg);
    uint8_t packet[kZupoPacketSize];
    UnetSend(pReg->pHost, pReg->pServerPeer, packet, ZupoEncodeRegister(packet, &pReg->device));
}

static void OnRegisterReply(Registration *pReg, const ZUPO_PACKET_HEAD *pHead, const ZupoAddress *pSeen)
{
    pReg->nSeenIp = pSeen->nIp;
    if (pHead->nResult == kZupoAccepted) {
        if (!pReg->bRegistered)
            EventSay(EventLevel::Info, "registration.done", {EventText("server", pReg->szServer)});
        pReg->bRegistered = 1;
        return;
    }
    Forget(pReg);
    EventSay(EventLevel::Warn, "registration.refused",
             {EventText("server", pReg->szServer), EventNumber("result", pHead->nResult),
              EventNumber("retry_seconds", kRefusedPeriod)});
    pReg->nLastTime = ClockUptime() + (kRefusedPeriod - kRetryPeriod);
}

static void StopPunching(Registration *pReg)
{
    UnetResetPeer(pReg->pHost, std::exchange(pReg->pPunchingPeer, nullptr));
}

static void OnPunch(Registration *pReg, const ZupoAddress *pTarget)
{
    StopPunching(pReg);
    if (pTarget->nIp && pTarget->nPort)
        pReg->pPunchingPeer = UnetConnect(pReg->pHost, pTarget->nIp, pTarget->nPort);
}

// Returns 1, or 0 for a packet that breaks the protocol.
static int OnZupoReceive(Registration *pReg, const uint8_t *pData, size_t dataLength)
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
        OnPunch(pReg, &address);
    else
        OnRegisterReply(pReg, &ack_head, &address);
    return 1;
}

void RegistrationReceive(Registration *pReg, const void *pData, size_t nLen)
{
    if (!OnZupoReceive(pReg, static_cast<const uint8_t *>(pData), nLen))
        Forget(pReg);
}

void RegistrationPeerGone(Registration *pReg, const _ENetPeer *pPeer)
{
    if (pPeer == pReg->pServerPeer) {
        SayLost(pReg, pReg->bRegistered ? "the connection went" : "it does not answer");
        Forget(pReg);
    } else if (pPeer == pReg->pPunchingPeer) {
        StopPunching(pReg);
    }
}

}  // namespace orx
