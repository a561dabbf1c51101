// The time line on which a recording is played. Any thread.
#pragma once

#include <cstdint>

namespace orx {

// The RTP time stamp that stands for a time of the line, in us, on a clock of nRate Hz.
inline uint32_t PlayStamp(uint32_t nRate, int64_t nUs)
{
    return static_cast<uint32_t>(nUs * nRate / 1000000);
}

}  // namespace orx
