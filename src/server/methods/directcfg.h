// The administrator's methods: the server's configuration file, a new configuration for the camera process,
// and the wireless networks that the box sees. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// The configuration file as it is, and a new one for the camera process; for the super user alone.
Verdict HandleGetCfgDirect(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandleSetCfgDirect(Session *pSession, Port *pPort, Request *pRequest);
// The wireless networks that the box sees.
Verdict HandleGetWifiRouters(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
