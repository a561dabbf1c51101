#include "client/rtspmessage.h"

#include <gtest/gtest.h>

#include "client/rtspauth.h"

using namespace orx;

TEST(RtspParse, TellsTheKindsApart)
{
    static const struct {
        const char *szText;
        RtspKind kind;
        int nStatus;
        const char *szReason, *szMethod, *szUri;
    } cases[] = {
        {"RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n", RTSP_REPLY, 200, "OK", "", ""},
        {"RTSP/1.0 400 Bad Request(no SDP)\r\n\r\n", RTSP_REPLY, 400, "Bad Request(no SDP)", "", ""},
        {"RTSP/1.0 200 OK \r\nCSeq: 1\r\n\r\n", RTSP_REPLY, 200, "OK ", "", ""},
        {"HTTP/1.1 200 OK\r\n\r\n", RTSP_REPLY, 200, "OK", "", ""},
        {"SLEEP RTSP/1.0\r\nCSeq: 4\r\n\r\n", RTSP_REQUEST, 0, "", "SLEEP", ""},
        {"OPTIONS rtsp://h/a b RTSP/1.0\r\n\r\n", RTSP_REQUEST, 0, "", "OPTIONS", "rtsp://h/a b"},
        {"NULL\r\n\r\n", RTSP_OTHER, 0, "", "", ""},
    };
    for (const auto &c : cases) {
        std::string text = c.szText;
        RtspMessage message;
        for (size_t n = 0; n < text.size(); n++)
            EXPECT_EQ(0, RtspParse(text.data(), n, &message)) << c.szText << " cut at " << n;
        ASSERT_EQ(static_cast<long>(text.size()), RtspParse((text + "$").data(), text.size() + 1, &message));
        EXPECT_EQ(c.kind, message.kind) << c.szText;
        EXPECT_EQ(c.nStatus, message.nStatus) << c.szText;
        EXPECT_EQ(c.szReason, message.reason);
        EXPECT_EQ(c.szMethod, message.method);
        EXPECT_EQ(c.szUri, message.uri);
        EXPECT_EQ(text, message.raw);
    }
}

TEST(RtspParse, WaitsForTheBodyAndLeavesWhatFollows)
{
    std::string text = "RTSP/1.0 200 OK\r\nContent-length:  5\r\nX:\r\n\r\na\r\n\r\nRTSP/1.0";
    size_t nWhole = text.size() - 8;
    RtspMessage message;
    for (size_t n = 0; n < nWhole; n++)
        EXPECT_EQ(0, RtspParse(text.data(), n, &message)) << n;
    EXPECT_EQ(static_cast<long>(nWhole), RtspParse(text.data(), text.size(), &message));
    EXPECT_EQ("a\r\n\r\n", message.body);
    EXPECT_EQ(5, RtspHeaderNumber(&message, "CONTENT-LENGTH", -1));
    EXPECT_STREQ("", RtspFindHeader(&message, "x"));
    EXPECT_EQ(7, RtspHeaderNumber(&message, "x", 7));
    for (const char *szBad : {"-1", "5x", "99999999999999999999", "", "+1"}) {
        std::string bad = std::string("RTSP/1.0 200 OK\r\nContent-Length: ") + szBad + "\r\n\r\n";
        EXPECT_EQ(-1, RtspParse(bad.data(), bad.size(), &message)) << szBad;
    }
}

// The example of RFC 2617, section 3.5, without its qop directive, and the well-known one of section 2.
TEST(RtspAuthorization, AnswersBothSchemes)
{
    RtspChallenge challenge;
    ASSERT_TRUE(RtspParseChallenge("Basic realm=\"WallyWorld\"", &challenge));
    EXPECT_EQ("Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==",
              RtspAuthorization(&challenge, "Aladdin", "open sesame", "GET", "/"));
    ASSERT_TRUE(RtspParseChallenge(
        "Digest realm=\"testrealm@host.com\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\"", &challenge));
    EXPECT_EQ(
        "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", "
        "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", "
        "uri=\"/dir/index.html\", response=\"670fd8c2df070c60b045671b8b24ff02\"",
        RtspAuthorization(&challenge, "Mufasa", "Circle Of Life", "GET", "/dir/index.html"));
    EXPECT_FALSE(RtspParseChallenge("Custom realm=\"x\"", &challenge));
    EXPECT_EQ(16U, RtspUserToken("", "").size());
    EXPECT_EQ(RtspUserToken("", "x"), RtspUserToken("anonymous", "x"));
}
