#include "base/faststring.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {
namespace {

using testing::HasSubstr;

// What a string holds, after a check of its block.
std::string Held(const Str &s)
{
    EXPECT_EQ(1U, s->nRefs);
    EXPECT_LT(s->len, s->total);
    EXPECT_EQ('\0', s->text[s->len]);
    return {s->text, s->len};
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
        Str a = nullptr, b = nullptr;
        StrCreate(&a, " aBc ", 0);
        StrShare(&a, &b);
        EXPECT_EQ(1, c.pfnChange(&b));
        EXPECT_EQ(" aBc ", Held(a));
        EXPECT_EQ(c.szHeld, Held(b));
        EXPECT_EQ(1, c.pfnChange(&a));  // the same on an unshared block
        EXPECT_EQ(c.szHeld, Held(a));
        StrDestroy(&a);
        StrDestroy(&b);
    }
}

TEST(FastStringDeathTest, WhatDoesNotFitAborts)
{
    Str a = nullptr, out = nullptr;
    StrCreate(&a, "abc", 0);
    EXPECT_DEATH(StrSub(&a, &out, 1, 3), HasSubstr("`b->len>=nFrom+nLen || !\"substring out of range\"'"));
    EXPECT_DEATH(StrCreate(&out, "x", UINT32_MAX - 1), HasSubstr("`!\"out of memory\"'"));
    StrDestroy(&a);
}

}  // namespace
}  // namespace orx
