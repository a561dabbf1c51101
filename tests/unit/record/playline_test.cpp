#include "record/playline.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace orx {

// Records by the letters of their tracks and their times, and when they are played: "!" for a jump, "=" where the
// recording begins to stand.
TEST(PlayLine, GoesOnWhereARecordingDoesNot)
{
    struct Step {
        char chTrack;
        uint32_t nMs, nLine;
        PlayLineFault eFault = LINE_FOLLOWS;
    };
    static const struct {
        uint32_t nStart;
        int nScale;
        std::vector<Step> steps;
    } cases[] = {
        {0, 1, {{'v', 0, 0}, {'v', 120, 120}, {'v', 40, 40}, {'a', 60, 60}, {'v', 9000, 9000}, {'a', 80, 80}}},
        // both tracks jump, one after the other, and back again
        {0,
         1,
         {{'v', 0, 0},
          {'a', 10, 10},
          {'v', 21600000, 50, LINE_JUMPS},
          {'a', 30, 30},
          {'a', 21600010, 60},
          {'v', 21600040, 90},
          {'v', 80, 130, LINE_JUMPS},
          {'a', 21600030, 80},
          {'a', 90, 140},
          {'v', 120, 170}}},
        {7000, 1, {{'v', 3600000, 7040, LINE_JUMPS}, {'v', 3600040, 7080}}},
        // a picture now and then is none, once it is known
        {0, 1, {{'v', 0, 0}, {'v', 15000, 40, LINE_JUMPS}, {'v', 30000, 15040}, {'v', 45000, 30040}}},
        {1000, 4, {{'v', 1000, 1000}, {'v', 1401, 1101}, {'v', 3000, 1500}, {'v', 900000, 1540, LINE_JUMPS}}},
        {9000, -2, {{'v', 9000, 9000}, {'v', 8001, 9499}, {'v', 0, 13500}}},
        {4294967000, 1, {{'v', 4294967290, 4294967290}, {'v', 34, 34}}},
    };
    for (const auto &c : cases) {
        PlayLine line;
        PlayLineBegin(&line, c.nStart, c.nScale);
        for (const Step &s : c.steps) {
            PlayLineFault eFault;
            EXPECT_EQ(s.nLine, PlayLineTime(&line, s.chTrack == 'a', s.chTrack == 'v', s.nMs, &eFault)) << s.nMs;
            EXPECT_EQ(s.eFault, eFault) << s.nMs;
            if (c.nScale != 1 && eFault == LINE_FOLLOWS) {
                EXPECT_GE(PlayLineMedia(&line, s.nLine), s.nMs);
                EXPECT_LT(PlayLineMedia(&line, s.nLine), s.nMs + 4);
            }
        }
    }
}

TEST(PlayLine, GoesOnWhereTimesStand)
{
    PlayLine line;
    PlayLineFault eFault;
    uint32_t nLine = 0, nSaid = 0;
    for (int i = 0; i < 200; i++) {
        nLine = PlayLineTime(&line, 0, 1, 5000, &eFault);
        nSaid += eFault != LINE_FOLLOWS;
        EXPECT_GE(PlayLineTime(&line, 1, 0, 5000, &eFault) + 40, nLine) << "sound goes with the pictures";
    }
    EXPECT_EQ(1U, nSaid);
    EXPECT_NEAR(5000 + 200 * 40, nLine, 20 * 40);
    EXPECT_EQ(nLine + 40, PlayLineTime(&line, 0, 1, 5040, &eFault)) << "it has gone on by itself";
}

}  // namespace orx
