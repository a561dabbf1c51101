// The times of a recording's pictures and sound as they can be believed. A time that was damaged, or a clock
// that was set, would otherwise make hours of nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orx {

struct Timeline {
    std::vector<int64_t> times;  // ms, one for each record of video and audio in the order of the file
    size_t nMended = 0;          // of them, not as recorded
};

// Puts times that lie apart from both their neighbours to the one before, and goes on without a break where
// the clock runs back or leaps by more than hours. A pause in which nothing was recorded stays.
void TimelineMend(Timeline *pTimeline);

}  // namespace orx
