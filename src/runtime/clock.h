// The clocks of the server. Any thread.
#pragma once

#include <cstdint>
#include <ctime>

namespace orx {

// Milliseconds: system uptime in seconds * 1000 plus the milliseconds of the time of day, plus 1000 from the
// moment the time of day begins a new second until uptime does. A reading below the one before (the time of
// day was set back) has 1000 added, so that the clock never goes back. 32 bits: it wraps after 49.7 days, so
// two readings are only ever compared by ClockDiff.
uint32_t ClockMs();

// Whole seconds since the system was started.
uint32_t ClockUptime();

// How far a lies behind b, in the clock's unit; negative when a comes before b. Right across a wrap.
inline int32_t ClockDiff(uint32_t a, uint32_t b)
{
    return static_cast<int32_t>(a - b);
}

// Nanoseconds of a clock of the system's, for times that are measured here and now: no test aid moves it.
inline int64_t ClockNs(clockid_t nClock = CLOCK_MONOTONIC)
{
    timespec now{};
    clock_gettime(nClock, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// Test aids, so that a wrap can be seen without waiting for it. With ClockSetOffset the first two clocks run
// nMs ahead of the machine's from now on (0: no longer ahead), the first one across as many wraps as that
// are; readings that other threads take meanwhile may be of either kind. The environment variable
// ORX_CLOCK_OFFSET_MS (decimal, below 2^32), read once at the first reading, starts the clocks at such an
// offset: 4294967296 - uptime * 1000 - 5000 lets a program wrap after five seconds.
void ClockSetOffset(uint64_t nMs);
// Holds ClockMs at nMs, for up to twelve days or until it is held or set again: tests that tell what happens
// after so many milliseconds do not depend on how busy the machine is.
void ClockHold(uint32_t nMs);

}  // namespace orx
