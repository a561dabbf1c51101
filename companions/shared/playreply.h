// What the server of a player's session says: replies by CSeq, with challenges answered and redirections
// followed on the way, and requests of its own. The loop's thread.
#pragma once

#include "shared/playcore.h"

namespace orx {

// A reply: finds its request. One to none is passed over.
void PlayTakeReply(RtspPlay *pPlay, const RtspMessage *pReply);
// A request of the server.
void PlayTakeRequest(RtspPlay *pPlay, const RtspMessage *pRequest);

// Takes over the challenge of a 401 to what was answered to nTries challenges before. Returns 1 when asking
// again is of use, else 0.
int PlayTakeChallenge(RtspPlay *pPlay, const RtspMessage *pReply, int nTries);

// Ends it for a reply that is not 200.
void PlayRefused(RtspPlay *pPlay, const char *szMethod, const RtspMessage *pReply);

}  // namespace orx
