// What the methods that begin with a program have in common: the port that replies take, finding and opening
// the program, and the check of a player's credentials. Scheduler thread only.
#pragma once

#include "server/core/program.h"
#include "server/methods/accounts.h"

namespace orx {

// Replies go to this port unless it is the POST half of a tunnel. Returns 1, or 0 when the peer assertion on
// a tunnel without its GET half failed: there is then nowhere to send a reply to.
int ChooseReplyPort(Session *pSession, Port *pPort);

// The program that a path asks for: the one that the session holds (any other one is let go of), else a live
// one. Null: at most a recording has that path.
Program *FindProgram(Session *pSession, const char *szPath);

// Attaches to the program found, which is woken, or to a recording, which is opened. Verdict::Keep when it
// has; Verdict::End when there is none, with the 404 sent; Verdict::Later when opening it takes another step.
Verdict AttachFound(Session *pSession, Port *pPort, Program *pFound, const char *szPath);

// Whose accounts count at a path: those of the program found there, else those of a recording of that name,
// whether there is one or not.
inline AccountPlace AccountsAt(const Program *pFound, const char *szPath)
{
    return pFound ? PlaceOf(pFound) : AccountPlace{szPath, nullptr};
}

enum Admission {
    ADMITTED,
    CHALLENGED,  // the 401 is sent, or a 455 behind which it goes on
    REFUSED,     // the 403 is sent
    POSTPONED,   // nothing is: the answer waits
    ENDED,       // 404, 455, or a reply that could not be sent: the session is to end
};

// State, reply port, program and credentials of a DESCRIBE or QUICKPLAY. Returns ADMITTED, or why not, with
// the reply sent.
Admission EnterProgram(Session *pSession, Port *pPort, const Request *pRequest);

// Asks for a password (see CredentialScheme): the 401 that keeps the connection. bStale: only the challenge
// was too old.
Verdict ReplyChallenge(Session *pSession, Port *pPort, int bStale);

// What a method says of its session when it is not admitted; a refusal that was sent ends it or not.
inline Verdict NotAdmitted(Admission eAdmission, Verdict eRefused)
{
    if (eAdmission == POSTPONED)
        return Verdict::Later;
    return eAdmission == REFUSED ? eRefused : KeepIf(eAdmission == CHALLENGED);
}

}  // namespace orx
