#include "runtime/sockutil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <cerrno>
#include <string>
#include <vector>

#include "base/fdguard.h"

namespace orx {

static sockaddr_in Address(const char *szIp)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(szIp);
    return addr;
}

static sockaddr_in LocalName(int fd)
{
    sockaddr_in addr{};
    EXPECT_EQ(0, SockGetLocalName(fd, &addr));
    return addr;
}

static int IsNonBlocking(int fd)
{
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

static int IsCloseOnExec(int fd)
{
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

TEST(SockResolveUri, SplitsHostAndPort)
{
    static const struct {
        const char *szText;
        int nResult;
        uint32_t nIp;
        int nPort;
    } cases[] = {
        {"10.0.0.5:8554", 1, 0x0A000005, 8554},
        {"10.0.0.5", 1, 0x0A000005, 554},
        {":80", 1, 0, 80},
        {"localhost:80", 1, 0x7F000001, 80},
        {"255.255.255.255:65535", 1, 0xFFFFFFFF, 65535},
        {"no such host", 0, 0, 0},
        {nullptr, 1, 0, 554},
        {"10.0.0.5: 80x", 1, 0x0A000005, 80},
        {"10.0.0.5:", 0, 0, 0},
        {":0", 0, 0, 0},
        {":65536", 0, 0, 0},
        {":4294967376", 0, 0, 0},  // 80 in the low 32 bits
    };
    for (const auto &c : cases) {
        sockaddr_in addr{};
        EXPECT_EQ(c.nResult, SockResolveUri(&addr, c.szText, 554)) << c.szText;
        if (!c.nResult)
            continue;
        EXPECT_EQ(c.nIp, SockGetIp(&addr)) << c.szText;
        EXPECT_EQ(c.nPort, SockGetPort(&addr)) << c.szText;
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
        int bMulticast, bBroadcast, bUsable;
    } cases[] = {
        {"0.0.0.0", 'E', 0, 0, 1},         {"0.0.0.1", 'E', 0, 0, 0},
        {"1.0.0.0", 'A', 0, 0, 1},         {"126.255.255.255", 'A', 0, 0, 1},
        {"127.0.0.1", 'E', 0, 0, 0},       {"128.0.0.0", 'B', 0, 0, 1},
        {"191.255.0.1", 'B', 0, 0, 1},     {"192.0.0.1", 'C', 0, 0, 1},
        {"223.255.255.255", 'C', 0, 0, 1}, {"224.0.0.1", 'D', 1, 0, 1},
        {"239.255.255.255", 'D', 1, 0, 1}, {"240.0.0.0", 'E', 0, 0, 0},
        {"255.255.255.254", 'E', 0, 0, 0}, {"255.255.255.255", 'E', 0, 1, 1},
    };
    for (const auto &c : cases) {
        sockaddr_in addr = Address(c.szIp);
        EXPECT_EQ(c.cClass, SockAddrClass(&addr)) << c.szIp;
        EXPECT_EQ(c.bMulticast, SockIsMulticast(&addr)) << c.szIp;
        EXPECT_EQ(c.bBroadcast, SockIsBroadcast(&addr)) << c.szIp;
        EXPECT_EQ(c.bUsable, SockIsUsableAddr(&addr)) << c.szIp;
    }
}

TEST(SockListenTcp, ListensWithoutBlocking)
{
    sockaddr_in addr = Address("127.0.0.1");
    FdGuard listener{SockListenTcp(&addr)};
    ASSERT_GE(listener.fd, 0);
    EXPECT_TRUE(IsNonBlocking(listener.fd));
    EXPECT_TRUE(IsCloseOnExec(listener.fd));
    EXPECT_STREQ("127.0.0.1", SockLocalIpString(listener.fd));
    addr = LocalName(listener.fd);
    errno = 0;
    EXPECT_EQ(-1, SockListenTcp(&addr));  // taken
    EXPECT_EQ(EADDRINUSE, SockLastError());
}

// A server that closed its connections itself leaves them fading away on its port.
TEST(SockListenTcp, ListensAgainAtOnce)
{
    sockaddr_in addr = Address("127.0.0.1");
    FdGuard listener{SockListenTcp(&addr)};
    addr = LocalName(listener.fd);
    FdGuard client{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    ASSERT_EQ(1, connect_timeout(client.fd, &addr, 10));
    FdGuard accepted{accept(listener.fd, nullptr, nullptr)};
    ASSERT_GE(accepted.fd, 0);
    sockaddr_in peer{};
    EXPECT_EQ(0, SockGetPeerName(client.fd, &peer));
    EXPECT_EQ(SockGetPort(&addr), SockGetPort(&peer));
    SockClose(accepted.Release());
    SockClose(client.Release());
    SockClose(listener.Release());
    FdGuard again{SockListenTcp(&addr)};
    EXPECT_GE(again.fd, 0);
}

// A listener that accepts nobody answers no more once its backlog is full.
TEST(connect_timeout, GivesUpWhenTheTimeIsUp)
{
    sockaddr_in addr = Address("127.0.0.1");
    FdGuard listener{SockListenTcp(&addr)};
    addr = LocalName(listener.fd);
    std::vector<int> clients;
    int nConnected = 1;
    while (nConnected && clients.size() < 100) {
        clients.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        nConnected = connect_timeout(clients.back(), &addr, 1);
        EXPECT_TRUE(!nConnected || clients.size() <= 12);
    }
    EXPECT_EQ(0, nConnected);
    EXPECT_TRUE(IsNonBlocking(clients.back()));
    EXPECT_EQ(0, connect_timeout(clients.back(), &addr, -1));
    for (int fd : clients)
        SockClose(fd);
}

}  // namespace orx
