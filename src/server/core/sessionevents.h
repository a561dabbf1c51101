// What the log of events says of sessions: when they begin to push or play, and once when they end, with what
// they carried and why. Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/core/session.h"

namespace orx {

struct Port;
struct Request;

// The session pushes or plays its program from now on ("pusher.start", "player.start"). A further call does
// nothing.
void SessionSayStart(Session *pSession);

// The session ends, or has done what it came for: "pusher.end", "player.end", else "session.end", or
// "session.malformed" after SessionNoteMalformed. Before its program and its ports go. A further call does
// nothing.
void SessionSayEnd(Session *pSession);

// Further ways to note why a session ends, see SessionNoteEnd. Of a connection that failed, with errno; 0:
// none.
void SessionNoteErrno(Session *pSession, const char *szWhy, int nErrno);
// What its peer sent broke the protocol.
void SessionNoteMalformed(Session *pSession, const char *szWhy);
// A request was refused by the reply that was begun last, if that was a refusal.
void SessionNoteRefused(Session *pSession);

// A request was answered that no such thing is there.
void SessionSayNotFound(const Session *pSession, const Port *pPort, const Request *pRequest);

// How the media travels: "tcp", "udp" or "http" (a tunnel).
const char *SessionTransport(const Session *pSession);

}  // namespace orx
