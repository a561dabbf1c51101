#include "runtime/sockutil.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx {
namespace {

TEST(SockResolveUri, SplitsHostAndPort)
{
    static const struct {
        const char *szText;
        int nResult;
        uint32_t nIp;
        int nPort;
    } cases[] = {
        {"10.0.0.5:8554", 1, 0x0A000005, 8554},
        {":80", 1, 0, 80},
        {"localhost", 1, 0x7F000001, 554},
        {"10.0.0.5: 80x", 1, 0x0A000005, 80},
        {"no such host", 0, 0, 0},
        {":0", 0, 0, 0},
        {":65536", 0, 0, 0},
        {":4294967376", 0, 0, 0},  // 80 in the low 32 bits
    };
    for (const auto &c : cases) {
        sockaddr_in addr{};
        EXPECT_EQ(c.nResult, SockResolveUri(&addr, c.szText, 554)) << c.szText;
        EXPECT_EQ(c.nIp, c.nResult ? SockGetIp(&addr) : 0) << c.szText;
        EXPECT_EQ(c.nPort, c.nResult ? SockGetPort(&addr) : 0) << c.szText;
    }
}

TEST(SockResolveUriDeathTest, TextTooLong)
{
    sockaddr_in addr{};
    EXPECT_EQ(1, SockResolveUri(&addr, (":80" + std::string(252, ' ')).c_str(), 554));
    EXPECT_DEATH(SockResolveUri(&addr, (":80" + std::string(253, ' ')).c_str(), 554),
                 testing::HasSubstr("`strlen(uri)<sizeof(buf)'"));
}

}  // namespace
}  // namespace orx
