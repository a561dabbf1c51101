// Players and cameras behind a link that is bad, or goes away. Who is near is served throughout.
#include "support/badlink.h"
#include "support/namespaces.h"
#include "system/faultkit.h"

using namespace orx;

const int kAwayMs = getenv("ORX_LONG") ? 60000 : 6000;

struct BadLinkTest : FaultTest {
    std::unique_ptr<BadLink> link;

    // Runs a test with a link in a process that has networks of its own.
    template <typename Body>
    void WithLink(Body body)
    {
        InChildProcess("may not make networks with TUN devices", [&] {
            link = std::make_unique<BadLink>();
            if (kEmulated || !EnterNamespaces(CLONE_NEWNET) || !link->Open())
                return false;
            server.Set("SERVER", "ListenIp", "0.0.0.0");
            Begin(3);
            body();
            ExpectAsBefore();
            TearDown();
            players.reset();
            link.reset();
            return true;
        });
    }
    std::string FarUrl(const std::string &path) const
    {
        return "rtsp://" + std::string(kNearIp) + ":" + std::to_string(server.nPort) + path;
    }
};

// 5 % are lost, and packets take 200 ms there and back, some less than those before. Who is far misses nothing over
// TCP, and little over UDP; a camera there is received.
TEST_F(BadLinkTest, LosesAndDelays)
{
    WithLink([&] {
        Viewer tcp, tunnel{RTSP_OVER_TUNNEL}, udp{RTSP_OVER_UDP}, near;
        std::unique_ptr<ToolProcess> farCamera;
        link->nDelayMs = 80;
        link->nJitterMs = 40;
        link->BeFar([&] {
            for (Viewer *p : {&tcp, &tunnel, &udp})
                EXPECT_EQ(1, p->Open(FarUrl("/cam"))) << p->client.error;
            farCamera = std::make_unique<ToolProcess>(
                "orxpush", std::vector<std::string>{"--loop", "--rate", "100", FarUrl("/far")});
        });
        EXPECT_TRUE(farCamera->WaitOutput("1 program started")) << farCamera->Output();
        EXPECT_EQ(1, near.Open(server.Url("/far"))) << near.client.error;
        link->nLossPercent = 5;
        auto poll = [&] {
            for (Viewer *p : {&tcp, &tunnel, &udp, &near})
                p->Poll();
        };
        Serve(100, poll);
        std::vector<Viewer *> all = {&witness, &tcp, &tunnel, &udp, &near};
        EXPECT_TRUE(WatchPictures(all, 100))
            << tcp.nPictures << " over TCP, " << tunnel.nPictures << " in a tunnel, " << udp.nPictures << " over UDP, "
            << near.nPictures << " of the far camera";
        for (Viewer *p : {&tcp, &tunnel, &near})
            EXPECT_GE(p->Units(0, Coding::H264).size(), 100U) << "each packet follows the one before";
        EXPECT_GT(link->nLost, 50U);
        link->nLossPercent = 0;
        for (Viewer *p : {&tcp, &tunnel, &udp, &near})
            RtspClose(&p->client);
        farCamera->Signal(SIGINT);
        EXPECT_EQ(0, farCamera->WaitExit()) << farCamera->Output();
        EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 1; }));
    });
}

// A camera there ends by its silence, and its players wait for it; players there go on where they were, or are ended
// and come again.
TEST_F(BadLinkTest, GoesAway)
{
    WithLink([&] {
        Viewer tcp, udp{RTSP_OVER_UDP}, near;
        std::unique_ptr<Camera> farCamera;
        auto openFar = [&] {
            farCamera = std::make_unique<Camera>(std::vector{Coding::H264});
            link->BeFar([&] { EXPECT_EQ(1, farCamera->Open(FarUrl("/far"))) << farCamera->client.error; });
            farCamera->Send(50);
        };
        openFar();
        EXPECT_EQ(1, near.Open(server.Url("/far"))) << near.client.error;
        link->BeFar([&] {
            for (Viewer *p : {&tcp, &udp})
                EXPECT_EQ(1, p->Open(FarUrl("/cam"))) << p->client.error;
        });
        EXPECT_TRUE(WatchPictures({&witness, &tcp, &udp}, 30));
        link->bDown = true;
        Serve(static_cast<size_t>(kAwayMs) / 40);
        EXPECT_TRUE(server.WaitOutput("Program(/far) waits for its pusher, 120 s."));
        link->bDown = false;
        openFar();
        EXPECT_TRUE(Watch({&witness, &near}, [&] {
            farCamera->Send(1);
            return near.nPictures >= 60;
        })) << near.nPictures;
        ASSERT_NE(0, RtspSend(&farCamera->client, "TEARDOWN", nullptr));
        for (Viewer *p : {&tcp, &udp})
            RtspSend(&p->client, "OPTIONS", nullptr);  // that the server has ended it may have been lost
        size_t nTcp = tcp.nPictures, nUdp = udp.nPictures;
        EXPECT_TRUE(Watch({&witness, &tcp, &udp}, [&] {
            return (tcp.client.bClosed || tcp.nPictures > nTcp + 25) &&
                   (udp.client.bClosed || udp.nPictures > nUdp + 25);
        }));
        for (Viewer *p : {&tcp, &udp, &near})
            RtspClose(&p->client);
        EXPECT_TRUE(WaitFor([&] { return server.Stat().nLives == 1; }));
    });
}
