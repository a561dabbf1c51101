#include "server/methods/peer.h"

#include "runtime/sockutil.h"
#include "server/core/registry.h"

namespace orx {

constexpr uint32_t kLoopback = 127;  // the first byte of the addresses on the box itself

int PeerMayAnnounce(const Port *pPort)
{
    if (!g_server.announceFrom.bGiven)
        return 1;
    return !(pPort->nFlags & PORT_RELAYED) && AddrListHas(&g_server.announceFrom, SockGetIp(&pPort->remote));
}

int PeerIsOwnShell(const Port *pPort)
{
    return SockGetIp(&pPort->remote) >> 24 == kLoopback &&
           !(pPort->nFlags & (PORT_RELAYED | PORT_HANDED_OVER));
}

}  // namespace orx
