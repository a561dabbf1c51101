// OPTIONS and SET_PARAMETER, which clients also send to show that they are there, and what answers a method
// that is not known. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleGetParameter(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandleOptions(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandleSetParameter(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandleUnknown(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
