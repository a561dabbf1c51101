#include "remote/httpproxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "support/sockets.h"
#include "runtime/clock.h"

namespace orx {
namespace {

const char kTunnelGet[] =
    "GET /live HTTP/1.0\r\nx-sessioncookie: abc\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n";

// The proxy under test, and what it hands over.
struct ProxyRig {
    HttpProxy proxy;
    int nPort = FreeTcpPort();
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> handed;

    ~ProxyRig()
    {
        HttpProxyStop(&proxy);
        for (auto &entry : handed)
            close(entry.first);
    }
    int Start(const char *szTarget, int nTargetPort)
    {
        return HttpProxyStart(&proxy, "127.0.0.1", nPort, szTarget, nTargetPort, HandOver, this);
    }
    static int HandOver(void *pContext, int fd, const void *pData, size_t nLen)
    {
        auto *pRig = static_cast<ProxyRig *>(pContext);
        std::lock_guard<std::mutex> lock(pRig->mutex);
        pRig->handed.emplace_back(fd, std::string(static_cast<const char *>(pData), nLen));
        return 1;
    }
    size_t Handed()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return handed.size();
    }
    // Returns once the proxy has accepted and judged a connection made now, hence every earlier one, too.
    void Settle()
    {
        size_t nBefore = Handed();
        Sock marker = Connect(nPort);
        ASSERT_TRUE(marker.Send(kTunnelGet));
        ASSERT_TRUE(WaitFor([&] { return Handed() > nBefore; }, 5000));
    }
};

TEST(HttpProxy, TellsTunnelsFromPagesByTheFirst4095Bytes)
{
    const std::string mark = "application/x-rtsp-tunnelled";
    const size_t nFits = 4095 - mark.size();
    const struct {
        const char *szName;
        std::string request;
        bool bTunnel;
    } cases[] = {
        {"GET half", kTunnelGet, true},
        {"POST half with a body", "POST /x HTTP/1.0\r\nContent-Type: " + mark + "\r\n\r\nREVTQ1JJQkU=", true},
        {"binary before the mark", std::string("\0\xff\0", 3) + mark, true},
        {"the mark just fits", std::string(nFits, 'a') + mark + "tail", true},
        {"the mark is cut", std::string(nFits + 1, 'a') + mark, false},
        {"other case", "GET / HTTP/1.0\r\nAccept: Application/X-RTSP-Tunnelled\r\n\r\n", false},
        {"a page", "GET / HTTP/1.0\r\n\r\n", false},
        {"one byte", "G", false},
    };
    Listener web;
    ProxyRig rig;
    ASSERT_EQ(1, rig.Start("127.0.0.1", web.nPort));
    for (const auto &c : cases) {
        SCOPED_TRACE(c.szName);
        size_t nBefore = rig.Handed();
        Sock client = Connect(rig.nPort);
        ASSERT_TRUE(client.Send(c.request));
        if (c.bTunnel) {
            ASSERT_TRUE(WaitFor([&] { return rig.Handed() > nBefore; }, 3000));
            EXPECT_EQ(c.request.substr(0, 4095), rig.handed.back().second);
            EXPECT_TRUE(client.StillOpen());
            continue;
        }
        Sock side = web.Accept();
        ASSERT_GE(side.fd, 0);
        EXPECT_EQ(c.request, side.Read(c.request.size()));
        EXPECT_EQ(nBefore, rig.Handed());
    }
}

TEST(HttpProxy, SilentConnectionGoesAfterThreeSeconds)
{
    Listener web;
    ProxyRig rig;
    ASSERT_EQ(1, rig.Start("127.0.0.1", web.nPort));
    Sock silent = Connect(rig.nPort);
    rig.Settle();
    EXPECT_TRUE(silent.StillOpen());
    testing::internal::CaptureStdout();
    ClockSetOffset(3000);
    EXPECT_TRUE(silent.Closed(2000));
    ClockSetOffset(0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::ContainsRegex("sock=[0-9]+ is timeout!\r\n"));
    EXPECT_FALSE(web.sock.Readable(0));  // it was never relayed
}

TEST(HttpProxy, PendingListIsFullAt128AndTheOldestGoes)
{
    Listener web;
    ProxyRig rig;
    ASSERT_EQ(1, rig.Start("127.0.0.1", web.nPort));
    std::vector<Sock> silent;
    for (unsigned i = 0; i < kHttpPendingMax; i++)
        silent.push_back(Connect(rig.nPort));
    Sock extra = Connect(rig.nPort);
    EXPECT_TRUE(silent[0].Closed(1500));
    EXPECT_TRUE(silent[1].StillOpen());
    EXPECT_TRUE(extra.StillOpen());
}

TEST(HttpProxy, TargetDownLeavesTheClientUntouchedUntilItGivesUp)
{
    int nBefore = OpenDescriptors();
    {
        ProxyRig rig;
        ASSERT_EQ(1, rig.Start("127.0.0.1", FreeTcpPort()));
        Sock stays = Connect(rig.nPort), leaves = Connect(rig.nPort);
        ASSERT_TRUE(stays.Send("GET / HTTP/1.0\r\n\r\n") && leaves.Send("GET / HTTP/1.0\r\n\r\n"));
        rig.Settle();
        int nOpen = OpenDescriptors();
        leaves.Close();
        EXPECT_TRUE(WaitFor([&] { return OpenDescriptors() == nOpen - 2; }, 4000));
        EXPECT_TRUE(stays.StillOpen());
    }
    EXPECT_EQ(nBefore, OpenDescriptors());
}

TEST(HttpProxy, TargetThatDoesNotAnswerHoldsUpNobody)
{
    ProxyRig rig;
    ASSERT_EQ(1,
              rig.Start("192.0.2.1", 9));  // reserved for documentation: packets to it vanish or are refused
    Sock page = Connect(rig.nPort);
    ASSERT_TRUE(page.Send("GET / HTTP/1.0\r\n\r\n"));
    auto start = std::chrono::steady_clock::now();
    rig.Settle();
    HttpProxyStop(&rig.proxy);
    EXPECT_LT(ElapsedMs(start), 1000);
    EXPECT_TRUE(page.Closed(0));
}

TEST(HttpProxy, BytesArriveInOrderAndWholeBothWays)
{
    const std::string up = Pattern(1 << 20, 1), down = Pattern(1 << 20, 2);
    Listener web;
    ProxyRig rig;
    ASSERT_EQ(1, rig.Start("127.0.0.1", web.nPort));
    Sock client = Connect(rig.nPort);
    ASSERT_TRUE(client.Send(up.substr(0, 10)));
    Sock side = web.Accept();
    ASSERT_GE(side.fd, 0);
    std::thread uploader([&] { client.Send(up.substr(10)); });
    std::thread downloader([&] { side.Send(down); });
    std::string gotUp;
    std::thread target([&] { gotUp = side.Read(up.size()); });
    std::string gotDown = client.Read(down.size());
    uploader.join();
    downloader.join();
    target.join();
    EXPECT_TRUE(up == gotUp);
    EXPECT_TRUE(down == gotDown);
}

TEST(HttpProxy, StopsAtOnceWithEverythingOpen)
{
    int nBefore = OpenDescriptors();
    {
        Listener web;
        ProxyRig rig;
        ASSERT_EQ(1, rig.Start("127.0.0.1", web.nPort));
        std::vector<Sock> clients, sides;
        for (int i = 0; i < 20; i++) {
            clients.push_back(Connect(rig.nPort));
            ASSERT_TRUE(clients.back().Send("GET / HTTP/1.0\r\n\r\n"));
            sides.push_back(web.Accept());
        }
        // one relay is stuck in sending to a target that does not read
        std::thread stuck([&] { clients[0].Send(Pattern(16 << 20, 4)); });
        Sock silent = Connect(rig.nPort);
        rig.Settle();
        auto start = std::chrono::steady_clock::now();
        HttpProxyStop(&rig.proxy);
        EXPECT_LT(ElapsedMs(start), 500);
        stuck.join();
        EXPECT_TRUE(silent.Closed(1000));
        EXPECT_TRUE(clients[1].Closed(1000));
        HttpProxyStop(&rig.proxy);  // once more is harmless
    }
    EXPECT_EQ(nBefore, OpenDescriptors());
}

}  // namespace
}  // namespace orx
