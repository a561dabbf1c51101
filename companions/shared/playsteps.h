// From OPTIONS to PLAY: what a player's session asks for, and what it makes of the replies. The loop's
// thread.
#pragma once

#include "shared/playcore.h"

namespace orx {

void PlayBegin(RtspPlay *pPlay);  // the link stands: OPTIONS
// The answer to a tunnel's GET. With 200, requests may be sent.
void PlayTakeTunnelReply(RtspPlay *pPlay, const RtspMessage *pReply);
// Goes over to TCP from UDP, or the other way: by another connection where a session stands.
void PlaySwitch(RtspPlay *pPlay);
// Asks for something, so that the session goes on.
void PlayKeepAlive(RtspPlay *pPlay);

}  // namespace orx
