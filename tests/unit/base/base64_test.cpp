#include "base/base64.h"

#include <cstring>
#include <string_view>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {

using namespace std::string_view_literals;

TEST(Base64, EncodesAndDecodesStrictly)
{
    static const std::pair<std::string_view, std::string_view> cases[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xfb\xef\xbe\xff", "++++/w=="},
    };
    for (const auto &[bytes, text] : cases) {
        char encoded[32], decoded[32];
        EXPECT_EQ(text.size() + 1, Base64EncodeCount(encoded, bytes.data(), bytes.size()));
        EXPECT_EQ(text, encoded);
        EXPECT_EQ(text.size() + 1, Base64EncodedSize(bytes.size()));
        EXPECT_EQ(bytes.size(), Base64DecodeStrict(decoded, encoded));
        EXPECT_EQ(bytes, decoded);
        EXPECT_EQ(text.size(), Base64PaddedLength(encoded));
    }
}

TEST(Base64, DecodesTolerantly)
{
    static const std::tuple<std::string_view, size_t, std::string_view> cases[] = {
        {" Q\tU\vJ D\r\nREVG", 0, "ABCDEF"},
        {"QUJDREVG", 4, "ABC"},
        {"QUJD\0REVG"sv, 9, "ABC"},  // a NUL ends it before the length does
        {"QUJD\xffREVG", 0, "ABC"},
        {"QUI=", 0, "AB"},
        {"QQ=\r\n=\r\n", 0, "A"},
        {"QQ", 0, "A\0"sv},  // unfinished groups give one byte more
    };
    for (const auto &[text, nLen, bytes] : cases) {
        char out[32];
        char *pEnd = Base64Decode(text.data(), out, nLen);
        ASSERT_NE(nullptr, pEnd) << text;
        EXPECT_EQ('\0', *pEnd) << text;
        EXPECT_EQ(bytes, std::string_view(out, size_t(pEnd - out))) << text;
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

}  // namespace orx
