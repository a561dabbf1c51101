#include "server/tunnel.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/assertion.h"
#include "base/base64.h"

namespace orx {
namespace {

// The receive buffer of a session and the POST port that feeds it.
struct TunnelTest : testing::Test {
    Session session;
    Port port;
    TunnelTest()
    {
        AssertSurvivePeerFaults(1);
        testing::internal::CaptureStdout();
        Resize(4096);
    }
    ~TunnelTest() override
    {
        testing::internal::GetCapturedStdout();
        free(session.pBuf);
        AssertSurvivePeerFaults(0);
    }
    void Resize(uint32_t nTotal)
    {
        free(session.pBuf);
        session.pBuf = static_cast<uint8_t *>(malloc(nTotal));
        session.nTotal = nTotal;
        Clear();
    }
    void Clear()
    {
        session.nLen = port.nTail = 0;
        session.pBuf[0] = 0;
    }
    int Decode(const std::string &text) { return TunnelDecode(&session, &port, text.data(), text.size()); }
    std::string Held()
    {
        EXPECT_EQ(0, session.pBuf[session.nLen]);
        return {reinterpret_cast<char *>(session.pBuf), session.nLen};
    }
};

std::string Encoded(const std::string &bytes)
{
    std::string text(bytes.size() * 2 + 8, '\0');
    Base64Encode(bytes.data(), text.data(), static_cast<int>(bytes.size()));
    return text.substr(0, text.find('\0'));
}

TEST_F(TunnelTest, DecodesAtAnySplit)
{
    const std::string bytes = std::string("OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n$\0\0\x02zz", 37);
    const std::string text =
        Encoded(bytes.substr(0, 7)) + Encoded(bytes.substr(7, 11)) + Encoded(bytes.substr(18));
    for (size_t i = 0; i <= text.size(); i++) {
        for (size_t j = i; j <= text.size(); j++) {
            Clear();
            ASSERT_TRUE(Decode(text.substr(0, i)) && Decode(text.substr(i, j - i)) && Decode(text.substr(j)));
            ASSERT_EQ(bytes, Held()) << i << ", " << j;
            ASSERT_EQ(0U, port.nTail);
        }
    }
}

TEST_F(TunnelTest, KeepsTheUnfinishedGroupApart)
{
    EXPECT_EQ(1, Decode("T1B"));
    EXPECT_EQ("", Held());
    EXPECT_EQ(3U, port.nTail);
    EXPECT_EQ(1, Decode("U"));
    EXPECT_EQ("OPT", Held());
    EXPECT_EQ(1, Decode("SU9OUw=="));
    EXPECT_EQ("OPTIONS", Held());
}

TEST_F(TunnelTest, StepsOverLineBreaks)
{
    EXPECT_EQ(1, Decode("T1\r\nBU\r\n\r\n SU\t9O\vUw==\n"));
    EXPECT_EQ("OPTIONS", Held());
}

TEST_F(TunnelTest, RefusesWhatIsNoBase64)
{
    for (const char *szText : {"T1B\x01", "T1B-", "T1B$", "OPTIONS * RTSP/1.0", "T1BU\x80"}) {
        Clear();
        EXPECT_EQ(0, Decode(szText)) << szText;
    }
    EXPECT_EQ(0, TunnelDecode(&session, &port, "T1BU\0", 5));
}

TEST_F(TunnelTest, TakesOneOrTwoPaddingCharacters)
{
    for (const char *szText : {"TTTT====", "TT=T", "T===", "=TTT", "===="}) {
        Clear();
        EXPECT_EQ(0, Decode(szText)) << szText;
    }
    Clear();
    EXPECT_EQ(1, Decode("YQ==YWI=YWJj"));
    EXPECT_EQ("aababc", Held());
}

TEST_F(TunnelTest, NeverWritesPastTheBuffer)
{
    Resize(10);  // room for nine bytes and a NUL
    EXPECT_EQ(1, Decode("YWJjYWJjYWJj"));
    EXPECT_EQ("abcabcabc", Held());
    EXPECT_EQ(0, Decode("YWJj"));
    Resize(9);
    EXPECT_EQ(1, Decode("YWJjYWJj"));
    EXPECT_EQ(0, Decode("YWJj"));
    EXPECT_EQ("abcabc", Held());
}

}  // namespace
}  // namespace orx
