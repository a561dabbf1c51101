// SETUP: how the packets of a track travel; of players and of pushers. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleSetup(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
