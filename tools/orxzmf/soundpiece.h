// The pieces that a recorded block of sound is made of: what a decoder takes at a time. Any thread.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "record/sdpscan.h"

namespace orx {

struct SoundForm {
    const Codec *pCodec = nullptr;  // null without sound that can be told apart
    int64_t nRate = 0;              // of its clock, Hz
    int64_t nFrameTicks = 0;        // of a piece on that clock; 0 when a sample is a byte
};

SoundForm SoundFormOf(const SdpCodec &audio);

// The next piece of a block: its bytes, and its length on the clock. Returns 1, or 0 at the end or when what
// follows is broken.
int SoundNextPiece(const SoundForm *pForm, ByteReader *pBlock, ByteReader *pPiece, int64_t *pnTicks);

}  // namespace orx
