#include "server/methods/attempts.h"

#include <gtest/gtest.h>

#include "runtime/clock.h"
#include "server/core/settings.h"

namespace orx {

struct AttemptsTest : testing::Test {
    void SetUp() override
    {
        g_settings.nAuthFailDelay = 500;
        AttemptsReset();
    }
    void TearDown() override
    {
        g_settings.nAuthFailDelay = 0;
        AttemptsReset();
        ClockSetOffset(0);
    }
};

TEST_F(AttemptsTest, DelayDoublesUpToItsEnd)
{
    for (uint32_t nDelay : {0, 0, 500, 1000, 2000, 4000, 8000, 8000}) {
        AttemptsNoteWrong(1, 0);
        EXPECT_EQ(nDelay, AttemptsDelay(1));
    }
    EXPECT_EQ(0U, AttemptsDelay(2)) << "nobody else waits";
    for (int i = 0; i < 100; i++)
        AttemptsNoteWrong(1, 0);
    g_settings.nAuthFailDelay = 8000;
    EXPECT_EQ(8000U, AttemptsDelay(1)) << "nothing overflows";
    AttemptsForget(1, 7);
    EXPECT_EQ(0U, AttemptsDelay(1));
    for (uint32_t nSecret : {0, 7, 8, 8, 8})
        AttemptsNoteWrong(1, nSecret);
    g_settings.nAuthFailDelay = 500;
    AttemptsForget(1, 7);
    EXPECT_EQ(500U, AttemptsDelay(1)) << "an account of one's own does not help at another";
}

TEST_F(AttemptsTest, WrongOnesCountForAMinute)
{
    for (uint32_t nMs : {0U, 40000U, 59000U}) {
        ClockSetOffset(nMs);
        AttemptsNoteWrong(1, 0);
    }
    EXPECT_EQ(500U, AttemptsDelay(1));
    ClockSetOffset(62000);
    EXPECT_EQ(0U, AttemptsDelay(1)) << "the first is too long ago";
    AttemptsNoteWrong(1, 0);
    EXPECT_EQ(500U, AttemptsDelay(1));
}

// Of 257 addresses the one that has been quiet for longest is forgotten.
TEST_F(AttemptsTest, RemembersTheLatestAddresses)
{
    for (uint32_t i = 0; i < 3 * 256; i++) {
        ClockSetOffset(30 * i);
        AttemptsNoteWrong(i % 256 + 1, 0);
    }
    AttemptsNoteWrong(1000, 0);
    EXPECT_EQ(0U, AttemptsDelay(1));
    for (uint32_t nIp : {2U, 200U, 256U})
        EXPECT_EQ(500U, AttemptsDelay(nIp)) << nIp;
}

}  // namespace orx
