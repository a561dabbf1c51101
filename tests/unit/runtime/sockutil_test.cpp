#include "runtime/sockutil.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

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

TEST(SockAddrClass, GoesByTheFirstByte)
{
    static const struct {
        const char *szAddr;
        char cClass;
        int bMulticast, bBroadcast, bUsable;
    } cases[] = {
        {"0.0.0.0", 'E', 0, 0, 1},         {"1.0.0.0", 'A', 0, 0, 1},   {"126.255.255.255", 'A', 0, 0, 1},
        {"127.0.0.1", 'E', 0, 0, 0},       {"128.0.0.0", 'B', 0, 0, 1}, {"191.255.255.255", 'B', 0, 0, 1},
        {"192.0.0.0", 'C', 0, 0, 1},       {"223.0.0.0", 'C', 0, 0, 1}, {"224.0.0.0", 'D', 1, 0, 1},
        {"239.255.255.255", 'D', 1, 0, 1}, {"240.0.0.0", 'E', 0, 0, 0}, {"255.255.255.254", 'E', 0, 0, 0},
        {"255.255.255.255", 'E', 0, 1, 1},
    };
    for (const auto &c : cases) {
        sockaddr_in addr{};
        EXPECT_EQ(1, SockSetAddr(&addr, c.szAddr, 1));
        EXPECT_EQ(c.cClass, SockAddrClass(&addr)) << c.szAddr;
        EXPECT_EQ(c.bMulticast, SockIsMulticast(&addr)) << c.szAddr;
        EXPECT_EQ(c.bBroadcast, SockIsBroadcast(&addr)) << c.szAddr;
        EXPECT_EQ(c.bUsable, SockIsUsableAddr(&addr)) << c.szAddr;
    }
}

TEST(SockUtil, BindsAndConnects)
{
    sockaddr_in addr{};
    int udp = SockBindUdpAny();
    EXPECT_STREQ("0.0.0.0", SockLocalIpString(udp));
    EXPECT_EQ(0, SockGetLocalName(udp, &addr));
    EXPECT_NE(0, SockGetPort(&addr));
    EXPECT_NE(0, fcntl(udp, F_GETFL) & O_NONBLOCK);
    SockClose(udp);

    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    int listening = SockListenTcp(&addr);
    EXPECT_STREQ("127.0.0.1", SockLocalIpString(listening));
    EXPECT_EQ(0, SockGetLocalName(listening, &addr));
    for (int bListening : {1, 0}) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(bListening, connect_timeout(fd, &addr, 5));
        SockClose(fd);
        SockClose(std::exchange(listening, -1));
    }
    uint32_t nHost = 0;  // a machine need not know its own name, but says so
    std::string said = Printed([&] { nHost = SockGetHostAddr(); });
    EXPECT_EQ(nHost == 0, said.starts_with("gethostbyname(")) << said;
}

}  // namespace
}  // namespace orx
