// ANNOUNCE: how a pusher brings a live program up, and the watchdog of its connection. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

Verdict HandleAnnounce(Session *pSession, Port *pPort, Request *pRequest);

}  // namespace orx
