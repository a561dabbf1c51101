#include "base/httphead.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

namespace orx {

TEST(HttpHeadTest, HeadsAreTakenOrRefused)
{
    static const struct {
        std::string text;
        HttpHeadState eState;
        size_t nBody;
    } cases[] = {
        {"GET /status?a=b HTTP/1.1\r\nHost: x\r\n\r\n", HTTP_HEAD_WHOLE, 0},
        {"POST /status?a=b HTTP/1.0\r\ncontent-LENGTH:  12 \r\n\r\nhello", HTTP_HEAD_WHOLE, 12},
        {"POST /status?a=b HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n", HTTP_HEAD_WHOLE, SIZE_MAX},
        {"GET /status HTTP/1.1\r\nHost", HTTP_HEAD_MORE, 0},
        {"", HTTP_HEAD_MORE, 0},
        {"GET status HTTP/1.1\r\n\r\n", HTTP_HEAD_BAD, 0},
        {"GET /a b HTTP/1.1\r\n\r\n", HTTP_HEAD_BAD, 0},
        {"GET /status HTTP/2\r\n\r\n", HTTP_HEAD_BAD, 0},
        {"GET HTTP/1.1\r\n\r\n", HTTP_HEAD_BAD, 0},
        {"\r\n\r\n", HTTP_HEAD_BAD, 0},
        {"GET /x HTTP/1.1\r\nContent-Length: -1\r\n\r\n", HTTP_HEAD_BAD, 0},
        {std::string(kMaxHttpHead, 'x'), HTTP_HEAD_TOO_LONG, 0},
    };
    for (const auto &[text, eState, nBody] : cases) {
        HttpHead head;
        ASSERT_EQ(eState, HttpHeadRead(text, &head)) << text;
        if (eState != HTTP_HEAD_WHOLE)
            continue;
        EXPECT_EQ("/status", head.path);
        EXPECT_EQ("a=b", head.query);
        EXPECT_EQ(nBody, std::max(head.nBody, nBody)) << head.nBody;
        EXPECT_GE(head.nBody, nBody / 20);
    }
}

TEST(HttpHeadTest, ParametersAreDecoded)
{
    static const struct {
        const char *szQuery;
        int nResult;
        const char *szValue;
    } cases[] = {
        {"program=a%2Fb%20c+d&day=1", 1, "a/b c d"},
        {"x=1&program=", 1, ""},
        {"day=1", 0, ""},
        {"xprogram=a", 0, ""},
        {"program=%4", -1, ""},
        {"program=%zz", -1, ""},
        {"program=%00", -1, ""},
        {"program=12345678901234567", -1, ""},
        {"program=%41", 1, "A"},
    };
    for (const auto &[szQuery, nResult, szValue] : cases) {
        char sz[16];
        EXPECT_EQ(nResult, HttpQueryValue(szQuery, "program", sz, sizeof(sz))) << szQuery;
        if (nResult >= 0) {
            EXPECT_STREQ(szValue, sz);
        }
    }
}

}  // namespace orx
