#include "runtime/sockutil.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <string>
#include <tuple>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {

TEST(SockResolveUri, SplitsHostAndPort)
{
    NetAddr addr;
    static const std::tuple<const char *, uint32_t, int> good[] = {{"10.0.0.5:8554", 0x0A000005, 8554},
                                                                   {":80", 0, 80},
                                                                   {"localhost", 0x7F000001, 554},
                                                                   {"10.0.0.5: 80x", 0x0A000005, 80}};
    for (const auto &[szText, nIp, nPort] : good) {
        EXPECT_EQ(1, SockResolveUri(&addr, szText, 554)) << szText;
        EXPECT_EQ(nIp, SockGetIp(&addr)) << szText;
        EXPECT_EQ(nPort, SockGetPort(&addr)) << szText;
    }
    for (const char *szBad : {"no such host", ":0", ":65536", ":4294967376"})  // the last is 80 in 32 bits
        EXPECT_EQ(0, SockResolveUri(&addr, szBad, 554)) << szBad;
}

TEST(SockResolveUriDeathTest, TextTooLong)
{
    NetAddr addr;
    EXPECT_EQ(1, SockResolveUri(&addr, (":80" + std::string(252, ' ')).c_str(), 554));
    EXPECT_DEATH(SockResolveUri(&addr, (":80" + std::string(253, ' ')).c_str(), 554),
                 testing::HasSubstr("`strlen(uri)<sizeof(buf)'"));
}

TEST(SockAddrClass, GoesByTheFirstByte)
{
    static const std::pair<const char *, const char *> cases[] = {
        {"0.0.0.0", "E usable"},
        {"1.0.0.0", "A usable"},
        {"126.255.255.255", "A usable"},
        {"127.0.0.1", "E"},
        {"128.0.0.0", "B usable"},
        {"191.255.255.255", "B usable"},
        {"192.0.0.0", "C usable"},
        {"223.0.0.0", "C usable"},
        {"224.0.0.0", "D usable group"},
        {"239.255.255.255", "D usable group"},
        {"240.0.0.0", "E"},
        {"255.255.255.254", "E"},
        {"255.255.255.255", "E usable all"},
    };
    for (const auto &[szAddr, szKind] : cases) {
        NetAddr addr;
        EXPECT_EQ(1, SockSetAddr(&addr, szAddr, 1));
        std::string kind(1, SockAddrClass(&addr));
        kind += SockIsUsableAddr(&addr) ? " usable" : "";
        kind += SockIsMulticast(&addr) ? " group" : "";
        EXPECT_EQ(szKind, kind + (SockIsBroadcast(&addr) ? " all" : "")) << szAddr;
    }
}

TEST(SockSetAddrEx, TakesBothFamilies)
{
    static const std::tuple<const char *, int, const char *> cases[] = {
        {"10.0.0.5", 1, "10.0.0.5:554"},
        {"", 1, "0.0.0.0:554"},
        {"localhost", 1, "127.0.0.1:554"},
        {"::", 1, "[::]:554"},
        {"2001:0db8:0000:0000:0000:0000:0000:00FF", 1, "[2001:db8::ff]:554"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 1, "[ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff]:554"},
        {"::ffff:10.0.0.5", 1, "10.0.0.5:554"},
        {"fe80::1%lo", 1, "[fe80::1]:554"},
        {"::", 0, nullptr},
        {"[::1]", 1, nullptr},
        {"1:2", 1, nullptr},
        {"::1 ", 1, nullptr},
    };
    for (const auto &[szHost, bIpv6, szText] : cases) {
        NetAddr addr;
        char text[kAddrTextSize] = "";
        ASSERT_EQ(szText != nullptr, SockSetAddrEx(&addr, szHost, 554, bIpv6)) << szHost;
        SockAddrToString(&addr, text);
        EXPECT_STREQ(szText ? szText : text, text);
    }
    NetAddr addr;
    EXPECT_EQ(0, SockSetAddrEx(&addr, "::1", 65536, 1));
}

TEST(NetAddr, KnowsHostsAndTheirShares)
{
    static const struct {
        const char *szOne, *szOther;
        int bSame, bCountedAlike;
    } cases[] = {
        {"1.2.3.4", "1.2.3.4", 1, 1},
        {"1.2.3.4", "1.2.3.5", 0, 0},
        {"1.2.3.4", "::ffff:1.2.3.4", 1, 1},
        {"2001:db8::1", "2001:db8::1", 1, 1},
        {"2001:db8::1", "2001:db8::2", 0, 1},
        {"2001:db8:0:1::1", "2001:db8:0:2::1", 0, 0},
        {"fe80::1:2:3", "fe80::1:2:4", 0, 0},
        {"fe80::1%1", "fe80::1%2", 0, 1},
        {"0.0.0.1", "::1", 0, 0},
        {"32.1.13.184", "2001:db8::", 0, 0},
    };
    for (const auto &c : cases) {
        NetAddr one, other;
        ASSERT_EQ(1, SockSetAddrEx(&one, c.szOne, 1, 1));
        ASSERT_EQ(1, SockSetAddrEx(&other, c.szOther, 2, 1));
        EXPECT_EQ(c.bSame, AddrSameHost(&one, &other)) << c.szOne << " " << c.szOther;
        EXPECT_EQ(c.bCountedAlike, AddrCounted(&one) == AddrCounted(&other)) << c.szOne << " " << c.szOther;
    }
}

TEST(SockUtil, BindsAndConnects)
{
    NetAddr addr;
    int udp = SockBindUdpAny();
    EXPECT_STREQ("0.0.0.0", SockLocalIpString(udp));
    EXPECT_NE(0, fcntl(udp, F_GETFL) & O_NONBLOCK);
    SockClose(udp);

    addr.in4.sin_family = AF_INET;
    addr.in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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

}  // namespace orx
