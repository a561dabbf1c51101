// The reliable-UDP host: one socket and its peers, and the lock that lets the relay thread and the bridges
// share it. Made and freed by the owner of the relay; waited for by the relay thread; the rest any thread.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "remote/unetgate.h"

struct _ENetHost;
struct _ENetPacket;
struct _ENetPeer;

namespace orx {

// The library knows no threads, so one lock covers every call that touches the host or one of its peers;
// nothing waits, prints or calls out while it is held.
struct UnetHost {
    _ENetHost *pHost = nullptr;  // owned; guarded by mutex
    UnetGate gate;               // what may come in; guarded by mutex
    int fdWake = -1;             // event descriptor that ends the wait for the host; owned
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

// Makes the host on a UDP port (0: any) of a local address (host order, 0: every one). nPerAddress: remote
// players from one address, 127.0.0.1 apart; 0: any number. Returns the port in use, or 0 (printed) with
// nothing left behind.
int UnetHostCreate(UnetHost *pHost, uint32_t nBindIp, int nPort, uint32_t nPerAddress);
void UnetHostFree(UnetHost *pHost);

// Waits for datagrams or to be woken, a tenth of a second at most. After the socket failed it is not waited
// for, and the wait is short. The lock is free meanwhile: bridges send on their own.
void UnetHostWait(const UnetHost *pHost, int bSocketFailed);
void UnetHostWake(const UnetHost *pHost);

// Each takes the lock. UnetConnect (address in host order) returns null when all peers are taken. UnetSend
// sends one reliable packet at once; 1, or 0 when the peer is not connected. UnetResetPeer ignores null.
_ENetPeer *UnetConnect(UnetHost *pHost, uint32_t nIp, int nPort);
int UnetSend(UnetHost *pHost, _ENetPeer *pPeer, const void *pData, size_t nLen);
void UnetResetPeer(UnetHost *pHost, _ENetPeer *pPeer);

}  // namespace orx
