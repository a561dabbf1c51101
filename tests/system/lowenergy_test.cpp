// Idle programs, silent pushers and the program hook. The server runs inside the test, so that its clock can
// be moved.
#include <memory>

#include "server/core/session.h"
#include "server/core/settings.h"
#include "system/localserver.h"
#include "system/systemtest.h"

using namespace orx;

struct LowEnergyTest : testing::Test {
    std::unique_ptr<LocalServer> server;
    RtspClient pusher, player;
    std::string url;
    uint32_t nClockMs = 0;

    void Start(int nLiveTime = 120)
    {
        server = std::make_unique<LocalServer>("EnableLowEnergy=1\n[GUARD]\nStrictRoles=1\n", nLiveTime);
        url = server->Url("/cam");
        ASSERT_EQ(1, RtspOpenPusher(&pusher, url.c_str(), CameraSdp() + "a=NickName:front door\r\n"));
    }
    void Watch()
    {
        ASSERT_EQ(1, RtspConnect(&player, url.c_str()));
        ASSERT_EQ(1, RtspDescribe(&player));
    }
    // Moves the clock to nMs after the start, in steps that connections do not mistake for silence.
    void MoveTo(uint32_t nMs)
    {
        for (nClockMs += 50000; nClockMs < nMs; nClockMs += 50000) {
            server->MoveClock(nClockMs);
            ASSERT_TRUE(Answers(&pusher));
        }
        server->MoveClock(nClockMs = nMs);
    }
    // What the pusher is told next, numbered by the server's own counter.
    void ExpectTold(const char *szMethod, int nNumber)
    {
        RtspMessage request;
        ASSERT_EQ(1, RtspWaitRequest(&pusher, szMethod, &request));
        EXPECT_EQ(szMethod + (" RTSP/1.0\r\n" + kServerLine) + "CSeq: " + std::to_string(nNumber) + "\r\n\r\n",
                  request.raw);
    }
};

// The watchdog of a pusher looks every 120 seconds here.
TEST_F(LowEnergyTest, IdlePusherSleepsUntilSomebodyWatches)
{
    Start();
    SendPictures(&pusher, 0, 3);
    MoveTo(121000);
    ExpectTold("SLEEP", pusher.nCSeq + 1);
    // silence of a pusher that sleeps is no fault, at none of the watchdog's visits every minute
    for (uint32_t nMs = 200000; nMs <= 700000; nMs += 100000)
        server->MoveClock(nMs);
    ASSERT_EQ(1, RtspConnect(&player, url.c_str()));
    EXPECT_THAT(Ask(&player, "DESCRIBE", "", "Authorization: Basic eDp5\r\n"), testing::StartsWith("RTSP/1.0 401"));
    ASSERT_TRUE(Answers(&pusher));
    EXPECT_TRUE(pusher.inbox.empty()) << "a wrong password wakes nobody";
    Watch();
    ExpectTold("WAKE", pusher.nCSeq + 1);
    server->MoveClock(760000);  // the watchdog's next visit, before the pusher has anything to send again
    // what was cached before is not shown as if it were now
    ASSERT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
    ASSERT_EQ(1, RtspPlay(&player));
    SendPictures(&pusher, 5000, 4);
    ASSERT_TRUE(Answers(&pusher) && Answers(&pusher));  // every second read sends what players wait for
    RtspMessage frame;
    ASSERT_EQ(1, RtspWaitFrame(&player, 0, &frame));
    EXPECT_EQ(CameraPacket(0, 10000, 5000U * 3600, "\x67sps"), frame.body);
}

TEST_F(LowEnergyTest, WatchedPusherStaysAwake)
{
    Start();
    Watch();
    MoveTo(121000);
    ASSERT_TRUE(Answers(&pusher));
    EXPECT_EQ(0, RtspWaitRequest(&pusher, "SLEEP", nullptr, 100));
    RtspClose(&player);  // from now on it idles
    ServerStat stat{};
    ASSERT_TRUE(WaitFor([&] { return ServerGetStat(&stat, 0) && stat.nClients == 0; }));
    MoveTo(242000);
    EXPECT_EQ(1, RtspWaitRequest(&pusher, "SLEEP", nullptr));
}

// Only our own encoders know what SLEEP is.
TEST_F(LowEnergyTest, StandardPusherIsLeftAwake)
{
    server = std::make_unique<LocalServer>("EnableLowEnergy=1\n[INTEROP]\nStandardPushers=1\n");
    ASSERT_EQ(1, RtspConnect(&pusher, server->Url("/cam").c_str()));
    ASSERT_THAT(Ask(&pusher, "ANNOUNCE", "", kSdp, CameraSdp()), kIsOk);
    MoveTo(121000);
    MoveTo(242000);
    ASSERT_TRUE(Answers(&pusher));
    EXPECT_EQ(0, RtspWaitRequest(&pusher, "SLEEP", nullptr, 100));
}

// A watchdog looks every minute here. It ends who was silent for longer, and the program's players.
TEST_F(LowEnergyTest, DropsAPusherThatFallsSilent)
{
    Start(60);
    Watch();
    server->MoveClock(70000);
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_EQ(1, RtspWaitClosed(&player));
}

// The machine has slept for two hours, and the camera is not there any more.
TEST_F(LowEnergyTest, DropsAPusherThatWentWhileTheMachineSlept)
{
    constexpr uint64_t kSleptMs = 7200000;
    Start(60);
    ASSERT_EQ(1, RtspOpenPlayer(&player, url.c_str(), RTSP_OVER_TCP));
    server->server.Run([] { g_settings.nStateTimeout = 30; });
    server->MoveClock(kSleptMs);
    EXPECT_TRUE(WaitFor([&] {  // the watchdog has looked: silence counts from here on
        uint32_t tHeard = 0;
        server->server.Run([&] { tHeard = FirstSession()->peer.tLastActivity; });
        return tHeard >= kSleptMs / 1000;
    }));
    server->MoveClock(kSleptMs + 130000);
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
}

TEST_F(LowEnergyTest, HookHearsOfProgramsThatComeAndGo)
{
    static std::vector<std::string> calls;  // of the server's thread
    auto heard = [this](const std::vector<std::string> &expected) {
        bool bHeard = false;
        return WaitFor([&] {
            server->server.Run([&] { bHeard = calls == expected; });
            return bHeard;
        });
    };
    Start();
    server->server.Run([] {
        g_server.pfnProgramHook = [](void *, const char *szProgram, const char *szRemote, int bUp) {
            std::string remote = szRemote ? std::string(szRemote).substr(0, 10) : "none";
            calls.push_back((bUp ? "up " : "down ") + std::string(szProgram) + " " + remote);
        };
    });
    ASSERT_EQ(1, RtspOpenPusher(&player, server->Url("/other").c_str(), CameraSdp()));
    EXPECT_TRUE(heard({"up /other: 127.0.0.1:"}));
    RtspClose(&pusher);
    EXPECT_TRUE(heard({"up /other: 127.0.0.1:", "down /cam:front door none"}));
}
