#include "server/front/events.h"

#include <sys/resource.h>

#include <atomic>
#include <deque>
#include <numeric>
#include <string>

#include <gtest/gtest.h>

#include "runtime/sockutil.h"
#include "server/core/settings.h"
#include "server/front/follow.h"
#include "server/media/wire.h"
#include "support/portblock.h"
#include "support/testserver.h"

namespace orx {

// A connection, and a media socket of it. The test reads them as the monitor's events would.
struct EventsTest : testing::Test {
    TestServer server;
    TcpPair pair;
    PortBlock ports;
    Session *pSession = nullptr;
    Port *pMedia = nullptr;
    std::string replies;

    void SetUp() override
    {
        server.Run([&] {
            Port *pPort = CreateTcpPort(pair.fdServer);
            pSession = CreateSession(pPort);
            pMedia = CreateUdpPort(&pPort->local, ports.nFirst, &pPort->remote, 9);
            ASSERT_NE(nullptr, pMedia);
            AvlReplace(&g_server.sessionMap, pMedia->fd, pSession);
            pSession->tracks[0].Media = pMedia;
        });
    }
    // How often a letter has come.
    size_t Replies(char c)
    {
        char bytes[65536];
        ssize_t n;
        while ((n = recv(pair.fdPeer, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0)
            replies.append(bytes, static_cast<size_t>(n));
        return static_cast<size_t>(std::ranges::count(replies, c));
    }
    // One datagram from an address to the media port.
    void SendMedia(const char *szFrom)
    {
        Sock sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in from = Loopback(0);
        inet_pton(AF_INET, szFrom, &from.sin_addr);
        ASSERT_EQ(0, bind(sock.fd, reinterpret_cast<sockaddr *>(&from), sizeof(from)));
        ASSERT_EQ(1, sendto(sock.fd, "x", 1, 0, reinterpret_cast<sockaddr *>(&pMedia->local), sizeof(from)));
    }
};

// Of what a socket holds a part is taken, and the rest behind others; nothing is lost or taken twice.
TEST_F(EventsTest, TakesASocketInParts)
{
    std::string requests;
    size_t nRequests = 0;
    while (requests.size() < 100000)
        requests += "SET_PARAMETER * RTSP/1.0\r\nCSeq: " + std::to_string(++nRequests) +
                    "\r\nX: " + std::string(950, 'x') + "\r\n\r\n";
    int nSize = 1 << 20;
    setsockopt(pair.fdServer, SOL_SOCKET, SO_RCVBUF, &nSize, sizeof(nSize));
    setsockopt(pair.fdPeer, SOL_SOCKET, SO_SNDBUF, &nSize, sizeof(nSize));
    uint32_t nTaken = 0;
    server.Run([&] {
        ASSERT_EQ(static_cast<ssize_t>(requests.size()), send(pair.fdPeer, requests.data(), requests.size(), 0));
        for (int i = 0; i < 3; i++)  // further events change nothing
            EXPECT_EQ(0, OnRead(pair.fdServer));
        nTaken = pSession->peer.nReceived;
        EXPECT_GT(nTaken, 0U);  // on a slow machine the time for one event ends before its bytes
        EXPECT_LE(nTaken, 65536U + 16384U);
        for (int i = 0; i < 100; i++)
            SendMedia("127.99.0.1");
        OnRead(pMedia->fd);
        EXPECT_EQ(64U, pSession->peer.nReceived - nTaken);
    });
    EXPECT_TRUE(WaitFor([&] {
        server.Run([&] { nTaken = pSession->peer.nReceived; });
        return nTaken == requests.size() + 100 && Replies('K') == nRequests;
    })) << "200 OK to each";
    EXPECT_NE(std::string::npos, replies.rfind("CSeq: " + std::to_string(nRequests) + "\r\n"));
}

TEST_F(EventsTest, MediaPortsKnowTheirPeer)
{
    for (int bPinned : {0, 1}) {
        server.Run([&] { g_settings.bPinMedia = bPinned; });  // which events read
        for (const char *szFrom : {"127.99.0.2", "127.99.0.1"}) {
            server.Run([&] {
                inet_pton(AF_INET, "127.99.0.1", &pMedia->remote.in4.sin_addr);
                pSession->peer.nReceived = 0;
                SendMedia(szFrom);
                OnRead(pMedia->fd);
                int bTaken = !bPinned || szFrom[9] == '1';
                EXPECT_EQ(static_cast<uint32_t>(bTaken), pSession->peer.nReceived) << szFrom;
                EXPECT_EQ(inet_addr(bTaken ? szFrom : "127.99.0.1"), pMedia->remote.in4.sin_addr.s_addr);
            });
        }
    }
    server.Run([&] { g_settings.bPinMedia = 0; });
}

// Both ports of a player, with PinMedia. Where he was heard the media port is connected to him.
struct PinnedTest : EventsTest {
    Port *pControl = nullptr;
    BlockQueue queue;

    void SetUp() override
    {
        EventsTest::SetUp();
        server.Run([&] {
            g_settings.bPinMedia = 1;
            pControl = CreateUdpPort(&pSession->peer.Cmd->local, ports.nFirst + 1, &pMedia->remote, 9);
            ASSERT_NE(nullptr, pControl);
            AvlReplace(&g_server.sessionMap, pControl->fd, pSession);
            pSession->tracks[0].Control = pControl;
        });
    }
    void TearDown() override
    {
        server.Run([] { g_settings.bPinMedia = 0; });
    }

    static Sock Bound(int nType, int nProtocol, NetAddr *pAddr)
    {
        sockaddr_in at = Loopback(0);
        inet_pton(AF_INET, "127.99.0.1", &at.sin_addr);
        Sock sock(socket(AF_INET, nType | SOCK_CLOEXEC | SOCK_NONBLOCK, nProtocol));
        EXPECT_EQ(0, bind(sock.fd, reinterpret_cast<sockaddr *>(&at), sizeof(at)));
        SockGetLocalName(sock.fd, pAddr);
        return sock;
    }
    static void Hear(const Sock &from, Port *pPort)
    {
        ASSERT_EQ(1, sendto(from.fd, "x", 1, 0, &pPort->local.any, AddrSize(&pPort->local)));
        OnRead(pPort->fd);
    }
    int Connected()
    {
        NetAddr peer;
        socklen_t nSize = sizeof(peer);
        return getpeername(pMedia->fd, &peer.any, &nSize) == 0 ? SockGetPort(&peer) : 0;
    }
    int Aimed() { return SockGetPort(&pMedia->remote); }
    void Write()
    {
        uint32_t nLeft = 0;
        uint64_t nBytes = 0;
        Batch batch{pMedia, 1};
        QueueAppend(&queue, {MakeDataBlock("packet", 6, 1, 1, 0)});
        EXPECT_EQ(1, WireWrite(&queue, &batch, &nLeft, &nBytes));
        QueueEmpty(&queue);
    }
    static ssize_t Got(const Sock &sock)
    {
        char bytes[16];
        return recv(sock.fd, bytes, sizeof(bytes), 0);
    }
    // The player's box tells that a packet from the media port to one of his was filtered (ICMP, RFC 1812).
    void TellFiltered(const NetAddr &to)
    {
        uint16_t words[18] = {htons(0x030d)};  // ICMP, then the heads of the packet: IPv4, UDP
        words[4] = htons(0x4500), words[6] = htons(28), words[8] = htons(0x4011);
        memcpy(&words[10], &pMedia->local.in4.sin_addr, 4);
        memcpy(&words[12], &to.in4.sin_addr, 4);
        words[14] = pMedia->local.in4.sin_port, words[15] = to.in4.sin_port, words[16] = htons(8);
        uint32_t nSum = std::accumulate(std::begin(words), std::end(words), 0U);
        words[1] = static_cast<uint16_t>(~((nSum & 0xffff) + (nSum >> 16)));
        NetAddr own;
        Sock raw = Bound(SOCK_RAW, IPPROTO_ICMP, &own);
        EXPECT_EQ(36, sendto(raw.fd, words, sizeof(words), 0, &pMedia->local.any, sizeof(sockaddr_in)));
    }
};

// He moves with his reports, however often, and one who is not there is sent to all the same.
TEST_F(PinnedTest, ConnectsToWhomItHeard)
{
    server.Run([&] {
        NetAddr media, reports, moved;
        Sock player = Bound(SOCK_DGRAM, 0, &media), teller = Bound(SOCK_DGRAM, 0, &reports);
        Sock mover = Bound(SOCK_DGRAM, 0, &moved);
        Hear(teller, pControl);
        Hear(player, pMedia);
        EXPECT_EQ(SockGetPort(&media), Connected());
        Hear(teller, pControl);
        EXPECT_EQ(SockGetPort(&media), Connected()) << "reports come from another port than media, of themselves";
        Write();
        EXPECT_EQ(6, Got(player));
        for (const Sock *pTeller : {&mover, &teller, &mover}) {
            Hear(*pTeller, pControl);
            EXPECT_EQ(0, Connected());
            EXPECT_EQ(SockGetPort(pTeller == &mover ? &moved : &reports) - 1, Aimed());
        }
        Hear(player, pMedia);
        player = Sock(-1);
        for (int i = 0; i < 4; i++)
            Write();  // nobody is there
        EXPECT_EQ(0, OnRead(pMedia->fd));
        EXPECT_EQ(SockGetPort(&media), Aimed());
        Hear(teller, pControl);
        EXPECT_EQ(SockGetPort(&reports) - 1, Aimed());
        pMedia->nFlags &= static_cast<uint16_t>(~PORT_BOUNCED);
        Hear(mover, pMedia);
        EXPECT_EQ(SockGetPort(&moved), Connected());
        g_settings.bPinMedia = 0;
        SettingLists lists;
        FollowSettings(&lists);
        EXPECT_EQ(0, Connected()) << "anybody may tell again";
    });
}

static int NoteSessions(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    static_cast<std::atomic<unsigned> *>(TaskArgument(pTask))->store(ListCount(&g_server.sessions));
    return -1;
}

// Neither what a network tells of datagrams that were sent, nor one that nobody can answer.
TEST_F(PinnedTest, NothingThatComesBackEndsThePlayer)
{
    std::atomic<unsigned> nSessions{0};
    server.Run([&] {
        NetAddr gone, media, moved, own;
        Sock player = Bound(SOCK_DGRAM, 0, &gone), mover = Bound(SOCK_DGRAM, 0, &moved);
        Hear(player, pControl);
        Hear(player, pMedia);
        player = Sock(-1);
        Write();
        Hear(mover, pControl);  // before it is known that nobody took that
        TaskSchedule(&g_server.scheduler, NoteSessions, 300, 0, &nSessions);
        Sock raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP));
        if (raw.fd < 0)
            return;  // only for root
        player = Bound(SOCK_DGRAM, 0, &media);
        for (int bRead : {0, 1}) {
            pMedia->nFlags &= static_cast<uint16_t>(~PORT_BOUNCED);
            Hear(player, pMedia);
            EXPECT_EQ(SockGetPort(&media), Connected());
            TellFiltered(media);
            EXPECT_EQ(0, bRead ? OnRead(pMedia->fd) : 0);
            Write();
            EXPECT_EQ(6, Got(player));
            EXPECT_EQ(0, Connected()) << "it was told";
        }
        raw = Bound(SOCK_RAW, IPPROTO_UDP, &own);
        const uint16_t head[4] = {0, pMedia->local.in4.sin_port, htons(8), 0};
        uint32_t nReceived = pSession->peer.nReceived;
        EXPECT_EQ(8, sendto(raw.fd, head, sizeof(head), 0, &pMedia->local.any, sizeof(sockaddr_in)));
        EXPECT_EQ(0, OnRead(pMedia->fd));
        EXPECT_EQ(nReceived, pSession->peer.nReceived) << "an empty one";
        EXPECT_EQ(SockGetPort(&media), Aimed());
    });
    EXPECT_TRUE(WaitFor([&] { return nSessions > 0; })) << "nothing was ended";
}

// More connections than one turn takes, just after descriptors have come free: they do not wait for the retry.
TEST_F(EventsTest, AcceptsTheRestSoon)
{
    Listener listener;
    SockSetNonBlock(listener.sock.fd, 1);
    auto tasks = [&] {
        unsigned nTasks = 0;
        server.Run([&] { nTasks = SchedulerTaskCount(&g_server.scheduler); });
        return nTasks;
    };
    unsigned nTasks = tasks();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit few{3, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    OnMonitorEvent(nullptr, listener.sock.fd, MONITOR_ACCEPT, 0);
    EXPECT_TRUE(WaitFor([&] { return tasks() == nTasks + 1; })) << "the retry";
    setrlimit(RLIMIT_NOFILE, &before);
    std::deque<Sock> clients;
    while (clients.size() < 66)
        clients.emplace_back(Connect(listener.nPort));
    std::atomic<unsigned> nSessions{0};
    server.Run([&] {
        OnMonitorEvent(nullptr, listener.sock.fd, MONITOR_ACCEPT, 0);
        TaskSchedule(&g_server.scheduler, NoteSessions, 700, 0, &nSessions);
    });
    EXPECT_TRUE(WaitFor([&] { return nSessions > 0; }));
    EXPECT_EQ(67U, nSessions);
}

// Whatever is asked, and however often.
TEST_F(EventsTest, OneTimerOfEachKindForAConnection)
{
    unsigned nTasks = 0;
    std::string requests;
    for (int i = 1; i <= 200; i++)
        requests += "GETWIFIROUTERS * RTSP/1.0\r\nCSeq: 1\r\n\r\nTEARDOWN * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    server.Run([&] {
        ASSERT_EQ(static_cast<ssize_t>(requests.size()), send(pair.fdPeer, requests.data(), requests.size(), 0));
        OnRead(pair.fdServer);
    });
    EXPECT_TRUE(WaitFor([&] { return Replies('U') == 200; })) << "NULL of each list";
    server.Run([&] { nTasks = SchedulerTaskCount(&g_server.scheduler); });
    EXPECT_LE(nTasks, 6U);
}

}  // namespace orx
