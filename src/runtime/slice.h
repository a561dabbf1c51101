// A slice of time: how long a task goes on before it leaves the rest to another one, behind what waits by
// then. Any thread.
#pragma once

#include <cstdint>

#include "runtime/clock.h"

namespace orx {

constexpr int64_t kSliceNs = 4000000;  // a task may take three: read, distribute, flush
constexpr uint32_t kSliceLook = 256;   // work after which the clock is looked at; a millisecond at most

struct Slice {
    int64_t nEndNs = 0;  // ClockNs
    uint32_t nWork = 0;  // since the last look
};

inline Slice SliceBegin()
{
    return {ClockNs() + kSliceNs, 0};
}

// Some work was done: a packet for one player is 1. Returns 1 when the slice is over.
inline int SliceOver(Slice *pSlice, uint32_t nWork)
{
    pSlice->nWork += nWork;
    if (pSlice->nWork < kSliceLook)
        return 0;
    pSlice->nWork = 0;
    return ClockNs() >= pSlice->nEndNs;
}

}  // namespace orx
