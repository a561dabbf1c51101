#include "base/base64.h"

#include <cstring>

#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/assertion.h"

namespace orx {
namespace {

using namespace std::string_view_literals;

TEST(Base64, EncodesAlike)
{
    static const struct {
        std::string_view bytes, text;
    } cases[] = {
        {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xfb\xef\xbe", "++++"}, {"\xff\x00\x80"sv, "/wCA"},
    };
    for (const auto &c : cases) {
        char out[32];
        memset(out, 'x', sizeof(out));
        char *pEnd = Base64Encode(c.bytes.data(), out, c.bytes.size());
        EXPECT_EQ(out + c.text.size(), pEnd) << c.text;
        EXPECT_EQ(c.text, out);
        EXPECT_EQ(c.text.size() + 1, Base64EncodedSize(c.bytes.size()));

        memset(out, 'x', sizeof(out));
        EXPECT_EQ(c.text.size() + 1, Base64EncodeCount(out, c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(c.text, out);
    }
}

TEST(Base64, EncodesALengthOfZero)
{
    char out[16];
    EXPECT_EQ(out + 8, Base64Encode("admin", out, 0));  // the pointer form then takes the text's own length
    EXPECT_STREQ("YWRtaW4=", out);
    EXPECT_EQ(1u, Base64EncodeCount(out, "admin", 0));
    EXPECT_STREQ("", out);
    EXPECT_EQ(1u, Base64EncodedSize(0));
}

TEST(Base64, DecodesTolerantly)
{
    static const struct {
        const char *szText;
        size_t nLen;
        std::string_view bytes;
    } cases[] = {
        {"", 0, ""},
        {"QUJD\r\nREVG", 0, "ABCDEF"},
        {" Q\tU\vJ D\n", 0, "ABC"},
        {"QUJDREVG", 4, "ABC"},
        {"QUJD\0REVG", 9, "ABC"},  // a NUL ends it before the length does
        {"QUI=", 0, "AB"},
        {"QQ==", 0, "A"},
        {"QQ=\r\n=\r\n", 0, "A"},
        {"QUJDQQ==", 0, "ABCA"},
        {"QQ==*QUJD", 0, "A"},
        {"QQ", 0, "A\0"sv},  // unfinished groups give one byte more
        {"Q", 0, "@"},
        {"QQ=", 0, "A\0"sv},
        {"QUJD=", 0, "ABC\0"sv},
        {"QUJD\xffREVG", 0, "ABC"},
        {"-_", 0, ""},
        {"++//", 0, "\xfb\xef\xff"},
    };
    for (const auto &c : cases) {
        char out[32];
        memset(out, 'x', sizeof(out));
        char *pEnd = Base64Decode(c.szText, out, c.nLen);
        ASSERT_NE(nullptr, pEnd) << c.szText;
        EXPECT_EQ('\0', *pEnd) << c.szText;
        EXPECT_EQ(c.bytes, std::string_view(out, size_t(pEnd - out))) << c.szText;
    }
}

TEST(Base64DeathTest, RefusesWhatFollowsPadding)
{
    for (const char *szText : {"QQ==QQ==", "QUI=Q", "QQ===", "QUI==", "====", "QUI= ="}) {
        char out[32];
        EXPECT_DEATH(Base64Decode(szText, out, 0), testing::HasSubstr("!\"Invalid input stream!\""))
            << szText;
        AssertSurvivePeerFaults(1);
        EXPECT_EQ(nullptr, Base64Decode(szText, out, 0)) << szText;
        AssertSurvivePeerFaults(0);
    }
}

TEST(Base64, DecodesStrictly)
{
    static const struct {
        const char *szText;
        std::string_view bytes;
        size_t nPaddedLength;
    } cases[] = {
        {"", "", 0},         {"QUJD", "ABC", 4},         {"QUJDQQ==", "ABCA", 8},
        {"QUI=", "AB", 4},   {"QUI", "AB", 3},           {"QQ", "A", 2},
        {"Q", "", 1},        {"QUJDQ", "ABC", 5},        {"QQ==QQ==", "A", 4},
        {"QQ====x", "A", 6}, {"QUJD\r\nREVG", "ABC", 4}, {" QUJD", "", 0},
        {"=QUJD", "", 1},
    };
    for (const auto &c : cases) {
        char out[32];
        memset(out, 'x', sizeof(out));
        EXPECT_EQ(c.bytes.size(), Base64DecodeStrict(out, c.szText)) << c.szText;
        EXPECT_EQ(c.bytes, out) << c.szText;
        EXPECT_EQ(c.nPaddedLength, Base64PaddedLength(c.szText)) << c.szText;
    }
}

}  // namespace
}  // namespace orx
