// Programs that a pusher feeds. Scheduler thread only.
#pragma once

#include <cstddef>

#include "server/core/program.h"

namespace orx {

// A live program for a path and a description (nSdp characters), in list and name map; null when it cannot be
// made: the description is too long or of no use, the path is taken, or memory runs out. One that waits for
// its pusher is given when the description suits it (hold.nNumber is set then), and ends when not.
Program *CreateLiveProgram(const char *szPath, const char *szSdp, size_t nSdp);

}  // namespace orx
