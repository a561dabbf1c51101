// Where a peer comes from, for what addresses may. Scheduler thread only.
#pragma once

#include "server/core/port.h"

namespace orx {

// Whether the peer's address is one of AnnounceFrom, or that is empty. Who comes through the relay is none of
// them; who came by the web port counts with the address there.
int PeerMayAnnounce(const Port *pPort);

// Whether the peer is on this box, and not a stranger whom the relay, the web port or a front brought.
int PeerIsOwnShell(const Port *pPort);

}  // namespace orx
