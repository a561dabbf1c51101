#include "server/methods/peer.h"

#include "remote/bridgeaddr.h"
#include "runtime/sockutil.h"
#include "server/core/registry.h"

namespace orx {

int PeerMayAnnounce(const Port *pPort)
{
    if (!g_server.announceFrom.bGiven)
        return 1;
    return !(pPort->nFlags & PORT_RELAYED) && AddrListHas(&g_server.announceFrom, &pPort->remote);
}

int PeerIsOwnShell(const Port *pPort)
{
    return IsOwnBox(&pPort->remote) && !(pPort->nFlags & (PORT_HANDED_OVER | PORT_FRONTED));
}

}  // namespace orx
