// Who may come to a reliable-UDP host. The library answers every connection request for half a minute and
// gives it a slot meanwhile, whoever sent it; here requests are looked at first. A request that is not
// completed within two seconds is dropped, is never answered with more bytes than it came with, gets no slot
// that is kept for the host's own connections, and none beyond what one address may have. Who is connected is
// kept from filling the memory with what the library counts as nothing. Under the lock of the host, if there
// is one.
#pragma once

#include <cstddef>
#include <cstdint>

struct _ENetEvent;
struct _ENetHost;
struct _ENetPeer;

namespace orx {

// What is known of the connection in a slot of the host, as long as the library's number of it is that one.
struct UnetSlot {
    uint32_t nConnectId = 0;
    int bOwn = 0;         // dialled from here
    uint32_t nSince = 0;  // of a request: when it came, ClockMs
    uint32_t nIn = 0;     // of a request: bytes of its sender and of the answers, headers of the net included
    uint32_t nOut = 0;
    uint32_t nDatagrams = 0;  // of a connection, modulo 2^32
    int bCrowded = 0;         // too much of it waits for something that never came
};

struct UnetGate {
    _ENetHost *pHost = nullptr;  // not owned
    UnetSlot *pSlots = nullptr;  // one for each slot of the host; owned
    size_t nKept = 0;            // slots that only own connections get
    uint32_t nPerAddress = 0;    // connections from one address, 127.0.0.1 apart; 0: any number
    int bPending = 0;            // some request may be waiting to be completed
};

// Sets the gate before a host that has no peer yet. Returns 1, or 0 without memory.
int UnetGateInit(UnetGate *pGate, _ENetHost *pHost, size_t nKept, uint32_t nPerAddress);
void UnetGateFree(UnetGate *pGate);
// Notes a connection that was dialled just now; accepts null.
void UnetGateOwn(UnetGate *pGate, const _ENetPeer *pPeer);
// Services the host without waiting, for one event; result of the library: 1 with an event, 0, -1.
int UnetGateService(UnetGate *pGate, _ENetEvent *pEvent);

}  // namespace orx
