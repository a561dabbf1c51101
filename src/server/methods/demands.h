// What every request of a standard client may ask for beside its method: that the server knows an extension,
// and that it is meant for the session of this connection. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// Returns 1, or 0 with the refusal sent and its verdict in *pRefusal: 551 for a "Require" line, as nothing is
// known that one could name (RFC 2326, section 12.32), 454 for another "Session" where the method is about
// one. The connection stays. Always 1 for peers that are not standard ones.
int DemandsMet(Session *pSession, Port *pPort, const Request *pRequest, Verdict *pRefusal);

}  // namespace orx
