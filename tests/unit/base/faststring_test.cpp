#include "base/faststring.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using namespace orx;
using testing::HasSubstr;

namespace {

// A handle that cleans up after itself.
struct Text {
    Str s = nullptr;
    explicit Text(const char *sz) { StrCreate(&s, sz, 0); }
    Text() = default;
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

TEST(FastString, CreatesWithTheRoomAskedFor)
{
    static const struct {
        const char *szText;
        size_t nLen;
        const char *szHeld;
    } cases[] = {{"abc", 0, "abc"}, {"abcdef", 2, "ab"}, {"", 0, ""}, {nullptr, 0, ""}, {nullptr, 9, ""}};
    for (const auto &c : cases) {
        Str s = nullptr;
        StrCreate(&s, c.szText, c.nLen);
        EXPECT_EQ(c.szHeld, Held(s));
        EXPECT_EQ(1U, s->nRefs);
        EXPECT_EQ(s->len + 1 + 4, s->total);
        StrDestroy(&s);
        EXPECT_EQ(nullptr, s);
        StrDestroy(&s);
    }
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
        {"StrReplaceStr", [](Str *p) { return StrReplaceStr(p, "B", "xy", 0); }, " axyc "},
        {"StrTrimLeft", [](Str *p) { return StrTrimLeft(p, " "); }, "aBc "},
        {"StrTrimRight", [](Str *p) { return StrTrimRight(p, " "); }, " aBc"},
        {"StrUpper", StrUpper, " ABC "},
        {"StrLower", StrLower, " abc "},
        {"BufClear", BufClear, ""},
        {"BufEnsure", [](Str *p) { return BufEnsure(p, 100); }, " aBc "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.szName);
        Text a(" aBc "), b;
        StrShare(&a.s, &b.s);
        EXPECT_EQ(1, c.pfnChange(&b.s));
        EXPECT_NE(a.s, b.s);
        EXPECT_EQ(1U, a.s->nRefs);
        EXPECT_EQ(1U, b.s->nRefs);
        EXPECT_EQ(" aBc ", Held(a.s));
        EXPECT_EQ(c.szHeld, Held(b.s));

        StrBuf *pOwn = a.s;  // the same on an unshared block
        EXPECT_EQ(1, c.pfnChange(&a.s));
        EXPECT_EQ(c.szHeld, Held(a.s));
        if (c.pfnChange == CopyOnWrite || c.pfnChange == BufClear || c.pfnChange == StrUpper) {
            EXPECT_EQ(pOwn, a.s);
        }
    }
}

TEST(FastStringDeathTest, MisuseAbortsWithItsText)
{
    static const char *const szInvalidP = "`p || !\"invalid string\"'";
    static const char *const szInvalidT = "`t || !\"invalid string\"'";
    static const char *const szRange = "`b->len>=nFrom+nLen || !\"substring out of range\"'";
    static const char *const szFlags = "`nFlags<=3 || !\"invalid search flags\"'";
    static const char *const szSearch = "`t && *t || !\"null string to search\"'";
    static const char *const szReplace = "`x && *x || !\"null string to replace\"'";
    static const char *const szTrim = "`s && *s || !\"invalid char set for trim\"'";
    static const struct {
        const char *szText;
        void (*pfnMisuse)(Str *p);  // a string of "abc"
    } cases[] = {
        {szInvalidP, [](Str *) { StrCat(nullptr, nullptr, 0); }},
        {szInvalidT, [](Str *p) { StrEqual(p, nullptr); }},
        {"`s || !\"invalid string\"'", [](Str *p) { BufCopy(*p, nullptr); }},
        {szRange,
         [](Str *p) {
             Str sub;
             StrSub(p, &sub, 1, 3);
         }},
        {szFlags, [](Str *p) { StrChar(p, 'a', 0, 4); }},
        {szSearch, [](Str *p) { StrStr(p, nullptr, 0, 0); }},
        {szReplace, [](Str *p) { StrReplaceStr(p, nullptr, "", 0); }},
        {szTrim, [](Str *p) { StrTrimLeft(p, ""); }},
        {"`d->total>s->len || !\"destination buffer too small\"'",
         [](Str *p) {
             Text longer("12345678");
             BufCopy(*p, longer.s);
         }},
        {"`!\"out of memory\"'",
         [](Str *) {
             Str s;
             StrCreate(&s, "x", UINT32_MAX - 1);
         }},
    };
    Text a("abc");
    for (size_t i = 0; i < std::size(cases); i++) {
        SCOPED_TRACE(i);
        EXPECT_DEATH(cases[i].pfnMisuse(&a.s), HasSubstr(cases[i].szText));
    }
}

}  // namespace
