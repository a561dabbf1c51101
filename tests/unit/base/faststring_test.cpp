#include "base/faststring.h"

#include <cstring>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {

using testing::HasSubstr;

// What a string holds, after a check of its block.
static std::string Held(const Str &s)
{
    EXPECT_EQ(1U, s->nRefs);
    EXPECT_LT(s->len, s->total);
    EXPECT_EQ('\0', s->text[s->len]);
    return {s->text, s->len};
}

struct Text {
    Str s = nullptr;
    explicit Text(const char *sz) { StrCreate(&s, sz, 0); }
    ~Text() { StrDestroy(&s); }
    Text &operator=(Text &&) = delete;
};

// Whatever changes one of two handles leaves the other's text alone, and each ends up with its own block.
TEST(FastString, ChangingASharedStringLeavesTheOtherHandle)
{
    static const std::tuple<const char *, int (*)(Str *), const char *> cases[] = {
        {"CopyOnWrite", CopyOnWrite, " aBc "},
        {"StrCat", [](Str *p) { return StrCat(p, "d", 0); }, " aBc d"},
        {"StrCat of its own text", [](Str *p) { return StrCat(p, (*p)->text, 0); }, " aBc  aBc "},
        {"StrReplaceStr", [](Str *p) { return StrReplaceStr(p, "B", "xy", 0); }, " axyc "},
        {"StrTrimLeft", [](Str *p) { return StrTrimLeft(p, " "); }, "aBc "},
        {"StrTrimRight", [](Str *p) { return StrTrimRight(p, " "); }, " aBc"},
        {"StrLower", StrLower, " abc "},
        {"StrUpper", StrUpper, " ABC "},
        {"BufClear", BufClear, ""},
        {"BufEnsure", [](Str *p) { return BufEnsure(p, 100); }, " aBc "},
    };
    for (const auto &[szName, pfnChange, szHeld] : cases) {
        Text a(" aBc ");
        Str b = nullptr;
        StrShare(&a.s, &b);
        EXPECT_EQ(1, pfnChange(&b));
        EXPECT_EQ(" aBc ", Held(a.s)) << szName;
        EXPECT_EQ(szHeld, Held(b)) << szName;
        EXPECT_EQ(1, pfnChange(&a.s));  // the same on an unshared block
        EXPECT_EQ(szHeld, Held(a.s)) << szName;
        StrDestroy(&b);
    }
}

// Every pair of texts as the C library compares it; z lies behind [, and Z before it.
TEST(FastString, ComparesAndAdds)
{
    auto sign = [](int n) { return (n > 0) - (n < 0); };
    const char *const texts[] = {"", "abc", "aBc", "AbC", "abcd", "b", "Z", "["};
    for (const char *szA : texts) {
        for (const char *szB : texts) {
            Text a(szA), b(szB);
            EXPECT_EQ(sign(strcmp(szA, szB)), sign(StrCmp(&a.s, &b.s))) << szA << " " << szB;
            EXPECT_EQ(sign(strcasecmp(szA, szB)), sign(StrCmpCaseless(&a.s, &b.s))) << szA << " " << szB;
            EXPECT_EQ(strcmp(szA, szB) == 0, StrEqual(&a.s, &b.s)) << szA << " " << szB;
            EXPECT_EQ(strcasecmp(szA, szB) == 0, StrEqualCaseless(&a.s, &b.s)) << szA << " " << szB;
            Str both = nullptr;
            StrAdd(&a.s, &b.s, &both);
            EXPECT_EQ(std::string(szA) + szB, Held(both));
            StrDestroy(&both);
        }
    }
}

TEST(FastString, Searches)
{
    static const struct {
        const char *szText, *szFind;
        size_t nFrom;
        unsigned nFlags;
        int nFirst, nNext;  // where the match and the one after it are; -1 none
    } cases[] = {
        {"abAbaab", "ab", 0, STR_FORWARD, 0, 5},  {"abAbaab", "ab", 1, STR_CASELESS, 2, 5},
        {"abAbaab", "ab", 6, STR_BACKWARD, 5, 0}, {"abAbaab", "aB", 4, STR_BACKWARD | STR_CASELESS, 2, 0},
        {"abAbaab", "ab", 6, STR_FORWARD, -1, 0}, {"aaa", "aa", 0, STR_FORWARD, 0, -1},
        {"aaa", "aa", 2, STR_BACKWARD, 1, -1},    {"abAba", "A", 0, STR_FORWARD, 2, -1},
        {"abAba", "a", 3, STR_BACKWARD, 0, -1},   {"abAba", "A", 1, STR_CASELESS, 2, 4},
    };
    for (const auto &c : cases) {
        Text text(c.szText);
        auto at = [&](const char *p) { return p ? static_cast<int>(p - text.s->text) : -1; };
        SCOPED_TRACE(std::string(c.szText) + " " + c.szFind + " flags " + std::to_string(c.nFlags));
        const char *p = StrStr(&text.s, c.szFind, c.nFrom, c.nFlags);
        EXPECT_EQ(c.nFirst, at(p));
        EXPECT_EQ(p ? c.nNext : -1, at(StrStrNext(&text.s, c.szFind, p, c.nFlags)));
        if (c.szFind[1])
            continue;
        p = StrChar(&text.s, c.szFind[0], c.nFrom, c.nFlags);
        EXPECT_EQ(c.nFirst, at(p));
        EXPECT_EQ(p ? c.nNext : -1, at(StrCharNext(&text.s, c.szFind[0], p, c.nFlags)));
    }
}

TEST(FastStringDeathTest, WhatDoesNotFitAborts)
{
    Text a("abc"), longer("abcd");
    Str out = nullptr;
    for (size_t nSize : {0U, 8U}) {  // with the four bytes of every block: room for 3 and 11, and the NUL
        Str b = BufMake(nSize);
        BufCopy(b, a.s);
        EXPECT_EQ("abc", Held(b));
        StrDestroy(&b);
    }
    Str b = BufMake(0);
    EXPECT_DEATH(BufCopy(b, longer.s), HasSubstr("`d->total>s->len || !\"destination buffer too small\"'"));
    StrDestroy(&b);
    EXPECT_DEATH(StrStr(&a.s, "b", 0, 4), HasSubstr("`nFlags<=3 || !\"invalid search flags\"'"));
    EXPECT_DEATH(StrSub(&a.s, &out, 1, 3), HasSubstr("`b->len>=nFrom+nLen || !\"substring out of range\"'"));
    EXPECT_DEATH(StrCreate(&out, "x", UINT32_MAX - 1), HasSubstr("`!\"out of memory\"'"));
}

}  // namespace orx
