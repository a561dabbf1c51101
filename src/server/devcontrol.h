// Control of the camera behind a program: requests of players that are forwarded to its pusher and answered
// with RESPOND, configuration texts, registration, and event subscriptions. Scheduler thread only.
#pragma once

#include "server/program.h"

namespace orx {

// The largest request, body included, that is forwarded to a pusher; a longer one is refused, never cut.
constexpr size_t kForwardBytes = 2048;

// Forwarded to the pusher, which answers in its own time. When the request cannot be written to it, the
// pusher's session is freed with every player of its program, so the asking session as well.
int HandleCamControl(Session *pSession, Port *pPort, Request *pRequest);
int HandlePutVoice(Session *pSession, Port *pPort, Request *pRequest);
int HandleGetCamInfo(Session *pSession, Port *pPort, Request *pRequest);
// The pusher's answer, passed on to the session that asked.
int HandleRespond(Session *pSession, Port *pPort, Request *pRequest);

// The camera's configuration text, kept with the program.
int HandlePutCamCfg(Session *pSession, Port *pPort, Request *pRequest);

// A name for a camera, the same one for the same Guid.
int HandleRegister(Session *pSession, Port *pPort, Request *pRequest);

// The packets of a program's data track, from now on.
int HandleSubscribe(Session *pSession, Port *pPort, Request *pRequest);

// The server's configuration file, and a new one for the camera process; for the super user alone.
int HandleGetCfgDirect(Session *pSession, Port *pPort, Request *pRequest);
int HandleSetCfgDirect(Session *pSession, Port *pPort, Request *pRequest);
// The wireless networks that the box sees.
int HandleGetWifiRouters(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
