// The links of a player's session: how they begin, and how they and the session end. The loop's thread.
#pragma once

#include <string>

#include "shared/playcore.h"

namespace orx {

// Connects to the server of pPlay->url, in place of what link there is.
void PlayConnect(RtspPlay *pPlay);
// Gives up links and times, with TEARDOWN where a session stands.
void PlayRelease(RtspPlay *pPlay);
// Ends it and tells the caller; why goes behind the host's name.
void PlayEnd(RtspPlay *pPlay, PlayFault fault, const std::string &why);
// The same with a line that names the host already.
void PlayEndAsLinkSays(RtspPlay *pPlay, PlayFault fault, const std::string &line);

}  // namespace orx
