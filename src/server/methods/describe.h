// DESCRIBE: the description of a program, for a player that is let in. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleDescribe(Session *pSession, Port *pPort, Request *pRequest);

// What DESCRIBE and QUICKPLAY do once the player may watch: the session takes the program's tracks, and the
// description is sent.
Verdict Describe(Session *pSession, Port *pPort, const Request *pRequest);

}  // namespace orx
