// REGISTER: a camera asks for the name that it goes by. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// A name for a camera, the same one for the same Guid.
Verdict HandleRegister(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
