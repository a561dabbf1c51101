// Framing and dispatch: takes '$' frames and text messages out of a session's receive buffer and runs the
// handler of each request. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// Works off what the receive buffer holds; of many messages some, and nothing that some milliseconds do not
// suffice for: the rest comes later (PortReadLater). Nothing while an answer waits. Returns 1, or 0 when the
// session has ended.
int HandleInput(Session *pSession, Port *pPort);

// What the request that is held on the port waited for is there: handles it once more, then what the peer has
// sent since. Nothing when none is held there; the port may be null.
void AnswerHeldRequest(Port *pPort);

}  // namespace orx
