// RTSP through HTTP: a GET whose answer never ends brings everything, a POST that never ends takes requests
// as base64. The loop's thread.
#pragma once

#include <string_view>

#include "shared/playcore.h"

namespace orx {

void PlayTunnelAsk(RtspPlay *pPlay);  // the link stands: the GET
void PlayTunnelSend(RtspPlay *pPlay, std::string_view bytes);

}  // namespace orx
