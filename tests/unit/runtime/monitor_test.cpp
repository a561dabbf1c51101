#include "runtime/monitor.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/sockets.h"

namespace orx {
namespace {

// What the monitor reports, as text: "(" and ")" around a burst, and for an event its code and generation.
struct MonitorTest : testing::Test {
    Monitor monitor;
    std::mutex mutex;
    std::string reported;

    void SetUp() override
    {
        ASSERT_EQ(1, MonitorCreate(&monitor, OnEvent, this));
        MonitorSetBurstProc(&monitor, OnBurst);
    }
    void TearDown() override { MonitorDestroy(&monitor); }

    void Note(const std::string &text)
    {
        std::lock_guard<std::mutex> guard(mutex);
        reported += text;
    }
    static void OnEvent(void *pContext, int /*fd*/, uint32_t nEvent, uint32_t nGeneration)
    {
        const char *szName = nEvent == MONITOR_READ     ? "read"
                             : nEvent == MONITOR_WRITE  ? "write"
                             : nEvent == MONITOR_ACCEPT ? "accept"
                                                        : "close";
        static_cast<MonitorTest *>(pContext)->Note(szName + std::to_string(nGeneration));
    }
    static void OnBurst(void *pContext, int bBegin)
    {
        static_cast<MonitorTest *>(pContext)->Note(bBegin ? "(" : ")");
    }
    // Everything reported since it was asked last, once a burst is complete.
    std::string Take()
    {
        EXPECT_TRUE(WaitFor([&] {
            std::lock_guard<std::mutex> guard(mutex);
            return reported.ends_with(")");
        }));
        std::lock_guard<std::mutex> guard(mutex);
        return std::exchange(reported, "");
    }
};

struct Pair {
    Sock near, far;
    Pair()
    {
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
        near.fd = fds[0];
        far.fd = fds[1];
    }
};

TEST_F(MonitorTest, ReadThenWriteThenClose)
{
    static const struct {
        uint32_t nInterest;
        const char *szReported;
    } cases[] = {
        {MONITOR_READ | MONITOR_WRITE, "(read7write7close7)"},
        {MONITOR_READ, "(read7close7)"},
        {0, "(close7)"},
    };
    for (const auto &c : cases) {
        Pair pair;
        pair.far.Send("x");
        pair.far.Close();
        ASSERT_EQ(1, MonitorAdd(&monitor, pair.near.fd, c.nInterest, 7));
        EXPECT_EQ(c.szReported, Take());
        EXPECT_EQ(0, MonitorRemove(&monitor, pair.near.fd));
    }
    EXPECT_EQ(0U, monitor.nAdded);
}

TEST_F(MonitorTest, OneEventForOneArrival)
{
    Pair first, second;
    ASSERT_EQ(1, MonitorAdd(&monitor, first.near.fd, MONITOR_READ, 1));
    ASSERT_EQ(1, MonitorAdd(&monitor, second.near.fd, MONITOR_READ, 0xFFFFFFFE));
    first.far.Send("x");
    EXPECT_EQ("(read1)", Take());
    second.far.Send("x");  // what the first holds is not reported again
    EXPECT_EQ("(read4294967294)", Take());
}

TEST_F(MonitorTest, OnlyTheFirstListenerReportsConnections)
{
    int fds[2];
    for (int i = 0; i < 2; i++) {
        Listener listener;
        fds[i] = std::exchange(listener.sock.fd, -1);  // the monitor's from here on
        ASSERT_EQ(1, MonitorAddListen(&monitor, fds[i]));
        Sock client = Connect(listener.nPort);
        EXPECT_EQ(i == 0 ? "(accept0)" : "(read0)", Take());
    }
    Pair third;
    EXPECT_EQ(0, MonitorAddListen(&monitor, third.near.fd));
    MonitorDestroy(&monitor);
    for (int fd : fds)
        EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    MonitorDestroy(&monitor);  // once more does no harm
}

}  // namespace
}  // namespace orx
