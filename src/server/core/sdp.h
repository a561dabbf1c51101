// Reading a session description (RFC 4566) as encoders write it. Any thread.
#pragma once

#include "server/core/program.h"

namespace orx {

// Fills the track count, indices and mediaInfos of *pDesc from the text, and chooses its key-frame test.
// bStandard: as standard pushers describe (see Program::standards). nDurationMs is a recording's length, 0
// when unknown (its range line is then looked at) and for live. Returns 1 when at least one track was
// described.
int SdpParse(Description *pDesc, const char *szSdp, int bLive, uint32_t nDurationMs, int bStandard);

}  // namespace orx
