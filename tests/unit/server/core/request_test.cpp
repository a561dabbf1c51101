#include "server/core/request.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "server/core/settings.h"

namespace orx {

struct RequestTest : testing::Test {
    Request request;
    void SetUp() override { RequestInit(&request); }
    void TearDown() override { RequestReset(&request); }
    int Parse(const std::string &block)
    {
        std::vector<char> exact(block.begin(), block.end());  // so that a step past its end is seen
        RequestReset(&request);
        return RequestParse(&request, exact.data(), exact.size());
    }
    std::string Header(const char *szName) const
    {
        const char *sz = RequestHeaderValue(&request, szName);
        return sz ? sz : "(none)";
    }
};

TEST_F(RequestTest, TakesStartLines)
{
    static const std::pair<const char *, const char *> good[] = {
        {"OPTIONS rtsp://h/a RTSP/1.0", "OPTIONS|rtsp://h/a|RTSP|1.0"}, {"x \t y\v\t Z/9 ", "x|y|Z|9"}};
    for (const auto &[szLine, szParts] : good) {
        ASSERT_EQ(1, Parse(std::string(szLine) + "\r\nAccept: a/b\r\n\r\n")) << szLine;
        EXPECT_EQ(szParts, std::string(RequestMethod(&request)) + "|" + RequestUri(&request) + "|" +
                               StrText(request.protocol) + "|" + StrText(request.version));
    }
    // the slash of the header behind does not count, and a reply is no request
    for (const char *szBad : {"", "OPTIONS", "OPTIONS rtsp://h/a", "OPTIONS * RTSP", "OPTIONS * RTSP/",
                              "OPTIONS * /1.0", " OPTIONS * RTSP/1.0", "\nOPTIONS * RTSP/1.0", "RTSP/1.0 200 OK"})
        EXPECT_EQ(-1, Parse(std::string(szBad) + "\r\nAccept: a/b\r\n\r\n")) << szBad;
}

// It is bounded as it is then, not as it was sent.
TEST_F(RequestTest, DecodesTheUri)
{
    static const std::pair<const char *, const char *> cases[] = {
        {"/a%20b", "/a b"}, {"/%41%5a%5A", "/AZZ"}, {"/100%", "/100%"},   {"/%4g", "/%4g"},
        {"/%%41", "/%A"},   {"/%2541", "/%41"},     {"%2e%2E/x", "../x"},
    };
    for (const auto &[szSent, szStored] : cases) {
        ASSERT_EQ(1, Parse(std::string("PLAY ") + szSent + " RTSP/1.0\r\n\r\n")) << szSent;
        EXPECT_STREQ(szStored, RequestUri(&request)) << szSent;
    }
    std::string escaped;
    for (int i = 0; i < 255; i++)
        escaped += "%61";
    for (const std::string &longest : {std::string(255, 'u'), escaped}) {
        EXPECT_EQ(1, Parse("PLAY " + longest + " RTSP/1.0\r\n\r\n"));
        EXPECT_EQ(255U, StrLen(request.uri));
        EXPECT_EQ(-1, Parse("PLAY " + longest + "u RTSP/1.0\r\n\r\n"));
    }
}

// With StandardPlayers: the path of the program, and the URI that descriptions count from.
TEST_F(RequestTest, TakesQueriesAndSlashesOff)
{
    static const struct {
        const char *szUri, *szPath, *szBase;
    } cases[] = {
        {"rtsp://h/a", "/a", "rtsp://h/a"},
        {"rtsp://h/a/b//", "/a/b", "rtsp://h/a/b"},
        {"rtsp://h/a%20b/?x=1/", "/a b", "rtsp://h/a%20b"},
        {"rtsp://h/a%3Fb?c", "/a?b", "rtsp://h/a%3Fb"},
        {"*", "*", "*"},
        {"/", "/", "/"},
        {"?", "?", ""},
    };
    g_settings.bStandardPlayers = 1;
    for (const auto &c : cases) {
        ASSERT_EQ(1, Parse(std::string("PLAY ") + c.szUri + " RTSP/1.0\r\n\r\n")) << c.szUri;
        EXPECT_STREQ(c.szPath, RequestPath(&request)) << c.szUri;
        EXPECT_STREQ(c.szBase, RequestBase(&request)) << c.szUri;
    }
    g_settings.bStandardPlayers = 0;
    ASSERT_EQ(1, Parse("PLAY rtsp://h/a/?b RTSP/1.0\r\n\r\n"));
    EXPECT_STREQ("/a/?b", RequestPath(&request));
}

TEST_F(RequestTest, TakesStatusLines)
{
    static const struct {
        std::string block;
        int nStatus;
        const char *szReason, *szCSeq;
    } cases[] = {
        {"RTSP/1.0 501 Not Implemented\r\n\r\n", 501, "Not Implemented", "(none)"},
        {"RTSP/1.0 200 OK\r\nCSeq: 7\r\n\r\n", 200, "OK", "7"},
        {"RTSP/1.0 200\r\n\r\n", 200, "", "(none)"},
        {"RTSP/1.0 404 a\rb\r\n\r\n", 404, "a", "(none)"},
        {"RTSP/1.0 404 " + std::string(100, 'x') + "\r\n\r\n", 404, nullptr, "(none)"},
        {"RTSP/1.0 2000 OK\r\n\r\n", kBadAnswer, "", "(none)"},
        {"RTSP/1.0\r\n\r\n", kBadAnswer, "", "(none)"},
        {"RTSP/1.0 200 OK\r\nno header\r\n\r\n", kBadAnswer, "", "(none)"},
    };
    for (const auto &c : cases) {
        std::vector<char> exact(c.block.begin(), c.block.end());
        RequestReset(&request);
        RequestParseAnswer(&request, exact.data(), exact.size());
        EXPECT_EQ(c.nStatus, request.nStatus) << c.block;
        EXPECT_EQ(1, request.bParsed);
        EXPECT_EQ(c.szReason ? c.szReason : std::string(63, 'x'), request.szReason);
        EXPECT_EQ(c.szCSeq, Header("CSeq")) << c.block;
    }
}

TEST_F(RequestTest, TakesHeaders)
{
    const std::string head = "SETUP a RTSP/1.0\r\nCSeq:5\r\nTransport:  \t RTP/AVP;x=1:2 \r\n\r\n";
    ASSERT_EQ(1, Parse(head + "what follows is not looked at"));
    EXPECT_EQ(head.size(), request.nHeadLen);
    EXPECT_EQ("5", Header("cseq"));
    EXPECT_EQ("RTP/AVP;x=1:2 ", Header("TRANSPORT"));
    EXPECT_EQ("(none)", Header("Trans"));
    for (size_t n = 1; n < head.size(); n++)
        EXPECT_EQ(0, Parse(head.substr(0, n))) << "incomplete at " << n;
}

}  // namespace orx
