// Programs made of recordings. Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/core/program.h"

namespace orx {

// Makes a file program for a recording, or returns null (not allowed, no such file, no usable description).
Program *CreateFileProgram(const char *szPath);

// The length of the recording in ms; 0 when it is not known, and for a live program.
uint32_t FileProgramDuration(const Program *pProg);

// Moves the reader to nMs. Returns 1 with the position reached in *pReached (ms), or 0 with the reader where
// it was.
int FileProgramSeek(Program *pProg, uint32_t nMs, uint32_t *pReached);

}  // namespace orx
