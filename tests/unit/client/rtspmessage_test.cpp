#include "client/rtspmessage.h"

#include <gtest/gtest.h>

namespace orx {
namespace {

TEST(RtspParse, TellsTheKindsApart)
{
    static const struct {
        std::string text;
        RtspKind kind;
        int nStatus;
        const char *szReason, *szMethod, *szUri;
    } cases[] = {
        {"RTSP/1.0 400 Bad Request(no SDP)\r\n\r\n", RTSP_REPLY, 400, "Bad Request(no SDP)", "", ""},
        {"HTTP/1.1 200 OK \r\nCSeq: 1\r\n\r\n", RTSP_REPLY, 200, "OK ", "", ""},
        {"SLEEP RTSP/1.0\r\nCSeq: 4\r\n\r\n", RTSP_REQUEST, 0, "", "SLEEP", ""},
        {"OPTIONS rtsp://h/a b RTSP/1.0\r\n\r\n", RTSP_REQUEST, 0, "", "OPTIONS", "rtsp://h/a b"},
        {"NULL\r\n\r\n", RTSP_OTHER, 0, "", "", ""},
    };
    for (const auto &c : cases) {
        RtspMessage message;
        for (size_t n = 0; n < c.text.size(); n++)
            EXPECT_EQ(0, RtspParse(c.text.data(), n, &message)) << c.text << " cut at " << n;
        ASSERT_EQ(long(c.text.size()), RtspParse((c.text + "$").data(), c.text.size() + 1, &message));
        EXPECT_EQ(c.kind, message.kind) << c.text;
        EXPECT_EQ(c.nStatus, message.nStatus) << c.text;
        EXPECT_EQ(c.szReason, message.reason);
        EXPECT_EQ(c.szMethod, message.method);
        EXPECT_EQ(c.szUri, message.uri);
    }
}

TEST(RtspParse, WaitsForTheBodyAndLeavesWhatFollows)
{
    const std::string text = "RTSP/1.0 200 OK\r\nContent-length:  5\r\nX:\r\n\r\na\r\n\r\n";
    RtspMessage message;
    for (size_t n = 0; n < text.size(); n++)
        EXPECT_EQ(0, RtspParse(text.data(), n, &message)) << n;
    EXPECT_EQ(long(text.size()), RtspParse((text + "RTSP/1.0").data(), text.size() + 8, &message));
    EXPECT_EQ("a\r\n\r\n", message.body);
    EXPECT_STREQ("", RtspFindHeader(&message, "x"));
    for (const char *szBad : {"-1", "5x", "99999999999999999999", ""}) {
        std::string bad = std::string("RTSP/1.0 200 OK\r\nContent-Length: ") + szBad + "\r\n\r\n";
        EXPECT_EQ(-1, RtspParse(bad.data(), bad.size(), &message)) << szBad;
    }
}

}  // namespace
}  // namespace orx
