#include "remote/unetgate.h"

#include <arpa/inet.h>
#include <enet/enet.h>

#include <cstring>
#include <iterator>
#include <new>

#include "base/bytes.h"
#include "runtime/clock.h"

namespace orx {

constexpr int32_t kRequestMs = 2000;       // to complete a request
constexpr uint32_t kAnswerHoldMs = 60000;  // the library does not repeat its answer by itself
constexpr uint32_t kNetHeaders = 28;       // of IPv4 and UDP
constexpr uint32_t kAnswerBytes =
    kNetHeaders + sizeof(ENetProtocolHeader) + sizeof(ENetProtocolVerifyConnect);

constexpr uint32_t kCheckEvery = 64;    // datagrams; they hold up to 32 commands each
constexpr size_t kUnorderedMax = 4096;  // commands without order that wait for an ordered one

static thread_local UnetGate *t_pGate = nullptr;  // of the host that the library services just now

// A datagram as far as the gate reads it.
struct Datagram {
    uint32_t nPeerId = 0;  // the receiver's slot; ENET_PROTOCOL_MAXIMUM_PEER_ID: none yet
    int bConnect = 0;      // a whole connection request
    uint32_t nConnectId = 0;
};

static int ReadDatagram(const ENetHost *pHost, Datagram *pOut)
{
    ByteReader in{pHost->receivedData, pHost->receivedDataLength};
    uint32_t nHead = ReadBe(&in, 2);
    if (nHead & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME)
        ReadBytes(&in, 2);
    pOut->nPeerId = nHead & ENET_PROTOCOL_MAXIMUM_PEER_ID;
    const uint8_t *p = in.bFailed || in.nLeft < sizeof(ENetProtocolConnect) ? nullptr : in.p;
    pOut->bConnect = p && (p[0] & ENET_PROTOCOL_COMMAND_MASK) == ENET_PROTOCOL_COMMAND_CONNECT;
    if (pOut->bConnect)  // kept by the library as it comes
        memcpy(&pOut->nConnectId, p + offsetof(ENetProtocolConnect, connectID), sizeof(pOut->nConnectId));
    return !in.bFailed;
}

static UnetSlot *SlotAt(const UnetGate *pGate, const ENetPeer *pPeer)
{
    return &pGate->pSlots[pPeer - pGate->pHost->peers];
}

// The slot of a peer, or null when it still tells of the connection before.
static UnetSlot *SlotOf(const UnetGate *pGate, const ENetPeer *pPeer)
{
    UnetSlot *pSlot = SlotAt(pGate, pPeer);
    return pSlot->nConnectId == pPeer->connectID ? pSlot : nullptr;
}

// Begins the slot of a connection anew.
static UnetSlot *SlotBegin(const UnetGate *pGate, const ENetPeer *pPeer)
{
    UnetSlot *pSlot = SlotAt(pGate, pPeer);
    *pSlot = UnetSlot();
    pSlot->nConnectId = pPeer->connectID;
    return pSlot;
}

// The answer to a request that waits to be completed, or null.
static ENetOutgoingCommand *AnswerOf(ENetPeer *pPeer)
{
    if (enet_list_empty(&pPeer->sentReliableCommands))
        return nullptr;
    return reinterpret_cast<ENetOutgoingCommand *>(enet_list_begin(&pPeer->sentReliableCommands));
}

static int IsFrom(const ENetPeer *pPeer, const ENetAddress *pFrom)
{
    return pPeer->address.host == pFrom->host && pPeer->address.port == pFrom->port;
}

// The answer may have been lost: it goes once more, as far as its sender has paid for it.
static void RepeatAnswer(const UnetGate *pGate, ENetPeer *pPeer, size_t nLen)
{
    UnetSlot *pSlot = SlotOf(pGate, pPeer);
    if (!pSlot || pPeer->state != ENET_PEER_STATE_ACKNOWLEDGING_CONNECT)
        return;
    pSlot->nIn += static_cast<uint32_t>(nLen) + kNetHeaders;
    ENetOutgoingCommand *pAnswer = AnswerOf(pPeer);
    if (pAnswer && pSlot->nIn >= pSlot->nOut + kAnswerBytes)
        pAnswer->roundTripTimeout = 0;  // overdue; counted when it has left
}

// Whether a connection request may go to the library.
static int Admits(UnetGate *pGate, const Datagram *pRequest)
{
    ENetHost *pHost = pGate->pHost;
    const ENetAddress *pFrom = &pHost->receivedAddress;
    size_t nStrangers = 0, nSame = 0;
    for (ENetPeer *p = pHost->peers; p < pHost->peers + pHost->peerCount; p++) {
        if (p->state == ENET_PEER_STATE_DISCONNECTED)
            *SlotAt(pGate, p) = UnetSlot();  // nothing of its last connection is said of the next one
        const UnetSlot *pSlot = SlotOf(pGate, p);
        if (p->state == ENET_PEER_STATE_DISCONNECTED || (pSlot && pSlot->bOwn))
            continue;
        if (IsFrom(p, pFrom) && p->connectID == pRequest->nConnectId) {
            RepeatAnswer(pGate, p, pHost->receivedDataLength);
            return 0;
        }
        nStrangers++;
        nSame += p->address.host == pFrom->host;
    }
    int bMany = pGate->nPerAddress && nSame >= pGate->nPerAddress && pFrom->host != htonl(INADDR_LOOPBACK);
    return !bMany && nStrangers + pGate->nKept < pHost->peerCount;
}

// What a command is made of.
struct CommandShape {
    size_t nSize;        // without data
    size_t nDataLength;  // offset of the 16 bits that count its data; 0: it has none
};
static constexpr CommandShape g_shapes[] = {
    {0, 0},
    {sizeof(ENetProtocolAcknowledge), 0},
    {sizeof(ENetProtocolConnect), 0},
    {sizeof(ENetProtocolVerifyConnect), 0},
    {sizeof(ENetProtocolDisconnect), 0},
    {sizeof(ENetProtocolPing), 0},
    {sizeof(ENetProtocolSendReliable), offsetof(ENetProtocolSendReliable, dataLength)},
    {sizeof(ENetProtocolSendUnreliable), offsetof(ENetProtocolSendUnreliable, dataLength)},
    {sizeof(ENetProtocolSendFragment), offsetof(ENetProtocolSendFragment, dataLength)},
    {sizeof(ENetProtocolSendUnsequenced), offsetof(ENetProtocolSendUnsequenced, dataLength)},
    {sizeof(ENetProtocolBandwidthLimit), 0},
    {sizeof(ENetProtocolThrottleConfigure), 0},
    {sizeof(ENetProtocolSendFragment), offsetof(ENetProtocolSendFragment, dataLength)},
};
static_assert(std::size(g_shapes) == ENET_PROTOCOL_COMMAND_COUNT, "one shape for each command");

// Whether a fragment says more than can be true. The library makes a bit for each fragment that is announced,
// up to a million, whatever they add up to.
static int IsHollow(const uint8_t *pCommand)
{
    return GetBe(pCommand + offsetof(ENetProtocolSendFragment, fragmentCount), 4) >
           GetBe(pCommand + offsetof(ENetProtocolSendFragment, totalLength), 4);
}

// Whether a datagram of a connection holds such a fragment. Ends where the library gives up reading, too.
static int HasHollowFragment(const ENetHost *pHost)
{
    ByteReader in{pHost->receivedData, pHost->receivedDataLength};
    ReadBytes(&in, ReadBe(&in, 2) & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME ? 2 : 0);
    while (in.nLeft > 0 && !in.bFailed) {
        unsigned nCommand = *in.p & ENET_PROTOCOL_COMMAND_MASK;
        if (nCommand == ENET_PROTOCOL_COMMAND_NONE || nCommand >= ENET_PROTOCOL_COMMAND_COUNT)
            return 0;
        const CommandShape *pShape = &g_shapes[nCommand];
        const uint8_t *p = ReadBytes(&in, pShape->nSize);
        if (!p)
            return 0;
        if (pShape->nSize == sizeof(ENetProtocolSendFragment) && IsHollow(p))
            return 1;
        ReadBytes(&in, pShape->nDataLength ? GetBe(p + pShape->nDataLength, 2) : 0);
    }
    return 0;
}

// Commands without order may wait for an ordered one that never comes: empty ones count as nothing.
static int IsCrowded(const UnetGate *pGate, const ENetPeer *pPeer)
{
    UnetSlot *pSlot = SlotAt(pGate, pPeer);
    if (pSlot->nDatagrams++ % kCheckEvery != 0)
        return pSlot->bCrowded;
    size_t nWaiting = 0;
    for (size_t i = 0; i < pPeer->channelCount; i++)
        nWaiting += enet_list_size(&pPeer->channels[i].incomingUnreliableCommands);
    pSlot->bCrowded = nWaiting > kUnorderedMax;
    return pSlot->bCrowded;
}

// Called by the library for each datagram before it looks at it itself. Returns 1 to have it forgotten.
static int Intercept(ENetHost *pHost, ENetEvent *)
{
    UnetGate *pGate = t_pGate;
    Datagram datagram;
    if (!ReadDatagram(pHost, &datagram))
        return 1;
    if (datagram.nPeerId == ENET_PROTOCOL_MAXIMUM_PEER_ID) {
        if (!datagram.bConnect || !Admits(pGate, &datagram))
            return 1;
        pGate->bPending = 1;
        return 0;
    }
    ENetPeer *pPeer = datagram.nPeerId < pHost->peerCount ? &pHost->peers[datagram.nPeerId] : nullptr;
    if (!pPeer || !IsFrom(pPeer, &pHost->receivedAddress))
        return 0;  // the library forgets it
    RepeatAnswer(pGate, pPeer, pHost->receivedDataLength);
    return IsCrowded(pGate, pPeer) || HasHollowFragment(pHost);
}

// Looks after one request that waits to be completed. Returns 1, or 0 when it was dropped.
static int LookAfter(const UnetGate *pGate, ENetPeer *pPeer)
{
    UnetSlot *pSlot = SlotOf(pGate, pPeer);
    if (!pSlot) {
        pSlot = SlotBegin(pGate, pPeer);
        pSlot->nSince = ClockMs();
        pSlot->nIn = kAnswerBytes;  // the request, which is longer, has paid for one
    }
    if (ClockDiff(ClockMs(), pSlot->nSince) >= kRequestMs) {
        enet_peer_reset(pPeer);
        return 0;
    }
    ENetOutgoingCommand *pAnswer = AnswerOf(pPeer);
    int bHasJustLeft = pAnswer && pAnswer->roundTripTimeout > 0 && pAnswer->roundTripTimeout < kAnswerHoldMs;
    if (bHasJustLeft) {
        pAnswer->roundTripTimeout = kAnswerHoldMs;
        pSlot->nOut += kAnswerBytes;
    }
    return 1;
}

static void LookAfterPending(UnetGate *pGate)
{
    if (!pGate->bPending)
        return;
    pGate->bPending = 0;
    for (ENetPeer *p = pGate->pHost->peers; p < pGate->pHost->peers + pGate->pHost->peerCount; p++)
        if (p->state == ENET_PEER_STATE_ACKNOWLEDGING_CONNECT)
            pGate->bPending |= LookAfter(pGate, p);
}

int UnetGateInit(UnetGate *pGate, ENetHost *pHost, size_t nKept, uint32_t nPerAddress)
{
    pGate->pSlots = new (std::nothrow) UnetSlot[pHost->peerCount];
    if (!pGate->pSlots)
        return 0;
    pGate->pHost = pHost;
    pGate->nKept = nKept;
    pGate->nPerAddress = nPerAddress;
    pGate->bPending = 0;
    pHost->intercept = Intercept;
    return 1;
}

void UnetGateFree(UnetGate *pGate)
{
    delete[] pGate->pSlots;
    pGate->pSlots = nullptr;
    pGate->pHost = nullptr;
}

void UnetGateOwn(UnetGate *pGate, const ENetPeer *pPeer)
{
    if (pPeer)
        SlotBegin(pGate, pPeer)->bOwn = 1;
}

int UnetGateService(UnetGate *pGate, ENetEvent *pEvent)
{
    t_pGate = pGate;
    int nResult = enet_host_service(pGate->pHost, pEvent, 0);
    t_pGate = nullptr;
    LookAfterPending(pGate);
    return nResult;
}

}  // namespace orx
