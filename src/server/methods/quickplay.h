// QUICKPLAY: DESCRIBE, SETUP of every track over the connection, and PLAY in one request. Scheduler thread
// only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleQuickPlay(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
