// Requests of a player's session. The loop's thread.
#pragma once

#include <string>

#include "shared/playcore.h"

namespace orx {

// Sends a text or a frame, whatever the transport.
void PlaySendText(RtspPlay *pPlay, const std::string &text);

// Sends a request; pfnReply gets its reply, unless that is a challenge that can be answered.
void PlayAsk(RtspPlay *pPlay, const char *szMethod, const std::string &uri, const std::string &headers,
             void (*pfnReply)(RtspPlay *pPlay, const RtspMessage *pReply));
// Sends one that nobody waits for.
void PlayTell(RtspPlay *pPlay, const char *szMethod, const std::string &uri);

// Sends a request with the next CSeq and the challenge answered as it is known now.
void PlaySend(RtspPlay *pPlay, PlayRequest *pRequest);
// A request waits for its reply; before media comes that may not take for ever.
void PlayAwaitAnswer(RtspPlay *pPlay);

}  // namespace orx
