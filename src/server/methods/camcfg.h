// The configuration text that a camera keeps with its program, and what of it a viewer is shown. Scheduler
// thread only.
#pragma once

#include <cstddef>

#include "server/core/session.h"

namespace orx {

// A copy of a configuration text (nText bytes and a NUL) for a viewer of that name: without the super user's
// name and password, the keys of other listed users, and the sections SMTP and SEND2FTP; empty when the
// header of the accounts does not end on its line. From malloc, a NUL behind it, its length in *pnOut; null
// when memory runs out.
char *CamCfgFilter(const char *szText, size_t nText, const char *szUser, size_t *pnOut);

// The "[USERS]" section of a configuration text: where it starts and how long it is, up to the next '['.
// Null without such a section, and when no other one follows it.
const char *CamCfgFindUsers(const char *szText, size_t nText, size_t *pnUsers);

// PUTCAMCFG: the camera's configuration text, kept with the program.
Verdict HandlePutCamCfg(Session *pSession, Port *pPort, Request *pRequest);

// Answers a request for the configuration of the session's program.
Verdict ReplyCamCfg(Session *pSession, Port *pPort);

}  // namespace orx
