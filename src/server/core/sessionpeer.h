// Which connections a session has, and whose they are. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// The connections of a session, each null when it has gone. They are one but for a tunnel, whose requests
// come on one and whose replies go on the other.
Port *SessionPeerPort(const Session *pSession);   // the peer's: that of requests, else that of replies
Port *SessionReplyPort(const Session *pSession);  // of what waits in the queue, other than datagrams
Port *SessionControlPort(
    const Session *pSession);  // of requests to the peer; never the half that only it writes

// The peer of the session's control connection as "a.b.c.d:port" or "[address]:port"; szOut takes
// kAddrTextSize bytes.
void SessionRemoteText(const Session *pSession, char *szOut);

}  // namespace orx
