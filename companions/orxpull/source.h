// A source: a camera that is pulled and the program that it becomes in Orx, from the first try to the last.
// What goes wrong is tried again, and said once for every change, on standard error. The loop's thread.
#pragma once

#include "orxpull/pullsettings.h"
#include "shared/loop.h"

namespace orx {

struct Source;

// Begins nDelayMs from now. The settings and the source stay until SourceStop. Null without memory.
Source *SourceStart(Loop *pLoop, const PullSettings *pSettings, const PullSource *pSource, uint64_t nDelayMs);
// Takes leave of both sides, with TEARDOWN where there is a session, and is gone. Ignores null.
void SourceStop(Source *pSource);

}  // namespace orx
