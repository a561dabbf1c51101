#include "remote/unet.h"

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "enettest.h"
#include "remote/unetproxy.h"
#include "runtime/sockutil.h"

namespace orx {

using namespace std::literals;

constexpr std::string_view kClose = "\0\0\0c"sv;

TEST(Unet, OnlyExactlyFourBytesAreACloseRequest)
{
    RelayRig rig;
    auto [pPeer, server] = rig.Join(rig.remote);
    std::string all;
    for (const std::string &piece : {"\0\0\0d"s, "\0\0\0c\0"s, "\0\0c"s, "c"s}) {
        rig.remote.Send(pPeer, piece);
        all += piece;
    }
    EXPECT_TRUE(rig.Arrives(server));
    EXPECT_EQ(all, server.Read(all.size()));
    rig.remote.Send(pPeer, kClose);
    EXPECT_TRUE(rig.Arrives(server));
    EXPECT_TRUE(server.Closed(0));
}

// Nobody looks after the slow side: what it has not acknowledged, and what fits into the buffers between, is
// all that leaves the server.
TEST(Unet, AStalledPeerStallsOnlyItsOwnBridge)
{
    RelayRig rig;
    EnetSide brisk;
    auto [pSlow, slowServer] = rig.Join(rig.remote);
    auto [pBrisk, briskServer] = rig.Join(brisk);
    int nSmall = 32768;
    setsockopt(slowServer.fd, SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof(nSmall));
    const std::string data = Pattern(2 << 20, 11), other = Pattern(200000, 12);
    std::atomic<bool> bSent{false};
    std::thread writer([&, &sock = slowServer] {
        sock.Send(data);
        bSent = true;
    });
    briskServer.Send(other);
    EXPECT_TRUE(brisk.Pump([&, p = pBrisk] { return brisk.Stream(p).size() == other.size(); }));
    EXPECT_FALSE(bSent);
    EXPECT_TRUE(rig.remote.Pump([&, p = pSlow] { return rig.remote.Stream(p).size() >= data.size(); }));
    writer.join();
    EXPECT_TRUE(other == brisk.Stream(pBrisk));
    EXPECT_TRUE(data == rig.remote.Stream(pSlow));
}

TEST(Unet, SlotsOfPeersThatLeftAreUsedAgain)
{
    RelayRig rig;
    for (int i = 0; i < 70; i++) {
        auto [pPeer, server] = rig.Join(rig.remote);
        ASSERT_GE(server.fd, 0) << i;
        rig.remote.Send(pPeer, "x");
        ASSERT_TRUE(rig.Arrives(server));
        EXPECT_EQ("x", server.Read(1));
        if (i % 3 == 0) {
            server.Close();
        } else {
            i % 3 == 1 ? rig.remote.Send(pPeer, kClose) : enet_peer_disconnect(pPeer, 0);
            EXPECT_TRUE(rig.Arrives(server));
            EXPECT_TRUE(server.Closed(0));
        }
        enet_peer_reset(pPeer);  // nobody tells the remote side of a bridge that has ended
    }
}

TEST(Unet, AFloodThatTheServerDoesNotReadEndsItsBridge)
{
    RelayRig rig;
    auto [pPeer, server] = rig.Join(rig.remote);
    enet_peer_ping_interval(pPeer, 50);
    enet_peer_timeout(pPeer, 1, 100, 200);
    const std::string flood = Pattern(30 << 20, 16);
    for (size_t i = 0; i < flood.size(); i += 1 << 20)
        rig.remote.Send(pPeer, flood.substr(i, 1 << 20));
    EXPECT_TRUE(rig.remote.Pump([&] { return !rig.remote.disconnected.empty(); }));
    std::string got = server.Read(flood.size());
    EXPECT_LT(got.size(), flood.size() / 2);
    EXPECT_TRUE(got == flood.substr(0, got.size())) << "no gap";
    EXPECT_TRUE(server.Closed(60000));
}

// A packet takes memory however little it carries, and a bridge comes from an address of its slot.
TEST(UnetProxy, CountsWhatEmptyPacketsTake)
{
    UnetHost host;
    Thread caller;
    Listener rtsp;
    const sockaddr_in addr = Loopback(rtsp.nPort);
    ASSERT_NE(0, UnetHostCreate(&host, INADDR_LOOPBACK, 0, 0));
    UnetProxy *pProxy = CreateUnetProxy(&caller, &host, &host.pHost->peers[3], &addr);
    ASSERT_TRUE(pProxy);
    Sock server = rtsp.Accept();
    NetAddr from;
    SockGetPeerName(server.fd, &from);
    EXPECT_EQ(0x7F000104U, SockGetIp(&from));
    const std::string stall = Pattern(15 << 20, 17);  // more than the sockets hold: the bridge waits for room
    UnetProxyReceive(pProxy, enet_packet_create(stall.data(), stall.size(), 0));
    for (int i = 0; i < 40000; i++)
        UnetProxyReceive(pProxy, enet_packet_create("", 0, 0));
    EXPECT_FALSE(pProxy->bActive);
    UnetProxyFree(pProxy);
    UnetHostFree(&host);
}

}  // namespace orx
