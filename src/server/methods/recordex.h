// RECORDEX: a recording of the session's program is started or stopped. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleRecordEx(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
