// The cameras of the local network that answer WS-Discovery (ONVIF): asked on every interface, on request
// only. Main thread.
#pragma once

#include "shared/loop.h"

namespace orx {

// Asks, waits three seconds and prints a line for each on standard output. Returns the exit code: 0, also
// where none answers (said on standard error), or 1 where nobody could be asked.
int DiscoverRun(Loop *pLoop);

}  // namespace orx
