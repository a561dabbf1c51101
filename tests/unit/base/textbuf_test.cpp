#include "base/textbuf.h"

#include <cstring>

#include <gtest/gtest.h>

namespace orx {
namespace {

TEST(TextBuf, NeverHoldsHalfAPiece)
{
    char room[8 + 1];
    room[8] = 'g';  // guard behind the buffer
    TextBuf text{room, 8};
    EXPECT_EQ(1, TextAdd(&text, "%s=%d", "ab", 12));
    EXPECT_EQ(0, TextAdd(&text, "%s", "xyz"));  // one too many
    EXPECT_EQ(0, TextAdd(&text, "%s", "x"));    // would fit, but the text is spoilt
    EXPECT_EQ(0, TextAddBytes(&text, "x", 1));
    EXPECT_STREQ("ab=12", text.sz);
    EXPECT_EQ('g', room[8]);
}

TEST(TextBuf, FillsToTheLastByte)
{
    char room[8];
    TextBuf text{room, sizeof(room)};
    EXPECT_EQ(1, TextAddBytes(&text, "a\0b", 3));
    EXPECT_EQ(1, TextAdd(&text, "%s", "4567"));
    EXPECT_EQ(0, TextAddBytes(&text, "8", 1));
    EXPECT_EQ(7u, text.nLen);
    EXPECT_EQ(0, memcmp(room, "a\0b4567", 8));
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

}  // namespace
}  // namespace orx
