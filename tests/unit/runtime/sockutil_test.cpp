#include "runtime/sockutil.h"

#include <string>

#include <arpa/inet.h>

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

TEST(SockAddrClass, ByFirstByte)
{
    static const struct {
        const char *szIp;
        char cClass;
        int bUsable;
    } cases[] = {
        {"0.0.0.0", 'E', 1},   {"0.0.0.1", 'E', 0},   {"1.0.0.0", 'A', 1},   {"127.0.0.1", 'E', 0},
        {"128.0.0.0", 'B', 1}, {"192.0.0.1", 'C', 1}, {"224.0.0.1", 'D', 1}, {"255.255.255.255", 'E', 1},
    };
    for (const auto &c : cases) {
        sockaddr_in addr{};
        addr.sin_addr.s_addr = inet_addr(c.szIp);
        EXPECT_EQ(c.cClass, SockAddrClass(&addr)) << c.szIp;
        EXPECT_EQ(c.bUsable, SockIsUsableAddr(&addr)) << c.szIp;
    }
}

}  // namespace
}  // namespace orx
