#include "runtime/clock.h"

#include <ctime>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace orx {

struct ClockTest : testing::Test {
    void TearDown() override { ClockSetOffset(0); }
};

// A second more from where the day begins a new second until uptime does.
TEST_F(ClockTest, UptimeSecondsPlusMillisecondsOfTheDay)
{
    for (bool bBetween : {false, true}) {
        uint32_t nUptime = 0, nClock = 0;
        timespec boot{}, day{}, dayAfter{};
        do {  // again when a tick comes in between
            nUptime = ClockUptime();
            clock_gettime(CLOCK_BOOTTIME, &boot);
            clock_gettime(CLOCK_REALTIME, &day);
            nClock = ClockMs();
            clock_gettime(CLOCK_REALTIME, &dayAfter);
        } while (nUptime != ClockUptime() || day.tv_nsec / 1000000 != dayAfter.tv_nsec / 1000000 ||
                 (day.tv_nsec < boot.tv_nsec) != bBetween);
        auto nMs = static_cast<uint32_t>(day.tv_nsec / 1000000);
        EXPECT_EQ(nUptime * 1000 + nMs + (bBetween ? 1000 : 0), nClock);
    }
}

// Across the wrap, which comes meanwhile.
TEST_F(ClockTest, NeverGoesBackNorDoThreadsPushItAhead)
{
    ClockSetOffset(0U - ClockMs() - 100);
    std::vector<std::thread> readers(4);
    for (std::thread &reader : readers) {
        reader = std::thread([] {
            for (uint32_t nLast = ClockMs(), nNow = nLast; nNow >= 0x80000000U; nLast = nNow) {
                nNow = ClockMs();
                ASSERT_GE(ClockDiff(nNow, nLast), 0);
            }
        });
    }
    for (std::thread &reader : readers)
        reader.join();
    EXPECT_LT(ClockDiff(ClockMs(), ClockUptime() * 1000), 3000);
}

// Uptime goes on across wraps of the milliseconds.
TEST_F(ClockTest, RunsAheadByYears)
{
    constexpr uint64_t kYearMs = 365ULL * 86400 * 1000;
    uint32_t nUptime = ClockUptime(), nMs = ClockMs();
    ClockSetOffset(3 * kYearMs);
    EXPECT_NEAR(nUptime + 3 * kYearMs / 1000, ClockUptime(), 60);
    EXPECT_LT(ClockMs() - nMs - static_cast<uint32_t>(3 * kYearMs), 60000U);
}

}  // namespace orx
