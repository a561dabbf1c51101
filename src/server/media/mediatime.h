// From a pusher's RTP time stamps to the media time of its program, in milliseconds: one line that all tracks
// share, whatever values their clocks began with. Scheduler thread only.
#pragma once

#include <cstdint>

#include "server/core/program.h"
#include "server/media/rtcpread.h"

namespace orx {

// The media time of a track's next packet, and DB_JUMP and DB_SPLIT as they are due. Returns 1, or 0 when the
// track's clock rate cannot be scaled: the session must end.
int PacketTime(Program *pProg, unsigned nTrack, uint32_t nRtpTime, uint32_t *pMs, uint32_t *pnFlags);

// A sender report of the pusher (RFC 3550, section 6.4.1): tells where one of the track's stamps lies on the
// pusher's wall clock, which its tracks share. A track that stands elsewhere on the line is taken there bit
// by bit: its times never go back for it.
void TimeNoteReport(Program *pProg, unsigned nTrack, const SenderReport *pReport);

}  // namespace orx
