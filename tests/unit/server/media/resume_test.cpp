#include "server/media/resume.h"

#include <gtest/gtest.h>

#include "base/bytes.h"
#include "runtime/clock.h"
#include "server/media/rewrite.h"
#include "server/media/rtcp.h"
#include "support/playerkit.h"

namespace orx {

// Players know a program until 1 s, by reports of a wall clock. Another pusher, with a clock and stamps of its own,
// goes on at 3 s: its first packets and reports come in some order, the sound late.
struct Comeback {
    const char *szEvents;        // of picture and sound: V, A a first packet; v, a a report
    int32_t nLateMs;             // by which sound comes later than its report tells
    int32_t nVideoMs, nSoundMs;  // where the tracks go on
    int32_t nNtpMs;              // by which the wall clock of reports goes on while stamps go on by 2 s
};

TEST(Resume, TracksAndReportsGoOnTogether)
{
    static const Comeback cases[] = {
        {"vVaA", 0, 2000, 2000, 2000},     {"vVaA", 300, 2000, 1700, 2000}, {"VvaA", 300, 2000, 1700, 2000},
        {"vaAV", 300, 2300, 2000, 2300},   {"VAva", 300, 2000, 2000, 2300}, {"VAvv", 0, 2000, 2000, 2000},
        {"vVaA", 2100, 2000, 2000, 2000},   // that would be a step back
        {"vVaA", -5000, 2000, 2000, 2000},  // on another clock
    };
    for (const Comeback &given : cases) {
        SCOPED_TRACE(&given - cases);
        Program *pProg = ProgramNew("/cam", &g_testOps);
        pProg->desc.nTrackCount = 2;
        pProg->resume.bDue = 1;
        const uint32_t rates[] = {90000, 8000}, befores[] = {0xFFFFFF00U, 7000}, afters[] = {1, 0x80000000U};
        uint8_t rtp[12] = {0x80};
        int32_t gone[2] = {};
        ClockHold(1000000);
        for (size_t i : {0, 1}) {
            MediaInfo *pInfo = &pProg->desc.mediaInfos[i];
            pInfo->nTimeScale = rates[i];
            pInfo->report.nBytes = static_cast<uint32_t>(RtcpMakeSR(pInfo->report.bytes, 1, 500, 0, befores[i], 1, 1));
            PutBe(rtp + 4, 4, befores[i]);
            RewriteNote(&pInfo->rewrite, rtp);
            RewriteContinue(&pInfo->rewrite, 96, 96);
        }
        ClockHold(1002000);
        for (const char *p = given.szEvents; *p; p++) {
            unsigned i = *p == 'A' || *p == 'a';
            MediaInfo *pInfo = &pProg->desc.mediaInfos[i];
            uint32_t nLate = i ? static_cast<uint32_t>(given.nLateMs * static_cast<int32_t>(rates[i] / 1000)) : 0;
            SenderReport report{1, 77777, 0, afters[i] + nLate};
            PutBe(rtp + 4, 4, afters[i]);
            if (*p < 'a')
                ResumeTrack(pProg, i, rtp);
            else
                ResumeReport(pProg, i, &report);
            gone[i] = static_cast<int32_t>(afters[i] + pInfo->rewrite.nStampShift - befores[i]) /
                      static_cast<int32_t>(rates[i] / 1000);
        }
        EXPECT_NEAR(given.nVideoMs, gone[0], 20);
        EXPECT_NEAR(given.nSoundMs, gone[1], 20);
        SenderReport report{1, 77777, 0, afters[0]};
        EXPECT_EQ(1, ResumeReport(pProg, 0, &report));
        EXPECT_NEAR(500000 + given.nNtpMs, report.nNtpSec * 1000 + (report.nNtpFrac * uint64_t{1000} >> 32), 20);
        ProgramDiscard(pProg);
    }
    ClockSetOffset(0);
}

}  // namespace orx
