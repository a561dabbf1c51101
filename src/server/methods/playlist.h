// The method GETPLAYLIST: the live programs that a user may watch. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleGetPlayList(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
