#include "base/printable.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "base/assertion.h"

namespace orx {

struct PrintableTest : testing::Test {
    PrintableTest() { AssertSurvivePeerFaults(1); }
    ~PrintableTest() override { AssertSurvivePeerFaults(0); }
};

TEST_F(PrintableTest, NoByteOfAPeerCommandsTheTerminal)
{
    static const std::tuple<const char *, const char *, const char *> cases[] = {
        {"/a b\xc3\xa4~", "/a b\xc3\xa4~", " /a b\xc3\xa4~"},
        {"a\r\nb\tc\n", "a??b?c?", " a\r\n b\tc\n"},
        {"\x1b[2J\x7f\x01\x1f", "?[2J???", " ?[2J???"},
        {"a\rb\n\r\nc\r", "a?b???c?", " a\r b\n \r\n c\r"},
        {"", "", ""},
    };
    for (const auto &[szText, szLine, szDump] : cases) {
        EXPECT_STREQ(szLine, PrintableText(szText).sz);
        EXPECT_STREQ(szDump, PrintableDump(szText).sz);
        EXPECT_EQ(std::string(szLine).substr(0, 3), PrintableText(szText, 3).sz);
        AssertSurvivePeerFaults(0);
        EXPECT_EQ(szText, PrintableText(szText).sz) << "as it is";
        EXPECT_EQ(szText, PrintableDump(szText).sz);
        AssertSurvivePeerFaults(1);
    }
}

// However the stream is cut.
TEST_F(PrintableTest, CredentialsAreLeftOut)
{
    static const std::pair<const char *, const char *> cases[] = {
        {"A b R/1\r\nCSeq: 1\r\nAuthorization: Basic c2VjcmV0\r\nX: y\r\n\r\n",
         "A b R/1\r\nCSeq: 1\r\nAuthorization: *\r\nX: y\r\n\r\n"},
        {" userauth: secret\r\nUserAuth:secret\r\nAUTHORIZATION :\t secret\r\n",
         " userauth: *\r\nUserAuth:*\r\nAUTHORIZATION :\t *\r\n"},
        {"Authorization: sec\nret\rsecret\r\r\nX: y", "Authorization: *\r\nX: y"},
        {"Authorization: Basic\r\n secret\r\n secret\r\nX: y\r\n", "Authorization: *\r\n *\r\n *\r\nX: y\r\n"},
        {"Authorize: x\r\nAuthorizations: x\r\nUserAuthor: x\r\nX-UserAuth: x\r\nUserUserAuth: x\r\nUser\r\nA",
         "Authorize: x\r\nAuthorizations: x\r\nUserAuthor: x\r\nX-UserAuth: x\r\nUserUserAuth: x\r\nUser\r\nA"},
        {"UserAuth: secret", "UserAuth: *"},
        {"UserAuth:\r\nUserAuth: \r\nUserAuth:\r\n", "UserAuth:\r\nUserAuth: \r\nUserAuth:\r\n"},
        {"A rtsp://me:secret@h:554/a:1//@2 R\r\nX: r://12:34@h/?u=r://me:s/:/e@h,c://h\r\nX: y:z",
         "A rtsp://me:*@h:*/a:1//@2 R\r\nX: r://12:*@h/?u=r://me:*@h,c://h\r\nX: y:z"},
        {"auth://a:secret\nuserauth : ://a:b\r\nA:://:s@:://:x R", "auth://a:*\nuserauth : *\r\nA:://:*@:* R"},
    };
    for (const auto &[szText, szShown] : cases) {
        const std::string text = szText;
        for (size_t nCut = 0; nCut <= text.size(); nCut++) {
            CredentialMask mask;
            std::string shown;
            for (const std::string &piece : {text.substr(0, nCut), text.substr(nCut)}) {
                std::string out(piece.size() + 1, '\0');
                size_t nShown = CredentialMaskCopy(&mask, piece.data(), piece.size(), out.data());
                ASSERT_LE(nShown, out.size());
                shown += out.substr(0, nShown);
            }
            EXPECT_EQ(szShown, shown) << nCut;
        }
    }
}

}  // namespace orx
