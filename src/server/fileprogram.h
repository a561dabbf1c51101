// Programs made of recordings: how they reach the recording reader. Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/program.h"

namespace orx {

// What a recording's reader knows. Null, respectively 0, for a live program.
const char *FileProgramSdp(const Program *pProg);
uint32_t FileProgramDuration(const Program *pProg);  // ms

// Moves the reader to nMs. Returns 1 with the position reached in *pReached (ms), or 0 with the reader where
// it was.
int FileProgramSeek(Program *pProg, uint32_t nMs, uint32_t *pReached);

// Closes the reader; does nothing for a live program.
void FileProgramClose(Program *pProg);

}  // namespace orx
