// Framing and dispatch: takes '$' frames and text messages out of a session's receive buffer and runs the
// handler of each request. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// Works off what the receive buffer holds, for some milliseconds: then PORT_MORE_WAITS is set and the rest is
// left to EVENT_MORE_INPUT. Nothing while an answer waits. Returns 1, or 0 when the session has ended.
int HandleInput(Session *pSession, Port *pPort);

}  // namespace orx
