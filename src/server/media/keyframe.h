// Key-frame tests on RTP packets as they come from a pusher ('$' prefix included). Scheduler thread only.
#pragma once

#include "server/core/program.h"

namespace orx {

// The test for a program's video codec: the last track with a video code decides; null without video.
KeyFrameProc KeyFrameSelect(const Program *pProg);

}  // namespace orx
