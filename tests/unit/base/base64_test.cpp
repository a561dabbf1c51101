#include "base/base64.h"

#include <cstring>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {
namespace {

using namespace std::string_view_literals;

TEST(Base64, EncodesAndDecodesStrictly)
{
    static const struct {
        std::string_view bytes, text;
    } cases[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xfb\xef\xbe\xff", "++++/w=="},
    };
    for (const auto &c : cases) {
        char text[32], bytes[32];
        EXPECT_EQ(c.text.size() + 1, Base64EncodeCount(text, c.bytes.data(), c.bytes.size()));
        EXPECT_EQ(c.text, text);
        EXPECT_EQ(c.text.size() + 1, Base64EncodedSize(c.bytes.size()));
        EXPECT_EQ(c.bytes.size(), Base64DecodeStrict(bytes, text));
        EXPECT_EQ(c.bytes, bytes);
        EXPECT_EQ(c.text.size(), Base64PaddedLength(text));
    }
}

TEST(Base64, DecodesTolerantly)
{
    static const struct {
        std::string_view text;
        size_t nLen;
        std::string_view bytes;
    } cases[] = {
        {" Q\tU\vJ D\r\nREVG", 0, "ABCDEF"},
        {"QUJDREVG", 4, "ABC"},
        {"QUJD\0REVG"sv, 9, "ABC"},  // a NUL ends it before the length does
        {"QUJD\xffREVG", 0, "ABC"},
        {"QUI=", 0, "AB"},
        {"QQ=\r\n=\r\n", 0, "A"},
        {"QQ", 0, "A\0"sv},  // unfinished groups give one byte more
    };
    for (const auto &c : cases) {
        char out[32];
        char *pEnd = Base64Decode(c.text.data(), out, c.nLen);
        ASSERT_NE(nullptr, pEnd) << c.text;
        EXPECT_EQ('\0', *pEnd) << c.text;
        EXPECT_EQ(c.bytes, std::string_view(out, size_t(pEnd - out))) << c.text;
    }
}

TEST(Base64, RefusesWhatFollowsPadding)
{
    for (const char *szText : {"QQ==QQ==", "QUI=Q", "QQ===", "QUI==", "====", "QUI= ="}) {
        char out[32];
        EXPECT_THAT(PeerFaults([&] { EXPECT_EQ(nullptr, Base64Decode(szText, out, 0)); }),
                    testing::HasSubstr("!\"Invalid input stream!\""));
    }
}

}  // namespace
}  // namespace orx
