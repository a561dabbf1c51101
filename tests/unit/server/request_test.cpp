#include "server/request.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace orx {
namespace {

struct RequestTest : testing::Test {
    Request request;
    void SetUp() override { RequestInit(&request); }
    void TearDown() override { RequestReset(&request); }
    int Parse(const std::string &block)
    {
        RequestReset(&request);
        return RequestParse(&request, block.data(), block.size());
    }
    std::string Header(const char *szName)
    {
        const char *sz = RequestHeaderValue(&request, szName);
        return sz ? sz : "(none)";
    }
};

TEST_F(RequestTest, TakesStartLines)
{
    static const struct {
        const char *szLine;
        int nResult;
        const char *szMethod, *szUri, *szProtocol, *szVersion;
    } cases[] = {
        {"OPTIONS rtsp://h/a RTSP/1.0", 1, "OPTIONS", "rtsp://h/a", "RTSP", "1.0"},
        {"GET / HTTP/1.1", 1, "GET", "/", "HTTP", "1.1"},
        {"x \t y\v\t Z/9", 1, "x", "y", "Z", "9"},
        {"OPTIONS * RTSP/1.0 ", 1, "OPTIONS", "*", "RTSP", "1.0"},
        // white space in front
        {" OPTIONS * RTSP/1.0", -1, "", "", "", ""},
        {"\tOPTIONS * RTSP/1.0", -1, "", "", "", ""},
        {"\vOPTIONS * RTSP/1.0", -1, "", "", "", ""},
        {"\rOPTIONS * RTSP/1.0", -1, "", "", "", ""},
        {"\nOPTIONS * RTSP/1.0", -1, "", "", "", ""},
        {"", -1, "", "", "", ""},
        // no '/' behind the URI, and empty tokens
        {"OPTIONS", -1, "", "", "", ""},
        {"OPTIONS *", -1, "", "", "", ""},
        {"OPTIONS rtsp://h/a", -1, "", "", "", ""},
        {"OPTIONS * RTSP", -1, "", "", "", ""},
        {"OPTIONS * /1.0", -1, "", "", "", ""},
        {"OPTIONS * RTSP/", -1, "", "", "", ""},
        {"OPTIONS * RTSP/ ", -1, "", "", "", ""},
        // replies are no requests
        {"RTSP/1.0 200 OK", -1, "", "", "", ""},
        {"RTSP/1.0 404 Not Found", -1, "", "", "", ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.nResult, Parse(std::string(c.szLine) + "\r\nCSeq: 1\r\n\r\n")) << c.szLine;
        if (c.nResult != 1)
            continue;
        EXPECT_STREQ(c.szMethod, RequestMethod(&request)) << c.szLine;
        EXPECT_STREQ(c.szUri, RequestUri(&request)) << c.szLine;
        EXPECT_STREQ(c.szProtocol, StrText(request.protocol)) << c.szLine;
        EXPECT_STREQ(c.szVersion, StrText(request.version)) << c.szLine;
    }
}

// The slash that counts is one of the start line, not of a header.
TEST_F(RequestTest, LooksForTheSlashInTheStartLineOnly)
{
    EXPECT_EQ(-1, Parse("OPTIONS * RTSP\r\nAccept: a/b\r\n\r\n"));
}

TEST_F(RequestTest, DecodesTheUri)
{
    static const std::pair<const char *, const char *> cases[] = {
        {"/a%20b", "/a b"}, {"/%41%5a%5A", "/AZZ"}, {"/100%", "/100%"},
        {"/%4", "/%4"},     {"/%4g", "/%4g"},       {"/%%41", "/%A"},
        {"/%2541", "/%41"}, {"%2e%2E/x", "../x"},   {"/%c3%a4", "/\xc3\xa4"},
    };
    for (const auto &[szSent, szStored] : cases) {
        ASSERT_EQ(1, Parse(std::string("PLAY ") + szSent + " RTSP/1.0\r\n\r\n")) << szSent;
        EXPECT_STREQ(szStored, RequestUri(&request)) << szSent;
    }
}

TEST_F(RequestTest, BoundsTheDecodedUri)
{
    auto parse = [&](const std::string &uri) { return Parse("PLAY " + uri + " RTSP/1.0\r\n\r\n"); };
    EXPECT_EQ(1, parse(std::string(255, 'u')));
    EXPECT_EQ(255U, StrLen(request.uri));
    EXPECT_EQ(-1, parse(std::string(256, 'u')));
    std::string escaped;
    for (int i = 0; i < 255; i++)
        escaped += "%61";
    EXPECT_EQ(1, parse(escaped)) << "765 bytes that become 255";
    EXPECT_EQ(-1, parse(escaped + "%61"));
}

TEST_F(RequestTest, TakesHeaders)
{
    ASSERT_EQ(1, Parse("SETUP a RTSP/1.0\r\nCSeq:5\r\nTransport:  \t RTP/AVP;x=1:2 \r\nX-Y: z\r\n\r\n"));
    EXPECT_EQ("5", Header("CSeq"));
    EXPECT_EQ("5", Header("cseq"));
    EXPECT_EQ("RTP/AVP;x=1:2 ", Header("TRANSPORT"));
    EXPECT_EQ("z", Header("x-y"));
    EXPECT_EQ("(none)", Header("X"));
}

TEST_F(RequestTest, TellsMalformedFromIncomplete)
{
    static const struct {
        const char *szHeaders;
        int nResult;
    } cases[] = {
        {"\r\n", 1},
        {"A: b\r\n\r\n", 1},
        {"A: b\r\n\r\nwhat follows is not looked at", 1},
        // the block ends before the empty line
        {"", 0},
        {"A: b", 0},
        {"A: b\r\n", 0},
        {"A: b\r\nC: d", 0},
        {"A: b\r\nC: d\r", 0},
        // no ':' follows at all
        {"nothing\r\n", 0},
        {"nothing\r\n\r\n", 0},
        // the next ':' stands in a later line
        {"nothing\r\nA: b\r\n\r\n", -1},
        {"A: b\r\nnothing\r\nC: d\r\n\r\n", -1},
        // empty values
        {"A:\r\n\r\n", -1},
        {"A: \t \r\n\r\n", -1},
        {"A: \r\nB: c\r\n\r\n", -1},
        // repeated names, in any case
        {"A: b\r\nA: b\r\n\r\n", -1},
        {"CSeq: 1\r\nX: y\r\ncseq: 2\r\n\r\n", -1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.nResult, Parse(std::string("PLAY a RTSP/1.0\r\n") + c.szHeaders)) << c.szHeaders;
}

// Every beginning of a good request is incomplete, and none is read past its end.
TEST_F(RequestTest, IsIncompleteAtEveryCut)
{
    const std::string whole = "PLAY rtsp://h/a RTSP/1.0\r\nCSeq: 7\r\nRange: npt=0-\r\n\r\n";
    for (size_t n = 1; n < whole.size(); n++) {
        std::vector<char> cut(whole.begin(), whole.begin() + static_cast<long>(n));  // its very size
        RequestReset(&request);
        EXPECT_EQ(0, RequestParse(&request, cut.data(), cut.size())) << n;
    }
}

TEST_F(RequestTest, CountsTheHeadersLengthWithTheEmptyLine)
{
    const std::string head = "PLAY a RTSP/1.0\r\nCSeq: 7\r\n\r\n";
    ASSERT_EQ(1, Parse(head + "body"));
    EXPECT_EQ(head.size(), request.nHeadLen);
    EXPECT_EQ(1, request.bParsed);
    RequestReset(&request);
    EXPECT_EQ(0, request.bParsed);
    EXPECT_EQ(0, request.nHeadLen);
    EXPECT_EQ("(none)", Header("CSeq"));
}

TEST_F(RequestTest, AttachesBodiesBehindEachOther)
{
    EXPECT_EQ(1, RequestAttachBody(&request, "abc", 3));
    EXPECT_EQ(1, RequestAttachBody(&request, "", 0));
    EXPECT_EQ(1, RequestAttachBody(&request, "\0d", 2));
    ASSERT_EQ(5U, request.nBody);
    EXPECT_EQ(std::string("abc\0d\0", 6), std::string(request.pBody, 6)) << "ended by a NUL";
}

TEST(UriPath, StartsAtTheFirstSlashBehindTheScheme)
{
    static const std::pair<const char *, const char *> cases[] = {
        {"rtsp://h:554/live/a", "/live/a"},
        {"rtsp://h/", "/"},
        {"rtsp://h", "rtsp://h"},
        {"/live/a", "/live/a"},
        {"*", "*"},
        {"://x/y://z", "/y://z"},
        {"", ""},
    };
    for (const auto &[szUri, szPath] : cases)
        EXPECT_STREQ(szPath, UriPath(szUri)) << szUri;
}

}  // namespace
}  // namespace orx
