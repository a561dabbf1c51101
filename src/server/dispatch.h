// Framing and dispatch: takes '$' frames and text messages out of a session's receive buffer and runs the
// handler of each request. Scheduler thread only.
#pragma once

#include "server/session.h"

namespace orx {

// A handler returns 1 when the session lives on; after 0 the dispatcher frees it.
using MethodProc = int (*)(Session *pSession, Port *pPort, Request *pRequest);

// Works off what the receive buffer holds. Returns 1, or 0 when the session was freed.
int HandleInput(Session *pSession, Port *pPort);

}  // namespace orx
