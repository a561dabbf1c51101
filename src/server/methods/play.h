// PLAY, PAUSE and TEARDOWN. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

int HandlePlay(Session *pSession, Port *pPort, Request *pRequest);
int HandlePause(Session *pSession, Port *pPort, Request *pRequest);
int HandleTeardown(Session *pSession, Port *pPort, Request *pRequest);

// RECORD starts an announced program as PLAY does, where standard encoders are to be understood ([INTEROP]
// StandardPushers); anywhere else the method is unknown.
int HandleRecord(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
