// How a session takes the tracks of its program. Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// Copies what a session keeps of its program's tracks; of one without
// StandardPushers a fourth track is left out.
void SessionCopyTracks(Session *pSession, const Program *pProg);

// Marks track i as set up: source, first sequence number and what the session's media is made of. A track
// that is set up already goes on as it is.
void SessionEnterTrack(Session *pSession, int i);

// Takes all tracks back to before their SETUP, with their ports but for those of track nKept: they are to
// travel in another way. What waits of their packets must have been dropped.
void SessionLeaveTracks(Session *pSession, int nKept);

}  // namespace orx
