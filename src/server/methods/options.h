// OPTIONS and SET_PARAMETER, which clients also send to show that they are there. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

int HandleOptions(Session *pSession, Port *pPort, Request *pRequest);
int HandleSetParameter(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
