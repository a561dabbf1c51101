// Where the pieces of sound of a recording go. Each piece is as long as its samples at the nominal rate, but
// neither the clock that sampled them nor the one that stamped the blocks runs exactly so: over an hour they
// come apart by seconds. Pieces therefore follow each other without gaps and are made a little longer or
// shorter until they lie where the stamps say. Positions are in samples of the nominal rate.
#pragma once

#include <cstdint>

namespace orx {

struct SoundClock {
    int64_t nRate = 0;     // samples per second, set before use
    int64_t nNext = -1;    // where the sound so far ends; -1 before the first block
    double dOffset = 0;    // how far the stamps lie behind that, smoothed
    int bSteering = 0;     // the offset is being taken back
    int64_t nDropped = 0;  // samples left out because they overlap
};

// A block of nSamples whose stamp is nTimeMs comes next.
void SoundClockBlock(SoundClock *pClock, int64_t nTimeMs, int64_t nSamples);

// Takes a piece of the block: its place in *pnAt and in *pnLonger by how much it is to be made longer
// (shorter when negative). Returns 0 when it is to be left out.
int SoundClockPiece(SoundClock *pClock, int64_t nSamples, int64_t *pnAt, int64_t *pnLonger);

}  // namespace orx
