// Programs made of recordings. Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/core/program.h"

namespace orx {

// Makes a file program for a recording ("/....zmf", any case), or returns null (another path, not allowed, no
// such file, no usable description; with ConfineRecordings also a file that links lead to outside of
// RecordPath).
// Null with *pbMore 1: the disk is at it; the session's request is held, and this called again.
Program *CreateFileProgram(Session *pSession, const char *szPath, int *pbMore);

// The length of the recording in ms; 0 when it is not known, and for a live program.
uint32_t FileProgramDuration(const Program *pProg);

// The scale nearest to the one wanted at which the session can be given its recording: 1, or by key frames 2,
// 4, 8, 16, and backwards -1, -2, -4, -8, -16.
int FileProgramScale(const Session *pSession, float fWanted);

// Moves the reader of the session's recording to nMs; from there on it reads what nScale plays. Returns 1
// with the position reached in *pReached (ms), or 0 with the reader where it was; -1: the request is held,
// and this called again.
int FileProgramSeek(Session *pSession, uint32_t nMs, int nScale, uint32_t *pReached);

}  // namespace orx
