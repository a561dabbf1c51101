#include "server/media/mediatime.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "server/core/settings.h"
#include "support/playerkit.h"

namespace orx {

// What a pusher whose tracks share a wall clock sends: pictures and sound for some seconds, reports every two.
struct PushedClock {
    const char *szName;
    int32_t nSoundLateMs = 0;   // by which all of the sound comes after its pictures
    int bReportsAhead = 0;      // they stand before the first packets
    int32_t nClockSetMs = 0;    // the wall clock is set by so much after ten seconds
    int32_t nSoundSlow = 0;     // parts per thousand by which the clock of the sound is slow
    int32_t nSoundEpochMs = 0;  // its reports are on another wall clock
    int32_t nWithinMs = 5;      // so well the tracks are together at the end
};

TEST(TimeNoteReport, BringsTracksTogether)
{
    static const PushedClock cases[] = {
        {"in step", 0},
        {"late sound", 700},
        {"late sound, reports first", 700, 1},
        {"very late sound", 3000},
        {"sound ahead", -3000},
        {"wall clock set", 300, 0, 3600000},
        {"set by little", 0, 0, -900},
        {"set back, reports first", 0, 1, -90000},
        {"slow sound", 0, 0, 0, 2, 0, 20},
        {"another wall clock", 0, 0, 0, 0, 86400000},
    };
    g_settings.bStandardPushers = g_settings.bNeverLose = 1;
    for (const PushedClock &given : cases) {
        SCOPED_TRACE(given.szName);
        Program *pProg = ProgramNew("/cam", &g_testOps);
        const uint32_t rates[] = {90000, 44100};
        uint32_t firsts[] = {0xFFFFF000U, 12345};  // one wraps at once
        uint32_t lasts[2] = {};
        int64_t sums[2] = {};  // of where the tracks lie apart from the truth
        for (int i = 0; i < 2; i++)
            pProg->desc.mediaInfos[i].nTimeScale = rates[i];
        auto stamp = [&](int i, int32_t nMs) {
            int64_t nTrue = i == 1 ? int64_t{nMs} * (1000 - given.nSoundSlow) : int64_t{nMs} * 1000;
            return firsts[i] + static_cast<uint32_t>(nTrue * rates[i] / 1000000);
        };
        auto report = [&](int i, int32_t nMs) {
            uint32_t nNtp = 1000000000U + static_cast<uint32_t>(nMs + (nMs >= 10000 ? given.nClockSetMs : 0) +
                                                                (i == 1 ? given.nSoundEpochMs : 0));
            const SenderReport told{1, nNtp / 1000, static_cast<uint32_t>((uint64_t{nNtp % 1000} << 32) / 1000 + 1),
                                    stamp(i, nMs)};
            TimeNoteReport(pProg, static_cast<unsigned>(i), &told);
        };
        for (int32_t nMs = 0; nMs < 60000; nMs += 20) {
            ClockHold(static_cast<uint32_t>(1000000 + nMs));
            for (int i : {0, 1}) {
                int32_t nSent = i == 1 ? nMs - given.nSoundLateMs : nMs;
                if (nSent < std::min(0, -given.nSoundLateMs))
                    continue;
                int bReport = nMs % 2000 == (given.bReportsAhead || nMs >= 2000 ? 0 : 1);
                bReport |= given.bReportsAhead && lasts[i] == 0;
                if (bReport)
                    report(i, nSent);
                uint32_t nTime, nFlags;
                ASSERT_EQ(1, PacketTime(pProg, static_cast<unsigned>(i), stamp(i, nSent), &nTime, &nFlags));
                EXPECT_EQ(0U, nFlags) << nMs;
                EXPECT_TRUE(lasts[i] == 0 || ClockDiff(nTime, lasts[i]) > 0) << i << " at " << nMs;
                lasts[i] = nTime;
                sums[i] = nTime - static_cast<uint32_t>(nSent);
            }
        }
        EXPECT_NEAR(0, static_cast<int32_t>(sums[1] - sums[0]), given.nWithinMs);
        ProgramDiscard(pProg);
    }
    ClockSetOffset(0);
    g_settings.bStandardPushers = g_settings.bNeverLose = 0;
}

// A pusher's jumps and lies show neither in a player's times nor in those of a recording.
TEST(PacketTime, GoesOnWhereStampsJump)
{
    g_settings.bStandardPushers = 1;
    Program *pProg = ProgramNew("/cam", &g_testOps);
    pProg->desc.mediaInfos[0].nTimeScale = 90000;
    uint32_t nStamp = 5000, nLast = 0, nNowMs = 1000000;
    for (uint32_t nJump : {0U, 600U * 90000, 0U - 600U * 90000, 0x7FFFFFFFU, 0x80000000U, 0U - 90000U * 3}) {
        nStamp += nJump;
        for (int i = 0; i < 3; i++) {
            const SenderReport lie{1, nStamp * 7, nJump, nStamp + nJump + 0x80000000U * (i & 1)};
            uint32_t nTime, nFlags;
            ClockHold(nNowMs += 40);
            ASSERT_EQ(1, PacketTime(pProg, 0, nStamp += 3600, &nTime, &nFlags));
            TimeNoteReport(pProg, 0, &lie);
            EXPECT_TRUE(nLast == 0 || (ClockDiff(nTime, nLast) > 0 && ClockDiff(nTime, nLast) < 200)) << nJump;
            nLast = nTime;
        }
    }
    ProgramDiscard(pProg);
    ClockSetOffset(0);
    g_settings.bStandardPushers = 0;
}

}  // namespace orx
