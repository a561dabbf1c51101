#include "base/textbuf.h"

#include <gtest/gtest.h>

namespace orx {

TEST(TextBuf, FillsToTheLastByteAndHoldsNoHalfAPiece)
{
    char room[8 + 1];
    room[8] = 'g';  // guard behind the buffer
    TextBuf text{room, 8};
    EXPECT_EQ(1, TextAdd(&text, "%s=%d", "ab", 12));
    EXPECT_EQ(1, TextAddBytes(&text, "67", 2));
    EXPECT_EQ(0, TextAddBytes(&text, "8", 1));
    EXPECT_STREQ("ab=1267", room);
    TextBuf spoilt{room, 8};
    EXPECT_EQ(0, TextAdd(&spoilt, "%s", "12345678"));
    EXPECT_EQ(0, TextAddBytes(&spoilt, "x", 1));  // would fit
    EXPECT_STREQ("", room);
    EXPECT_EQ('g', room[8]);
}

TEST(TextCopy, CutsAndTerminates)
{
    static const struct {
        const char *szFrom;
        int nResult;
        const char *szTo;
    } cases[] = {{nullptr, 1, ""}, {"abc", 1, "abc"}, {"abcd", 0, "abc"}};
    for (const auto &c : cases) {
        char to[4] = {'x', 'x', 'x', 'x'};
        EXPECT_EQ(c.nResult, TextCopy(to, sizeof(to), c.szFrom));
        EXPECT_STREQ(c.szTo, to);
    }
    char one[1] = {'x'};
    EXPECT_EQ(0, TextCopy(one, 1, "a"));
    EXPECT_EQ('\0', one[0]);
}

}  // namespace orx
