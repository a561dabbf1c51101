#include "runtime/clock.h"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <chrono>
#include <thread>
#include <vector>

#include "support/wait.h"

namespace orx {

struct ClockTest : testing::Test {
    void TearDown() override { ClockSetOffset(0); }
};

TEST_F(ClockTest, UptimeSecondsPlusMillisecondsOfTheDay)
{
    struct sysinfo before {
    }, after{};
    timeval day{};
    int nSamples = 0;
    for (int i = 0; i < 1000 && nSamples < 100; i++) {
        sysinfo(&before);
        gettimeofday(&day, nullptr);
        uint32_t nClock = ClockMs();
        sysinfo(&after);
        timeval dayAfter{};
        gettimeofday(&dayAfter, nullptr);
        if (before.uptime != after.uptime || day.tv_usec / 1000 != dayAfter.tv_usec / 1000)
            continue;  // a tick came in between
        nSamples++;
        uint32_t nMs = nClock - static_cast<uint32_t>(before.uptime) * 1000;
        EXPECT_TRUE(nMs == static_cast<uint32_t>(day.tv_usec / 1000) ||
                    nMs == static_cast<uint32_t>(day.tv_usec / 1000) + 1000)
            << nMs << " at " << day.tv_usec;
        EXPECT_EQ(static_cast<uint32_t>(before.uptime), ClockUptime());
    }
    EXPECT_GT(nSamples, 0);
}

// Milliseconds of a clock that nothing sets.
static double SteadyMs()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

TEST_F(ClockTest, ThreadsDoNotPushEachOtherAhead)
{
    uint32_t nStart = ClockMs();
    double steadyStart = SteadyMs();
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
    EXPECT_NEAR(ClockMs() - nStart, SteadyMs() - steadyStart, 400);
}

TEST_F(ClockTest, RunsOnAcrossTheWrap)
{
    ClockSetOffset(0U - ClockMs() - 30);
    uint32_t nStart = ClockMs();
    ASSERT_GT(nStart, 0xFFFFFF00U);
    uint32_t nLast = nStart;
    EXPECT_TRUE(WaitFor([&] {
        uint32_t nNow = ClockMs();
        EXPECT_GE(ClockDiff(nNow, nLast), 0);
        nLast = nNow;
        return nNow < 0x80000000U;
    }));
    EXPECT_GT(ClockDiff(nLast, nStart), 0);
    EXPECT_LT(ClockDiff(nLast, nStart), 5000);
}

}  // namespace orx
