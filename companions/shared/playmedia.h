// What a player's session receives: packets by track, and what is reported about them. The loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "shared/playcore.h"

namespace orx {

// An interleaved frame; of a channel that no track has, it is passed over.
void PlayTakeFrame(RtspPlay *pPlay, int nChannel, const uint8_t *pData, size_t nBytes);
// A packet of a track that was chosen.
void PlayTakePacket(RtspPlay *pPlay, size_t nMedia, int bRtcp, const uint8_t *pData, size_t nBytes);
// What one read gave has been handed on.
void PlayBurstDone(RtspPlay *pPlay);

// The caller learns that media is on its way, once.
void PlayTellPlaying(RtspPlay *pPlay);
std::string PlayReport(RtspPlay *pPlay, PlayMedia *pMedia);  // about what came of a track

}  // namespace orx
