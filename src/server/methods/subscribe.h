// SUBSCRIBE: from then on the packets of a program's data track go to the client (see CachePacketEx).
// Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleSubscribe(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
