#include "remote/httpproxy.h"

#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/clock.h"
#include "support/sockets.h"

namespace orx {
namespace {

const char kTunnelGet[] =
    "GET /live HTTP/1.0\r\nx-sessioncookie: abc\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n";

// The proxy under test in front of a web server that the test plays, and what it hands over.
struct ProxyRig {
    Listener web;
    HttpProxy proxy;
    int nPort = FreeTcpPort();
    std::mutex mutex;
    std::vector<std::pair<Sock, std::string>> handed;

    ProxyRig()
    {
        EXPECT_EQ(1, HttpProxyStart(&proxy, "127.0.0.1", nPort, "127.0.0.1", web.nPort, HandOver, this));
    }
    ~ProxyRig() { HttpProxyStop(&proxy); }

    static int HandOver(void *pContext, int fd, const void *pData, size_t nLen)
    {
        auto *pRig = static_cast<ProxyRig *>(pContext);
        std::lock_guard<std::mutex> lock(pRig->mutex);
        pRig->handed.emplace_back(Sock(fd), std::string(static_cast<const char *>(pData), nLen));
        return 1;
    }
    size_t Handed()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return handed.size();
    }
    Sock Ask(const std::string &request) const
    {
        Sock client = Connect(nPort);
        EXPECT_TRUE(client.Send(request));
        return client;
    }
    // Returns once the proxy has accepted and judged a connection made now, hence every earlier one, too.
    void Settle()
    {
        size_t nBefore = Handed();
        Sock marker = Ask(kTunnelGet);
        ASSERT_TRUE(WaitFor([&] { return Handed() > nBefore; }));
    }
};

TEST(HttpProxy, TellsTunnelsFromPagesByTheFirst4095Bytes)
{
    const std::string mark = "application/x-rtsp-tunnelled";
    const size_t nFits = 4095 - mark.size();
    const struct {
        std::string request;
        bool bTunnel;
    } cases[] = {
        {kTunnelGet, true},
        {"POST /x HTTP/1.0\r\nContent-Type: " + mark + "\r\n\r\nREVTQ1JJQkU=", true},
        {std::string("\0\xff\0", 3) + mark, true},
        {std::string(nFits, 'a') + mark + "tail", true},
        {std::string(nFits + 1, 'a') + mark, false},  // the mark is cut
        {"GET / HTTP/1.0\r\nAccept: Application/X-RTSP-Tunnelled\r\n\r\n", false},
        {"G", false},
    };
    ProxyRig rig;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.request.substr(0, 80));
        size_t nBefore = rig.Handed();
        Sock client = rig.Ask(c.request);
        if (c.bTunnel) {
            ASSERT_TRUE(WaitFor([&] { return rig.Handed() > nBefore; }));
            EXPECT_EQ(c.request.substr(0, 4095), rig.handed.back().second);
            continue;
        }
        EXPECT_EQ(c.request, rig.web.Accept().Read(c.request.size()));
        EXPECT_EQ(nBefore, rig.Handed());
    }
}

TEST(HttpProxy, SilentConnectionGoesAfterThreeSeconds)
{
    ProxyRig rig;
    Sock silent = Connect(rig.nPort);
    rig.Settle();
    EXPECT_TRUE(silent.StillOpen());
    ClockSetOffset(3000);
    EXPECT_TRUE(silent.Closed(20000));
    ClockSetOffset(0);
    EXPECT_FALSE(rig.web.sock.Readable(0)) << "it was never relayed";
}

TEST(HttpProxy, PendingListIsFullAt128AndTheOldestGoes)
{
    ProxyRig rig;
    std::vector<Sock> silent;
    for (unsigned i = 0; i <= kHttpPendingMax; i++)
        silent.push_back(Connect(rig.nPort));
    EXPECT_TRUE(silent[0].Closed(20000));
    EXPECT_TRUE(silent[1].StillOpen());
    EXPECT_TRUE(silent.back().StillOpen());
}

}  // namespace
}  // namespace orx
