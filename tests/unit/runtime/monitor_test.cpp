#include "runtime/monitor.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "base/fdguard.h"
#include "runtime/sockutil.h"
#include "support/wait.h"

namespace orx {

using Event = std::tuple<int, uint32_t, uint32_t>;  // descriptor, code, generation
using testing::ElementsAre;

struct MonitorTest : testing::Test {
    Monitor monitor;
    std::mutex mutex;
    std::vector<Event> seen;
    std::string szBursts;

    void SetUp() override { ASSERT_EQ(1, MonitorCreate(&monitor, OnEvent, this)); }
    void TearDown() override { MonitorDestroy(&monitor); }

    static void OnEvent(void *pContext, int fd, uint32_t nEvent, uint32_t nGeneration)
    {
        auto *pTest = static_cast<MonitorTest *>(pContext);
        std::lock_guard<std::mutex> guard(pTest->mutex);
        pTest->seen.emplace_back(fd, nEvent, nGeneration);
        pTest->szBursts += '.';
    }
    static void OnBurst(void *pContext, int bBegin)
    {
        auto *pTest = static_cast<MonitorTest *>(pContext);
        std::lock_guard<std::mutex> guard(pTest->mutex);
        pTest->szBursts += bBegin ? '(' : ')';
    }
    std::vector<Event> Seen()
    {
        std::lock_guard<std::mutex> guard(mutex);
        return seen;
    }
    // Waits for at least nEvents and takes them.
    std::vector<Event> Take(size_t nEvents)
    {
        EXPECT_TRUE(WaitFor([&] { return Seen().size() >= nEvents; }));
        std::lock_guard<std::mutex> guard(mutex);
        return std::exchange(seen, {});
    }
};

struct Pair {
    int fds[2] = {-1, -1};
    Pair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds)); }
    ~Pair()
    {
        SockClose(fds[0]);
        SockClose(fds[1]);
    }
    void Write() const { EXPECT_EQ(1, write(fds[1], "x", 1)); }
    void ClosePeer() { SockClose(std::exchange(fds[1], -1)); }
};

static int Listener(sockaddr_in *pAddr)
{
    *pAddr = {};
    pAddr->sin_family = AF_INET;
    pAddr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = SockListenTcp(pAddr);
    EXPECT_EQ(0, SockGetLocalName(fd, pAddr));
    return fd;
}

TEST_F(MonitorTest, ReadThenWriteThenClose)
{
    static const struct {
        uint32_t nInterest;
        std::vector<uint32_t> codes;
    } cases[] = {
        {MONITOR_READ | MONITOR_WRITE, {MONITOR_READ, MONITOR_WRITE, MONITOR_CLOSE}},
        {MONITOR_ACCEPT | MONITOR_CONNECT, {MONITOR_READ, MONITOR_WRITE, MONITOR_CLOSE}},
        {MONITOR_READ, {MONITOR_READ, MONITOR_CLOSE}},
        {MONITOR_WRITE, {MONITOR_WRITE, MONITOR_CLOSE}},
        {0, {MONITOR_CLOSE}},
    };
    for (const auto &c : cases) {
        Pair pair;
        pair.Write();
        pair.ClosePeer();
        ASSERT_EQ(1, MonitorAdd(&monitor, pair.fds[0], c.nInterest, 0xFFFFFFFE));
        std::vector<Event> expected;
        for (uint32_t nCode : c.codes)
            expected.emplace_back(pair.fds[0], nCode, 0xFFFFFFFE);
        EXPECT_EQ(expected, Take(expected.size())) << c.nInterest;
        EXPECT_EQ(0, MonitorRemove(&monitor, pair.fds[0]));
    }
    EXPECT_EQ(0U, monitor.nAdded);
}

TEST_F(MonitorTest, OneEventForOneArrival)
{
    Pair first, second;
    ASSERT_EQ(1, MonitorAdd(&monitor, first.fds[0], MONITOR_READ, 1));
    ASSERT_EQ(1, MonitorAdd(&monitor, second.fds[0], MONITOR_READ, 2));
    first.Write();
    EXPECT_THAT(Take(1), ElementsAre(Event(first.fds[0], MONITOR_READ, 1)));
    second.Write();  // what the first holds is not reported again
    EXPECT_THAT(Take(1), ElementsAre(Event(second.fds[0], MONITOR_READ, 2)));
}

TEST_F(MonitorTest, OnlyTheFirstListenerReportsConnections)
{
    sockaddr_in addrs[2];
    int fds[2] = {Listener(&addrs[0]), Listener(&addrs[1])};
    static const uint32_t codes[2] = {MONITOR_ACCEPT, MONITOR_READ};
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(1, MonitorAddListen(&monitor, fds[i]));
        FdGuard client{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        ASSERT_EQ(1, connect_timeout(client.fd, &addrs[i], 10));
        EXPECT_THAT(Take(1), ElementsAre(Event(fds[i], codes[i], 0)));
    }
    EXPECT_EQ(2U, monitor.nAdded);
    EXPECT_EQ(2U, monitor.nListen);
    Pair third;
    EXPECT_EQ(0, MonitorAddListen(&monitor, third.fds[0]));
    EXPECT_EQ(2U, monitor.nListen);

    MonitorDestroy(&monitor);
    for (int fd : fds)
        EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(0, monitor.nEpoll);
    EXPECT_EQ(0, monitor.listenFds[0]);
    MonitorDestroy(&monitor);  // once more does no harm
}

TEST_F(MonitorTest, BurstIsBracketed)
{
    MonitorSetBurstProc(&monitor, OnBurst);
    Pair pair;
    pair.Write();
    pair.ClosePeer();
    ASSERT_EQ(1, MonitorAdd(&monitor, pair.fds[0], MONITOR_READ, 1));
    EXPECT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> guard(mutex);
        return szBursts == "(..)";
    }));
}

TEST(MonitorDeathTest, NoMonitor)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(MonitorAddListen(nullptr, 3), testing::HasSubstr("`pMonitor'"));
}

}  // namespace orx
