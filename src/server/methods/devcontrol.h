// Control of the camera behind a program: requests of players that are forwarded to its pusher and answered
// with RESPOND. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// Forwarded to the pusher, which answers in its own time. When the request cannot be written to it, the
// pusher's session ends with every player of its program, so the asking session as well.
Verdict HandleCamControl(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandlePutVoice(Session *pSession, Port *pPort, Request *pRequest);
Verdict HandleGetCamInfo(Session *pSession, Port *pPort, Request *pRequest);
// The pusher's answer, passed on to the session that asked: with StrictRoles from the pusher alone, to a
// session of its program with a question open.
Verdict HandleRespond(Session *pSession, Port *pPort, Request *pRequest);
// A pusher's answer in the form of a status line, to the question of that number, or (null) to the oldest:
// who asked is told the status and the reason.
void HandleAnswer(Session *pSession, const Request *pAnswer, const uint32_t *pCSeq);

}  // namespace orx
