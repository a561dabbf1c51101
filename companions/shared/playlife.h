// The life of a player's session: what its links and its times bring. The loop's thread.
#pragma once

#include "shared/playcore.h"

namespace orx {

// Has the record's links and timer call what serves them. Once, before either is used.
void PlayAttach(RtspPlay *pPlay);

}  // namespace orx
