#include "server/media/ingest.h"

#include <gtest/gtest.h>

#include "runtime/clock.h"
#include "server/core/program.h"
#include "support/playerkit.h"

namespace orx {

// Time stamps that a pusher makes run away, by ways of its own: they go on as if they had not.
TEST(FeedProgram, TimesDoNotOverflow)
{
    g_settings.nCacheSeconds = 10;
    for (int bStandard : {0, 1}) {
        g_settings.bStandardPushers = bStandard;
        for (uint32_t nRate : {1000U, 90000U, 1000000000U}) {
            Session session;
            session.nFlags = SESSION_PUSHER;
            session.pProg = ProgramNew("/cam", &g_testOps);
            session.pProg->desc.nTrackCount = 1;
            MediaInfo *pInfo = &session.pProg->desc.mediaInfos[0];
            pInfo->nTimeScale = nRate;
            pInfo->clock = {1,         0, INT64_MAX / (int64_t{nRate} << 29) * (int64_t{nRate} << 29), 0, 0, ClockMs(),
                            bStandard, {}};
            for (uint32_t i = 1; i <= 4; i++) {
                std::string frame = Frame(0, MakeRtp({96, 0, i * nRate / 2}, "picture"));
                EXPECT_EQ(1, FeedProgram(&session, 0, reinterpret_cast<const uint8_t *>(frame.data()),
                                         static_cast<uint32_t>(frame.size()), nullptr));
                EXPECT_EQ(500 * i, reinterpret_cast<DataBlock *>(session.pProg->cache.Pktq.pLast)->nTimestamp) << nRate;
            }
            ProgramDiscard(session.pProg);
        }
    }
    g_settings.bStandardPushers = 0;
}

// Where nothing is to be lost, the time line of a program goes on whatever its clocks do.
TEST(FeedProgram, TimesFollowOneLineAcrossJumps)
{
    constexpr uint32_t kJump = DB_JUMP | DB_SPLIT;
    struct Step {
        unsigned nTrack;
        uint32_t nWaitMs;  // that go by
        int64_t nStampMs;  // by which the track's stamps go on
        uint32_t nFlags;
        int32_t nLineMs;  // by which its times do
    };
    static const std::vector<Step> cases[] = {
        {{0, 40, 10040, 0, 10040}, {0, 40, 10042, kJump, 41}, {0, 40, 40, 0, 40}},
        {{0, 40, -1000, 0, -1000}, {0, 40, -1001, kJump, 41}},
        {{0, 15000, 15000, 0, 15000}, {0, 20000, 40, 0, 40}, {0, 0, 9990, 0, 9990}},  // slow, then held up
        {{0, 30000000, 30000040, 0, 30000040}},                                       // more than half a turn at 90 kHz
        {{0, 40, 5000000, kJump, 41}, {1, 20, 5000040, DB_JUMP, 81}, {0, 40, 40, 0, 40}},  // one camera, two tracks
        {{1, 40, -70000, kJump, 41}, {0, 40, -900000, DB_JUMP, 81}},                       // two clocks
        {{0, 40, 90000, kJump, 41}, {0, 40, -90000, kJump, 41}, {2, 0, 3600000, DB_JUMP, 81}},
    };
    g_settings.bNeverLose = 1;
    for (int bStandard : {0, 1}) {
        g_settings.bStandardPushers = bStandard;
        for (const auto &steps : cases) {
            SCOPED_TRACE(&steps - cases);
            Session session;
            session.nFlags = SESSION_PUSHER;
            Program *pProg = session.pProg = ProgramNew("/cam", &g_testOps);
            pProg->cache.nCacheLimit = 1U << 30;
            pProg->desc.nTrackCount = 3;
            pProg->desc.nVideoTrack = 0;
            pProg->desc.nAudioTrack = 1;
            pProg->desc.nDataTrack = 2;
            uint32_t nClock = 1000000, lines[3]{};
            int64_t stamps[] = {7000, 500000000, 7000};  // one began elsewhere
            auto feed = [&](unsigned nTrack) {
                MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
                pInfo->nTimeScale = nTrack == 0 ? 90000 : 8000;
                auto nStamp = static_cast<uint32_t>(stamps[nTrack] * pInfo->nTimeScale / 1000);
                std::string frame = Frame(2 * static_cast<int>(nTrack), MakeRtp({96, 0, nStamp}, "picture"));
                EXPECT_EQ(1, FeedProgram(&session, nTrack, reinterpret_cast<const uint8_t *>(frame.data()),
                                         static_cast<uint32_t>(frame.size()), nullptr));
                return reinterpret_cast<DataBlock *>(pProg->cache.Pktq.pLast);
            };
            ClockHold(nClock);
            for (unsigned i = 0; i < 3; i++)
                lines[i] = feed(i)->nTimestamp;
            EXPECT_NEAR(0, ClockDiff(lines[1], lines[0]), 1);
            for (const Step &step : steps) {
                ClockHold(nClock += step.nWaitMs);
                stamps[step.nTrack] += step.nStampMs;
                const DataBlock *pBlock = feed(step.nTrack);
                EXPECT_EQ(step.nFlags, pBlock->nFlags & kJump);
                EXPECT_NEAR(step.nLineMs, ClockDiff(pBlock->nTimestamp, lines[step.nTrack]), 1);
                lines[step.nTrack] = pBlock->nTimestamp;
            }
            ProgramDiscard(pProg);
        }
    }
    ClockSetOffset(0);
    g_settings.bStandardPushers = g_settings.bNeverLose = 0;
}

}  // namespace orx
