// How program records come and go, for the two makers of programs. Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/program.h"

namespace orx {

// A new record for a path, in no container yet; null without memory. ProgramDelete frees one with all that it
// holds.
Program *ProgramNew(const char *szPath);
void ProgramDelete(Program *pProg);

// Enters a record whose description is parsed into the program list and, a live one, into the name map.
// Chooses its name and its key-frame test. Returns 1, or 0 when the path is taken or memory runs out; the
// record is then in no container.
int ProgramReady(Program *pProg);

// Tells the owner of the program hook, if there is one, that a program came up or is about to go.
void ProgramCallHook(const Program *pProg, const char *szRemote, int bUp);

// A number that tells programs apart in printed lines.
unsigned ProgramPrintId(const Program *pProg);

}  // namespace orx
