#include "remote/bridgeaddr.h"

#include <atomic>

namespace orx {

static std::atomic<uint32_t> g_peers[256];  // by the low byte of the bridge's address; host order

void BridgeNotePeer(uint32_t nSlot, uint32_t nPeerIp)
{
    g_peers[BridgeAddress(nSlot) & 0xFF] = nPeerIp;
}

uint32_t BridgePeer(uint32_t nBridgeIp)
{
    return IsBridgeAddress(nBridgeIp) ? g_peers[nBridgeIp & 0xFF].load() : 0;
}

}  // namespace orx
