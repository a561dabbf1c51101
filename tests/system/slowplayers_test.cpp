// Players on a connection who do not read for a while, or never again: what they lose is whole groups or nothing.
#include "client/rtppacket.h"
#include "server/core/registry.h"
#include "support/sockets.h"
#include "support/wait.h"
#include "system/localserver.h"
#include "system/systemtest.h"

using namespace orx;

struct SlowPlayerTest : testing::Test {
    std::unique_ptr<LocalServer> server;
    RtspClient pusher, player;
    uint16_t nNext = 0;                     // the number of the next packet
    std::vector<std::string> got;           // what the player has read
    static constexpr uint16_t kGroup = 75;  // packets from a key picture to the next

    void Start(int bAutoDrop)
    {
        RtspClose(&player);
        RtspClose(&pusher);
        server.reset();
        server = std::make_unique<LocalServer>("AutoDropDataWhenCrowded=" + std::to_string(bAutoDrop) +
                                               "\n[INTEROP]\nStandardPushers=1\nStandardPlayers=1\n");
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server->Url("/cam").c_str(), CameraSdp()));
        nNext = 0;
        got.clear();
        player.nReceiveBuffer = 4096;
        ASSERT_EQ(1, RtspConnect(&player, server->Url("/cam").c_str()));
        ASSERT_EQ(1, RtspDescribe(&player));
        ASSERT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
        Push(kGroup, 1400);
        EXPECT_THAT(Ask(&player, "PLAY"), kIsOk);
    }
    void Push(unsigned nPackets, size_t nBytes)
    {
        for (unsigned i = 0; i < nPackets; i++, nNext++) {
            std::string payload(nBytes, nNext % kGroup ? 0x41 : 0x65);
            std::string frame = Frame(0, CameraPacket(0, nNext, 3600U * nNext, payload, true));
            ASSERT_EQ(1, RtspSendBytes(&pusher, frame.data(), frame.size()));
        }
        ASSERT_TRUE(Answers(&pusher));
    }
    // Reads, while more is pushed, until the player has the packet of that number.
    void ReadUpTo(uint16_t nNumber)
    {
        EXPECT_TRUE(WaitFor([&] {
            RtspMessage frame;
            Push(1, 1400);
            while (RtspWaitFrame(&player, 0, &frame, 1))
                got.push_back(frame.body);
            return player.bClosed || (!got.empty() && GetBe(got.back().data() + 2, 2) >= nNumber);
        }));
        EXPECT_EQ(0, player.bClosed);
    }
    // How many times numbers were left out, and that nothing but whole groups were.
    unsigned Holes() const
    {
        unsigned nHoles = 0;
        for (size_t i = 1; i < got.size(); i++) {
            uint32_t nBefore = GetBe(got[i - 1].data() + 2, 2), nNumber = GetBe(got[i].data() + 2, 2);
            nHoles += nNumber != nBefore + 1;
            EXPECT_TRUE(nNumber == nBefore + 1 || (nNumber % kGroup == 0 && (nBefore + 1) % kGroup == 0))
                << nBefore << " is followed by " << nNumber;
            EXPECT_EQ(got[i][12], nNumber % kGroup ? 0x41 : 0x65);
        }
        return nHoles;
    }
    unsigned Sessions() const
    {
        unsigned nSessions = 0;
        server->server.Run([&] { nSessions = ListCount(&g_server.sessions); });
        return nSessions;
    }
};

// 0.7 seconds of 20 Mbit/s are more packets than may wait by number, and less than may in bytes.
TEST_F(SlowPlayerTest, AHiccupCostsNothing)
{
    for (int bAutoDrop : {0, 1}) {
        ASSERT_NO_FATAL_FAILURE(Start(bAutoDrop));
        Push(1300, 1400);
        ReadUpTo(nNext);
        EXPECT_EQ(0U, Holes());
        EXPECT_EQ(0U, GetBe(got[0].data() + 2, 2));
    }
}

// A connection takes some megabytes by itself.
TEST_F(SlowPlayerTest, ALongStopCostsWholeGroupsOrTheEnd)
{
    ASSERT_NO_FATAL_FAILURE(Start(1));
    for (int i = 0; i < 3; i++) {
        Push(30 * kGroup, 14000);
        ReadUpTo(nNext);
        EXPECT_GE(Holes(), 1U + static_cast<unsigned>(i));
    }
    ASSERT_NO_FATAL_FAILURE(Start(0));
    Push(30 * kGroup, 14000);
    EXPECT_EQ(1U, Sessions());
}

// Also when nothing is pushed meanwhile, and no report of the server's own is due.
TEST_F(SlowPlayerTest, AStuckConnectionEnds)
{
    ASSERT_NO_FATAL_FAILURE(Start(1));
    std::string report = Frame(1, RtcpSenderReport(0x1234ABCD, 0, 1, 1, "camera"));
    ASSERT_EQ(1, RtspSendBytes(&pusher, report.data(), report.size()));
    Push(7 * kGroup, 14000);
    server->MoveClock(20000);
    EXPECT_EQ(2U, Sessions());
    server->MoveClock(40000);
    EXPECT_TRUE(WaitFor([&] { return Sessions() == 1; }));
}
