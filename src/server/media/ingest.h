// Where a pusher's packets come in: each gets its media time and its flags, and goes to the program.
// Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/core/session.h"

namespace orx {

// Hands a '$' frame (nBytes with its prefix) of an RTP channel to the program that the session feeds; one
// that is of no use to it is dropped. pChunk: the frame lies in it, and stays there; null: it is copied.
// Returns 0 when the session must end, else 1.
int FeedProgram(Session *pSession, unsigned nTrack, const uint8_t *pFrame, uint32_t nBytes, Chunk *pChunk);

// A read of nBytes of the session is worked off: of a playing pusher, what its packets added to the players'
// queues leaves with every second one; where that is not it, and it was longer than SessionBufSize, soon.
void FlushAfterRead(Session *pSession, size_t nBytes);

}  // namespace orx
