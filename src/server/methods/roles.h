// Who may do what: by the program that a session was admitted to, by its account, and by where it comes from
// ([GUARD] StrictRoles). Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// What StrictRoles wants of who asks for a method; without the key everybody may, and the method looks
// itself.
enum class Role {
    Anybody,
    Viewer,     // was admitted to the program held, or feeds it
    Recorder,   // feeds the program, or is the box's own shell, or was admitted with a level below 2
    Neighbour,  // comes from an address that may announce
};

// Whether the request may go to its method. When not, the refusal is sent, and *pVerdict is what becomes of
// the session. Who holds no program goes on to the method, which says so.
int RoleMay(Role eRole, Session *pSession, Port *pPort, Verdict *pVerdict);

}  // namespace orx
