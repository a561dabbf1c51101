#include "remote/unet.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "enettest.h"

namespace orx {
namespace {

using namespace std::literals;

constexpr std::string_view kClose = "\0\0\0c"sv;

// The relay under test, in front of an RTSP server that the test plays.
struct RelayRig {
    Listener rtsp;
    Unet unet;
    EnetSide remote;

    RelayRig()
    {
        UnetSettings settings;
        settings.szBindIp = "127.0.0.1";
        settings.nRtspPort = rtsp.nPort;
        EXPECT_EQ(1, UnetStart(&unet, &settings));
    }
    ~RelayRig() { UnetStop(&unet); }
    // A remote player and the connection that the relay makes for it.
    std::pair<ENetPeer *, Sock> Join(EnetSide &side)
    {
        size_t nBefore = side.connected.size();
        ENetPeer *pPeer = side.Connect(unet.nPort);
        EXPECT_TRUE(
            side.Pump([&] { return side.connected.size() > nBefore && rtsp.sock.Readable(0); }, 5000));
        return {pPeer, rtsp.Accept()};
    }
};

TEST(Unet, CarriesBytesInOrderBothWays)
{
    RelayRig rig;
    auto [pPeer, server] = rig.Join(rig.remote);
    std::string up;
    for (size_t nBytes : {1, 2, 4, 5, 1400, 8192, 100000, 3, 300000}) {
        up += Pattern(nBytes, static_cast<uint32_t>(nBytes));
        rig.remote.Send(pPeer, up.substr(up.size() - nBytes));
    }
    std::string gotUp;
    std::thread reader([&, &sock = server] { gotUp = sock.Read(up.size()); });
    const std::string down = Pattern(2 << 20, 9);
    std::thread writer([&, &sock = server] { sock.Send(down); });
    EXPECT_TRUE(
        rig.remote.Pump([&, p = pPeer] { return rig.remote.Stream(p).size() >= down.size(); }, 30000));
    reader.join();
    writer.join();
    EXPECT_TRUE(up == gotUp);
    EXPECT_TRUE(down == rig.remote.Stream(pPeer));
    for (const auto &packet : rig.remote.received)
        EXPECT_LE(packet.second.size(), 8192u);
}

TEST(Unet, OnlyExactlyFourBytesAreACloseRequest)
{
    RelayRig rig;
    auto [pPeer, server] = rig.Join(rig.remote);
    const std::string data[] = {"\0\0\0d"s, "\0\0\0c\0"s, "\0\0c"s, "c"};
    std::string all;
    for (const std::string &piece : data) {
        rig.remote.Send(pPeer, piece);
        all += piece;
    }
    EXPECT_TRUE(rig.remote.Pump([&, &sock = server] { return sock.Readable(0); }, 2000));
    EXPECT_EQ(all, server.Read(all.size()));
    rig.remote.Send(pPeer, kClose);
    EXPECT_TRUE(rig.remote.Pump([&, &sock = server] { return sock.Readable(0); }, 2000));
    EXPECT_TRUE(server.Closed(0));
}

TEST(Unet, AStalledPeerStallsOnlyItsOwnBridge)
{
    RelayRig rig;
    EnetSide brisk;
    auto [pSlow, slowServer] = rig.Join(rig.remote);
    auto [pBrisk, briskServer] = rig.Join(brisk);
    int nSmall = 32768;
    setsockopt(slowServer.fd, SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof(nSmall));
    const std::string data = Pattern(2 << 20, 11), other = Pattern(200000, 12);
    testing::internal::CaptureStdout();
    std::atomic<bool> bSent{false};
    std::thread writer([&, &sock = slowServer] {
        sock.Send(data);
        bSent = true;
    });
    // nobody looks after the slow side: what it has not acknowledged, and what fits into the buffers between,
    // is all that leaves the server
    std::string printed;
    bool bHeldBack = WaitFor(
        [&] {
            printed += testing::internal::GetCapturedStdout();
            testing::internal::CaptureStdout();
            return printed.find("Begin Sleep") != std::string::npos;
        },
        5000);
    briskServer.Send(other);
    bool bOthersGoOn = brisk.Pump([&, p = pBrisk] { return brisk.Stream(p).size() == other.size(); }, 4000);
    bool bStalled = !bSent;
    bool bResumed =
        rig.remote.Pump([&, p = pSlow] { return rig.remote.Stream(p).size() >= data.size(); }, 30000);
    writer.join();
    printed += testing::internal::GetCapturedStdout();
    EXPECT_TRUE(bHeldBack && bOthersGoOn && bStalled && bResumed)
        << bHeldBack << bOthersGoOn << bStalled << bResumed;
    EXPECT_TRUE(other == brisk.Stream(pBrisk));
    EXPECT_TRUE(data == rig.remote.Stream(pSlow));
    EXPECT_THAT(printed,
                testing::ContainsRegex("Begin Sleep\\(\\) due to OutgoingDataTotal=2[01][0-9]+\r\n"));
    EXPECT_THAT(printed, testing::ContainsRegex(
                             "End Sleep\\(\\) due to OutgoingDataTotal=[0-9]?[0-9]?[0-9]?[0-9]\r\n"));
}

TEST(Unet, SlotsOfPeersThatLeftAreUsedAgain)
{
    RelayRig rig;
    for (int i = 0; i < 70; i++) {
        auto [pPeer, server] = rig.Join(rig.remote);
        ASSERT_GE(server.fd, 0) << i;
        rig.remote.Send(pPeer, "x");
        ASSERT_TRUE(rig.remote.Pump([&, &sock = server] { return sock.Readable(0); }, 2000));
        EXPECT_EQ("x", server.Read(1));
        // a bridge that ends resets its peer, which nobody tells the remote side
        if (i % 3 == 0)
            server.Close();
        if (i % 3 == 1)
            rig.remote.Send(pPeer, kClose);
        if (i % 3 == 2)
            enet_peer_disconnect(pPeer, 0);
        EXPECT_TRUE(rig.remote.Pump([&, &sock = server] { return sock.fd < 0 || sock.Readable(0); }, 2000));
        EXPECT_TRUE(server.fd < 0 || server.Closed(0));
        enet_peer_reset(pPeer);
    }
}

TEST(Unet, StopsAtOnceWithPeersConnected)
{
    int nBefore = OpenDescriptors();
    {
        RelayRig rig;
        std::vector<std::pair<ENetPeer *, Sock>> joined;
        joined.reserve(10);
        for (int i = 0; i < 10; i++)
            joined.push_back(rig.Join(rig.remote));
        // one bridge is stuck towards its peer, one towards a server that does not read
        std::thread writer([&] { joined[0].second.Send(Pattern(8 << 20, 14)); });
        for (int i = 0; i < 10; i++)
            rig.remote.Send(joined[1].first, Pattern(1 << 20, 15));
        EXPECT_TRUE(rig.remote.Pump([&] { return joined[1].second.Readable(0); }, 5000));
        auto start = std::chrono::steady_clock::now();
        UnetStop(&rig.unet);
        EXPECT_LT(ElapsedMs(start), 500);
        writer.join();
        EXPECT_TRUE(joined[5].second.Closed(0));
        UnetStop(&rig.unet);  // once more is harmless
    }
    EXPECT_EQ(nBefore, OpenDescriptors());
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
    EXPECT_TRUE(rig.remote.Pump([&] { return !rig.remote.disconnected.empty(); }, 20000));
    std::string got = server.Read(flood.size());
    EXPECT_LT(got.size(), flood.size() / 2);
    EXPECT_TRUE(got == flood.substr(0, got.size()));  // no gap
    EXPECT_TRUE(server.Closed(1000));
}

}  // namespace
}  // namespace orx
