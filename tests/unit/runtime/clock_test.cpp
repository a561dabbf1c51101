#include "runtime/clock.h"

#include <thread>
#include <vector>

#include <sys/time.h>

#include <gtest/gtest.h>

namespace orx {
namespace {

struct ClockTest : testing::Test {
    void TearDown() override { ClockSetOffset(0); }
};

TEST_F(ClockTest, UptimeSecondsPlusMillisecondsOfTheDay)
{
    uint32_t nUptime = 0, nClock = 0;
    timeval day{}, dayAfter{};
    do {  // again when a tick comes in between
        nUptime = ClockUptime();
        gettimeofday(&day, nullptr);
        nClock = ClockMs();
        gettimeofday(&dayAfter, nullptr);
    } while (nUptime != ClockUptime() || day.tv_usec / 1000 != dayAfter.tv_usec / 1000);
    EXPECT_EQ(day.tv_usec / 1000, nClock % 1000);
    EXPECT_LE(nClock / 1000 - nUptime, 1U);
}

TEST_F(ClockTest, NeverGoesBackNorDoThreadsPushItAhead)
{
    std::vector<std::thread> readers(4);
    for (std::thread &reader : readers) {
        reader = std::thread([] {
            uint32_t nLast = ClockMs();
            for (int n = 0; n < 20000; n++) {
                uint32_t nNow = ClockMs();
                ASSERT_GE(ClockDiff(nNow, nLast), 0);
                nLast = nNow;
            }
        });
    }
    for (std::thread &reader : readers)
        reader.join();
    uint32_t nClock = ClockMs();
    EXPECT_LT(ClockDiff(nClock, ClockUptime() * 1000), 2000);
}

TEST_F(ClockTest, RunsOnAcrossTheWrap)
{
    ClockSetOffset(0U - ClockMs() - 30);
    for (uint32_t nLast = ClockMs(), nNow = nLast; nNow >= 0x80000000U; nLast = nNow) {
        nNow = ClockMs();
        ASSERT_GE(ClockDiff(nNow, nLast), 0);
    }
}

}  // namespace
}  // namespace orx
