// The sender of a recording: a task that refills a player's queue and sends it. Scheduler thread only.
#pragma once

#include "server/core/session.h"

namespace orx {

// Starts the file sender of a session, at once; does nothing when it runs.
void FileSenderStart(Session *pSession);

// Refills the queue of a playing player of a recording from its file. Returns 1 when packets were queued.
int FillBufferFromFile(Session *pSession);

// Records of a recording are there that a refill did not find: goes on with it.
void FileRecordsArrived(Program *pProg);

}  // namespace orx
