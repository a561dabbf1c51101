#include "runtime/clock.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

namespace orx {

static constexpr uint32_t kMsPerSecond = 1000;
static constexpr long kNsPerMs = 1000000;

static uint32_t OffsetFromEnvironment()
{
    const char *szOffset = getenv("ORX_CLOCK_OFFSET_MS");
    return szOffset ? static_cast<uint32_t>(strtoull(szOffset, nullptr, 10)) : 0;
}

// Seconds since system start as sysinfo() counts them: one that has begun counts whole.
static uint32_t UptimeSeconds(const timespec &boot)
{
    return static_cast<uint32_t>(boot.tv_sec) + (boot.tv_nsec != 0);
}

// The clock before it is kept from going back. The second of the time of day does not begin when that of
// uptime does, so in a part of each second the milliseconds have started over while uptime has not moved on;
// somebody who read the clock all the time would see it go back there, and add 1000. Taking the two phases
// into account gives the same to somebody who reads it once an hour. (The clocks are read without entering
// the kernel, which sysinfo() does not offer.)
static uint32_t RawMs(uint32_t nOffset)
{
    timespec boot{}, day{};
    clock_gettime(CLOCK_BOOTTIME, &boot);
    clock_gettime(CLOCK_REALTIME, &day);
    uint32_t nMs = UptimeSeconds(boot) * kMsPerSecond + static_cast<uint32_t>(day.tv_nsec / kNsPerMs);
    return nMs + nOffset + (day.tv_nsec < boot.tv_nsec ? kMsPerSecond : 0);
}

struct ClockState {
    std::atomic<uint32_t> nOffset{0};
    std::atomic<uint32_t> nAheadSeconds{0};  // the same without a wrap: uptime has none
    std::atomic<uint32_t> nLast{0};          // the last reading handed out
    std::atomic<int> bBegun{0};
};

static ClockState g_state;
static pthread_once_t g_once = PTHREAD_ONCE_INIT;

static void Begin()
{
    g_state.nOffset = OffsetFromEnvironment();
    g_state.nAheadSeconds = g_state.nOffset / kMsPerSecond;
    g_state.nLast = RawMs(g_state.nOffset);
    g_state.bBegun = 1;
}

// No local static: what guards one brings the run-time library's exceptions along.
static ClockState &State()
{
    if (!g_state.bBegun.load(std::memory_order_acquire))
        pthread_once(&g_once, Begin);
    return g_state;
}

uint32_t ClockMs()
{
    ClockState &state = State();
    for (;;) {
        // the last reading is taken first: should another thread move it on meanwhile, the exchange fails,
        // where otherwise its newer reading would make ours look like a step back
        uint32_t nLast = state.nLast.load();
        uint32_t nNow = RawMs(state.nOffset.load());
        if (ClockDiff(nNow, nLast) < 0)
            nNow += kMsPerSecond;
        if (ClockDiff(nNow, nLast) < 0)
            nNow = nLast;
        if (state.nLast.compare_exchange_weak(nLast, nNow))
            return nNow;
    }
}

uint32_t ClockUptime()
{
    timespec boot{};
    clock_gettime(CLOCK_BOOTTIME, &boot);
    return UptimeSeconds(boot) + State().nAheadSeconds.load();
}

void ClockSetOffset(uint64_t nMs)
{
    ClockState &state = State();
    auto nOffset = static_cast<uint32_t>(nMs);
    state.nOffset.store(nOffset);
    state.nAheadSeconds.store(static_cast<uint32_t>(nMs / kMsPerSecond));
    state.nLast.store(RawMs(nOffset));
}

// It never goes back, and what it was last lies far ahead.
void ClockHold(uint32_t nMs)
{
    constexpr uint32_t kFarMs = 1U << 30;
    ClockState &state = State();
    state.nOffset.store(nMs - RawMs(0) - kFarMs);
    state.nAheadSeconds.store(state.nOffset / kMsPerSecond);
    state.nLast.store(nMs);
}

}  // namespace orx
