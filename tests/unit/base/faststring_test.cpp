#include "base/faststring.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {
namespace {

using testing::HasSubstr;

// A handle that cleans up after itself.
struct Text {
    Str s = nullptr;
    Text() = default;
    explicit Text(const char *sz, size_t nLen = 0) { StrCreate(&s, sz, nLen); }
    ~Text() { StrDestroy(&s); }
    Text(const Text &) = delete;
    Text &operator=(const Text &) = delete;
};

// What a string holds, after a check of its block.
std::string Held(const Str &s)
{
    EXPECT_LT(s->len, s->total);
    EXPECT_EQ('\0', s->text[s->len]);
    return {s->text, s->len};
}

TEST(FastString, TakesTextsOfAnyLength)
{
    EXPECT_EQ("abc", Held(Text("abc").s));
    EXPECT_EQ("ab", Held(Text("abcdef", 2).s));
    EXPECT_EQ("", Held(Text("").s));
    EXPECT_EQ("", Held(Text(nullptr, 9).s));
}

// Whatever changes one of two handles leaves the other's text alone, and each ends up with its own block.
TEST(FastString, ChangingASharedStringLeavesTheOtherHandle)
{
    static const struct {
        const char *szName;
        int (*pfnChange)(Str *);
        const char *szHeld;
    } cases[] = {
        {"CopyOnWrite", CopyOnWrite, " aBc "},
        {"StrCat", [](Str *p) { return StrCat(p, "d", 0); }, " aBc d"},
        {"StrCat of its own text", [](Str *p) { return StrCat(p, (*p)->text, 0); }, " aBc  aBc "},
        {"StrReplaceStr", [](Str *p) { return StrReplaceStr(p, "B", "xy", 0); }, " axyc "},
        {"StrTrimLeft", [](Str *p) { return StrTrimLeft(p, " "); }, "aBc "},
        {"StrTrimRight", [](Str *p) { return StrTrimRight(p, " "); }, " aBc"},
        {"StrLower", StrLower, " abc "},
        {"BufClear", BufClear, ""},
        {"BufEnsure", [](Str *p) { return BufEnsure(p, 100); }, " aBc "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.szName);
        Text a(" aBc "), b;
        StrShare(&a.s, &b.s);
        EXPECT_EQ(1, c.pfnChange(&b.s));
        EXPECT_EQ(" aBc ", Held(a.s));
        EXPECT_EQ(c.szHeld, Held(b.s));
        EXPECT_EQ(1, c.pfnChange(&a.s));  // the same on an unshared block
        EXPECT_EQ(c.szHeld, Held(a.s));
        EXPECT_EQ(1U, a.s->nRefs);
        EXPECT_EQ(1U, b.s->nRefs);
    }
}

TEST(FastStringDeathTest, WhatDoesNotFitAborts)
{
    Text a("abc");
    Str out = nullptr;
    EXPECT_DEATH(StrSub(&a.s, &out, 1, 3), HasSubstr("`b->len>=nFrom+nLen || !\"substring out of range\"'"));
    EXPECT_DEATH(BufCopy(a.s, Text("12345678").s),
                 HasSubstr("`d->total>s->len || !\"destination buffer too small\"'"));
    EXPECT_DEATH(StrCreate(&out, "x", UINT32_MAX - 1), HasSubstr("`!\"out of memory\"'"));
}

}  // namespace
}  // namespace orx
