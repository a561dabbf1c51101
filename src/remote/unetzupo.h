// The box's side of the rendezvous protocol, driven by the relay thread, which alone calls it; and the few
// operations on the host that it needs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "remote/unet.h"

namespace orx {

void ZupoInit(Unet *pUnet);
void ZupoFree(Unet *pUnet);
// What is due by the clock: connecting to the rendezvous server, and heartbeats.
void ZupoTick(Unet *pUnet);
// The connection to the rendezvous server is up: registers.
void ZupoConnected(Unet *pUnet);
// A packet of the rendezvous server, which stays the caller's. One that breaks the protocol ends the
// connection.
void ZupoReceive(Unet *pUnet, const void *pData, size_t nLen);
void ZupoDisconnected(Unet *pUnet);

// Each takes the host's lock. UnetConnect returns null when all peers are taken. UnetSend sends one reliable
// packet at once; 1, or 0 when the peer is not connected. UnetResetPeer ignores null.
_ENetPeer *UnetConnect(Unet *pUnet, uint32_t nIp, int nPort);
int UnetSend(Unet *pUnet, _ENetPeer *pPeer, const void *pData, size_t nLen);
void UnetResetPeer(Unet *pUnet, _ENetPeer *pPeer);

}  // namespace orx
