// A pair of UDP ports for one track: RTP on an even one, RTCP on the next (RFC 3550, section 11). Any thread;
// a pair belongs to one.
#pragma once

#include "base/netaddr.h"

namespace orx {

struct UdpPair {
    int fdRtp = -1, fdRtcp = -1;  // owned, non-blocking
    int nPort = 0;                // of RTP
};

// Binds a pair at an address of ours, its port not looked at. Returns 1, or 0 when there is none free.
int UdpPairOpen(UdpPair *pPair, const NetAddr *pOwn);
void UdpPairClose(UdpPair *pPair);

}  // namespace orx
