// Control of the camera behind a program: requests of players that are forwarded to its pusher and answered
// with RESPOND. Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// Forwarded to the pusher, which answers in its own time. When the request cannot be written to it, the
// pusher's session ends with every player of its program, so the asking session as well.
int HandleCamControl(Session *pSession, Port *pPort, Request *pRequest);
int HandlePutVoice(Session *pSession, Port *pPort, Request *pRequest);
int HandleGetCamInfo(Session *pSession, Port *pPort, Request *pRequest);
// The pusher's answer, passed on to the session that asked.
int HandleRespond(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
