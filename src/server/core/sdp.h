// Reading a session description (RFC 4566) as deployed encoders write it. Any thread.
#pragma once

#include "server/core/program.h"

namespace orx {

// Fills the track count, indices and mediaInfos of *pProg from the text. nDurationMs is a recording's length,
// 0 when unknown (its range line is then looked at) and for live. Returns 1 when at least one track was
// described.
int SdpParse(Program *pProg, const char *szSdp, int bLive, uint32_t nDurationMs);

// A decimal number at the start of a text; what int cannot hold becomes the nearest that it can, no number 0.
int TextToInt(const char *sz);
// Seconds with a fraction, as in "npt=0-12.5" (RFC 2326, section 3.6), in milliseconds. sz starts with a
// digit.
uint32_t NptToMs(const char *sz);

}  // namespace orx
