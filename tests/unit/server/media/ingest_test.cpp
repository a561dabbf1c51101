#include "server/media/ingest.h"

#include <gtest/gtest.h>

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
            pInfo->clock = {1, 0, INT64_MAX / (int64_t{nRate} << 29) * (int64_t{nRate} << 29), 0};
            for (uint32_t i = 1; i <= 4; i++) {
                std::string frame = Frame(0, MakeRtp({96, 0, i * nRate / 2}, "picture"));
                EXPECT_EQ(1, FeedProgram(&session, 0, reinterpret_cast<const uint8_t *>(frame.data()),
                                         static_cast<uint32_t>(frame.size())));
                EXPECT_EQ(500 * i, reinterpret_cast<DataBlock *>(session.pProg->cache.Pktq.pLast)->nTimestamp) << nRate;
            }
            ProgramDiscard(session.pProg);
        }
    }
    g_settings.bStandardPushers = 0;
}

}  // namespace orx
