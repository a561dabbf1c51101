// Another pusher goes on with a program ([INTEROP] HoldPlayers): where its tracks go on on the time line that
// their players know, and its sender reports with them. The first track goes on by the time that went by, all
// reports by what that means for its own, and the other tracks by theirs: so that sound and picture stay
// together. Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/core/program.h"
#include "server/media/rtcpread.h"

namespace orx {

// The first packet of a track whose rewrite continues, as it is pushed.
void ResumeTrack(Program *pProg, unsigned nTrack, const uint8_t *pRtp);

// A sender report as it is pushed. Returns 1 with its NTP time as players are to get it, 0 when it is too
// early to tell: it is kept until then.
int ResumeReport(Program *pProg, unsigned nTrack, SenderReport *pReport);

}  // namespace orx
