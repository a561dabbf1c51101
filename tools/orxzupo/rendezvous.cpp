#include "rendezvous.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "runtime/clock.h"

namespace orx {

constexpr int32_t kBoxSilence = 60;     // a box sends a heartbeat every 10 seconds
constexpr int32_t kClientSilence = 30;  // a client asks at once, and again while it waits

__attribute__((format(printf, 2, 3))) static void Say(const Rendezvous *pServer, const char *szFormat, ...)
{
    if (pServer->bQuiet)
        return;
    va_list args;
    va_start(args, szFormat);
    vprintf(szFormat, args);  // NOLINT(clang-analyzer-valist.Uninitialized): set a line above
    va_end(args);
}

static std::string AddressText(const ZupoAddress &address)
{
    in_addr ip{htonl(address.nIp)};
    char szIp[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &ip, szIp, sizeof(szIp));
    return std::string(szIp) + ":" + std::to_string(address.nPort);
}

// The identity as it may be shown: what is not plain text comes from somebody who is up to something.
static std::string Shown(const char *szGuid)
{
    std::string text = szGuid;
    for (char &c : text)
        if (!isprint(static_cast<unsigned char>(c)))
            c = '?';
    return text;
}

static void Send(const Party *pParty, const uint8_t *pPacket, size_t nLen)
{
    ENetPacket *pCopy = enet_packet_create(pPacket, nLen, ENET_PACKET_FLAG_RELIABLE);
    if (pCopy && enet_peer_send(pParty->pPeer, 0, pCopy) != 0)
        enet_packet_destroy(pCopy);
}

// Takes the party out of the tables; its connection is the caller's business.
static void Forget(Rendezvous *pServer, ENetPeer *pPeer, const char *szWhy)
{
    auto found = pServer->parties.find(pPeer);
    if (found == pServer->parties.end())
        return;
    const char *szGuid = found->second.info.szGuid;
    auto box = pServer->boxes.find(szGuid);
    if (box != pServer->boxes.end() && box->second == pPeer) {
        Say(pServer, "box %s at %s %s\n", Shown(szGuid).c_str(), AddressText(found->second.seen).c_str(),
            szWhy);
        pServer->boxes.erase(box);
    }
    pServer->parties.erase(found);
}

static void Drop(Rendezvous *pServer, ENetPeer *pPeer, const char *szWhy)
{
    Forget(pServer, pPeer, szWhy);
    enet_peer_disconnect(pPeer, 0);
}

static int IsRefused(const Rendezvous *pServer, const Party *pParty, const char *szGuid)
{
    return !szGuid[0] || pServer->refusals.identities.count(szGuid) ||
           pServer->refusals.addresses.count(pParty->seen.nIp);
}

static void ReplyRegister(const Party *pParty, uint32_t nResult)
{
    uint8_t packet[kZupoPacketSize];
    Send(pParty, packet, ZupoEncodeAddress(packet, ZUPO_REGISTER_REPLY, nResult, &pParty->seen));
}

static void OnRegister(Rendezvous *pServer, Party *pParty, const DeviceInfo &info)
{
    if (IsRefused(pServer, pParty, info.szGuid)) {
        Say(pServer, "box %s at %s is refused\n", Shown(info.szGuid).c_str(),
            AddressText(pParty->seen).c_str());
        ReplyRegister(pParty, kZupoRefused);
        return;
    }
    // a box that was restarted comes back before its former connection has timed out
    auto former = pServer->boxes.find(info.szGuid);
    if (former != pServer->boxes.end() && former->second != pParty->pPeer)
        Drop(pServer, former->second, "is replaced");
    if (pParty->info.szGuid[0])
        pServer->boxes.erase(pParty->info.szGuid);  // it may come with another identity
    pParty->info = info;
    pParty->nSince = ClockUptime();
    pServer->boxes[info.szGuid] = pParty->pPeer;
    Say(pServer, "box %s at %s is registered\n", Shown(info.szGuid).c_str(),
        AddressText(pParty->seen).c_str());
    ReplyRegister(pParty, kZupoAccepted);
}

// Tells the client where the box is, and the box to open a path towards the client.
static void Introduce(Rendezvous *pServer, const Party *pClient, const Party *pBox)
{
    uint8_t packet[kZupoPacketSize];
    Send(pBox, packet, ZupoEncodeAddress(packet, ZUPO_PUNCH, 0, &pClient->seen));
    Send(pClient, packet, ZupoEncodeFound(packet, &pBox->seen, &pBox->info));
    Say(pServer, "client at %s is introduced to box %s\n", AddressText(pClient->seen).c_str(),
        Shown(pBox->info.szGuid).c_str());
}

static void OnFind(Rendezvous *pServer, const Party *pClient, const char *szGuid)
{
    int bRefused = IsRefused(pServer, pClient, szGuid);
    auto box = pServer->boxes.find(szGuid);
    if (!bRefused && box != pServer->boxes.end()) {
        Introduce(pServer, pClient, &pServer->parties[box->second]);
        return;
    }
    uint8_t packet[kZupoPacketSize];
    Send(pClient, packet, ZupoEncode(packet, ZUPO_FIND_REPLY, bRefused ? kZupoRefused : kZupoUnknown));
}

// Returns 1, or 0 for a packet that breaks the protocol.
static int OnPacket(Rendezvous *pServer, Party *pParty, const uint8_t *pData, size_t nLen)
{
    ZUPO_PACKET_HEAD head;
    if (!ZupoHeadDecode(&head, pData, nLen) || head.nDataLen != nLen - sizeof(head))
        return 0;
    const uint8_t *pPayload = pData + sizeof(head);
    DeviceInfo info;
    char szGuid[kZupoGuidSize];
    switch (head.nCmd) {
        case ZUPO_REGISTER:
            if (head.nDataLen != kZupoDeviceSize || !ZupoDeviceDecode(&info, pPayload, head.nDataLen))
                return 0;
            OnRegister(pServer, pParty, info);
            return 1;
        case ZUPO_FIND:
            if (head.nDataLen != kZupoGuidSize || !ZupoGuidDecode(szGuid, pPayload, head.nDataLen))
                return 0;
            OnFind(pServer, pParty, szGuid);
            return 1;
        default:
            return 1;  // a heartbeat has done its work by arriving
    }
}

static void OnConnect(Rendezvous *pServer, ENetPeer *pPeer)
{
    Party party;
    party.pPeer = pPeer;
    party.seen = {ntohl(pPeer->address.host), pPeer->address.port};
    party.nSince = party.nHeard = ClockUptime();
    pServer->parties[pPeer] = party;
}

static void OnReceive(Rendezvous *pServer, ENetPeer *pPeer, ENetPacket *pPacket)
{
    auto found = pServer->parties.find(pPeer);
    if (found != pServer->parties.end()) {
        found->second.nHeard = ClockUptime();
        if (!OnPacket(pServer, &found->second, pPacket->data, pPacket->dataLength)) {
            Say(pServer, "%s speaks another language\n", AddressText(found->second.seen).c_str());
            Drop(pServer, pPeer, "is dropped");
        }
    }
    enet_packet_destroy(pPacket);
}

void RendezvousService(Rendezvous *pServer)
{
    ENetEvent event{};
    while (UnetGateService(&pServer->gate, &event) > 0) {
        if (event.type == ENET_EVENT_TYPE_CONNECT)
            OnConnect(pServer, event.peer);
        else if (event.type == ENET_EVENT_TYPE_RECEIVE)
            OnReceive(pServer, event.peer, event.packet);
        else
            Forget(pServer, event.peer, "is gone");
    }
    enet_host_flush(pServer->pHost);
}

void RendezvousExpire(Rendezvous *pServer)
{
    uint32_t nNow = ClockUptime();
    std::vector<ENetPeer *> silent;
    for (const auto &entry : pServer->parties) {
        int32_t nLimit = entry.second.info.szGuid[0] ? kBoxSilence : kClientSilence;
        if (ClockDiff(nNow, entry.second.nHeard) > nLimit)
            silent.push_back(entry.first);
    }
    for (ENetPeer *pPeer : silent)
        Drop(pServer, pPeer, "is silent");
}

void RendezvousApplyRefusals(Rendezvous *pServer)
{
    std::vector<ENetPeer *> refused;
    for (const auto &entry : pServer->boxes)
        if (IsRefused(pServer, &pServer->parties[entry.second], entry.first.c_str()))
            refused.push_back(entry.second);
    for (ENetPeer *pPeer : refused)
        Drop(pServer, pPeer, "is refused");
}

void RendezvousList(const Rendezvous *pServer)
{
    printf("%zu boxes\n", pServer->boxes.size());
    for (const auto &entry : pServer->boxes) {
        const Party &box = pServer->parties.at(entry.second);
        printf("%s at %s, inside %s, mapped port %d, for %d s\n", Shown(entry.first.c_str()).c_str(),
               AddressText(box.seen).c_str(), AddressText({box.info.nPrivateIp, box.info.nPort}).c_str(),
               box.info.nMappedPort, ClockDiff(ClockUptime(), box.nSince));
    }
}

}  // namespace orx
