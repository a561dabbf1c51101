// RTSP over HTTP: a GET connection for everything the server sends and a POST connection whose base64 body
// carries the requests, paired by their "x-sessioncookie". Scheduler thread only.
#pragma once

#include <cstddef>

#include "server/core/session.h"

namespace orx {

// Whether a "Content-Type" or "Accept" is that of a tunnel; null is not.
int IsTunnelType(const char *szType);

Verdict HandleTunnelGet(Session *pSession, Port *pPort, Request *pRequest);
// The method POST. With [INTEROP] StandardPlayers one whose GET half is not there yet waits for it for two
// seconds (SESSION_TUNNEL_POST): its connection is not read meanwhile, and what came behind its header stays
// in the session's buffer as it is.
Verdict BindToHttpGet(Session *pSession, Port *pPort, Request *pRequest);
// Pairs such a session, whose connection pPort is, with a GET half that has come: the session then ends.
void TunnelPairPost(Session *pPost, Port *pPort);
// The answer to an HTTP request that opens no tunnel.
Verdict ReplyMismatch(Session *pSession, Port *pPort);

// Decodes nLen base64 characters that a tunnel POST port received, together with what the port kept from
// before, and appends the bytes to the session's receive buffer; an unfinished group stays with the port.
// Returns 1, or 0 for text that is not base64 or does not fit: the session is to end.
int TunnelDecode(Session *pSession, Port *pPort, const char *pText, size_t nLen);

}  // namespace orx
