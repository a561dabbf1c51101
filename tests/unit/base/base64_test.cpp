#include "base/base64.h"

#include <cstring>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/assertion.h"

namespace orx {
namespace {

using namespace std::string_view_literals;

TEST(Base64, Encodes)
{
    static const struct {
        std::string_view bytes, text;
    } cases[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"\xfb\xef\xbe", "++++"},
        {"\xff\x00\x80"sv, "/wCA"},
    };
    for (const auto &c : cases) {
        char out[32] = "not ended";
        EXPECT_EQ(c.text.size() + 1, Base64EncodeCount(out, c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(c.text, out);
        EXPECT_EQ(c.text.size() + 1, Base64EncodedSize(c.bytes.size()));
    }
    char out[16];
    EXPECT_EQ(out + 8, Base64Encode("admin", out, 0));  // this form takes the text's own length for 0
    EXPECT_STREQ("YWRtaW4=", out);
}

TEST(Base64, DecodesTolerantly)
{
    static const struct {
        const char *szText;
        size_t nLen;
        std::string_view bytes;
    } cases[] = {
        {"", 0, ""},
        {"++//", 0, "\xfb\xef\xff"},
        {" Q\tU\vJ D\r\nREVG", 0, "ABCDEF"},
        {"QUJDREVG", 4, "ABC"},
        {"QUJD\0REVG", 9, "ABC"},  // a NUL ends it before the length does
        {"QUJD\xffREVG", 0, "ABC"},
        {"QUI=", 0, "AB"},
        {"QQ=\r\n=\r\n", 0, "A"},
        {"QQ==*QUJD", 0, "A"},
        {"QQ", 0, "A\0"sv},  // unfinished groups give one byte more
        {"QUJD=", 0, "ABC\0"sv},
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
    char out[32];
    EXPECT_DEATH(Base64Decode("QQ==QQ==", out, 0), testing::HasSubstr("!\"Invalid input stream!\""));
    AssertSurvivePeerFaults(1);
    for (const char *szText : {"QQ==QQ==", "QUI=Q", "QQ===", "QUI==", "====", "QUI= ="})
        EXPECT_EQ(nullptr, Base64Decode(szText, out, 0)) << szText;
    AssertSurvivePeerFaults(0);
}

TEST(Base64, DecodesStrictly)
{
    static const struct {
        const char *szText;
        std::string_view bytes;
        size_t nPaddedLength;
    } cases[] = {
        {"", "", 0},          {"QUJDQQ==", "ABCA", 8},    {"QUI", "AB", 3}, {"Q", "", 1},
        {"QQ==QQ==", "A", 4}, {"QUJD\r\nREVG", "ABC", 4}, {" QUJD", "", 0}, {"=QUJD", "", 1},
    };
    for (const auto &c : cases) {
        char out[32] = "not ended";
        EXPECT_EQ(c.bytes.size(), Base64DecodeStrict(out, c.szText)) << c.szText;
        EXPECT_EQ(c.bytes, out) << c.szText;
        EXPECT_EQ(c.nPaddedLength, Base64PaddedLength(c.szText)) << c.szText;
    }
}

}  // namespace
}  // namespace orx
