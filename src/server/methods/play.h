// PLAY, PAUSE and TEARDOWN. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandlePlay(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandlePause(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandleTeardown(Session *pSession, Port *pPort, Request *pRequest);

// RECORD starts an announced program as PLAY does, where standard encoders are to be understood ([INTEROP]
// StandardPushers); anywhere else the method is unknown.
Verdict HandleRecord(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
