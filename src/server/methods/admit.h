// What the methods that begin with a program have in common: the port that replies take, finding and opening
// the program, and the check of a player's credentials. Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// Replies go to this port unless it is the POST half of a tunnel. Returns 1, or 0 when the peer assertion on
// a tunnel without its GET half failed: there is then nowhere to send a reply to.
int ChooseReplyPort(Session *pSession, Port *pPort);

// Looks the program up that the request's path names (detaching from another one first), attaches and wakes.
// When nothing is found it answers 404 and returns 0.
int AttachByPath(Session *pSession, Port *pPort, Request *pRequest);

enum Admission {
    ADMITTED,
    CHALLENGED,  // the 401 is sent
    REFUSED,     // the 403 is sent
    POSTPONED,   // nothing is: the answer waits
    ENDED,       // 404, 455, or a reply that could not be sent: the session is to end
};

// State, reply port, program and credentials of a DESCRIBE or QUICKPLAY. Returns ADMITTED, or why not, with
// the reply sent.
Admission EnterProgram(Session *pSession, Port *pPort, Request *pRequest);

// What a method says of its session when it is not admitted; a refusal that was sent ends it or not.
inline Verdict NotAdmitted(Admission eAdmission, Verdict eRefused)
{
    if (eAdmission == POSTPONED)
        return Verdict::Later;
    return eAdmission == REFUSED ? eRefused : KeepIf(eAdmission == CHALLENGED);
}

}  // namespace orx
