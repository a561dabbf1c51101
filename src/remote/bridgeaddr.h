// Where bridges of the relay come from when they connect to the RTSP port: addresses of their own on the
// loopback net, one per peer, so that a stranger behind the relay is never taken for the box itself.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "base/netaddr.h"

namespace orx {

// 127.0.1.0/24, host order; the low byte is the peer's slot plus 1.
constexpr uint32_t kBridgeNet = 0x7F000100;

inline uint32_t BridgeAddress(uint32_t nSlot)
{
    return kBridgeNet | ((nSlot + 1) & 0xFF);
}
inline int IsBridgeAddress(uint32_t nIp)
{
    return (nIp & 0xFFFFFF00) == kBridgeNet;
}

// Whether an address is on this box, and no bridge's.
inline int IsOwnBox(const NetAddr *pAddr)
{
    if (AddrIsIpv6(pAddr))
        return IN6_IS_ADDR_LOOPBACK(&pAddr->in6.sin6_addr);
    uint32_t nIp = ntohl(pAddr->in4.sin_addr.s_addr);
    return nIp >> 24 == IN_LOOPBACKNET && !IsBridgeAddress(nIp);
}

// Whose peer a bridge carries, by the bridge's address: noted by the relay before the bridge connects, read
// by any thread. 0 when nobody was noted.
void BridgeNotePeer(uint32_t nSlot, uint32_t nPeerIp);
uint32_t BridgePeer(uint32_t nBridgeIp);

}  // namespace orx
