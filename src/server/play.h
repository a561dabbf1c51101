// The methods by which a player watches a program; SETUP and PLAY serve pushers as well. Scheduler thread
// only.
#pragma once

#include "server/program.h"

namespace orx {

int HandleDescribe(Session *pSession, Port *pPort, Request *pRequest);
int HandleSetup(Session *pSession, Port *pPort, Request *pRequest);
int HandlePlay(Session *pSession, Port *pPort, Request *pRequest);
int HandleQuickPlay(Session *pSession, Port *pPort, Request *pRequest);
int HandlePause(Session *pSession, Port *pPort, Request *pRequest);
int HandleTeardown(Session *pSession, Port *pPort, Request *pRequest);
int HandleOptions(Session *pSession, Port *pPort, Request *pRequest);
int HandleSetParameter(Session *pSession, Port *pPort, Request *pRequest);

// Common first steps of the methods that start with a path. ChooseReplyPort: replies go to this port unless
// it is the POST half of a tunnel; 0 when the peer assertion on a tunnel without its GET half failed: there
// is then nowhere to send a reply to. AttachByPath: looks the program up (detaching from another one first),
// attaches and wakes; when nothing is found it answers 404 and returns 0.
int ChooseReplyPort(Session *pSession, Port *pPort);
int AttachByPath(Session *pSession, Port *pPort, Request *pRequest);

// Copies what a session keeps of its program's tracks; a fourth track is left out.
void SessionCopyTracks(Session *pSession, const Program *pProg);

// Marks track i as set up: source, first sequence number and what the session's media is made of.
void SessionEnterTrack(Session *pSession, int i);

}  // namespace orx
