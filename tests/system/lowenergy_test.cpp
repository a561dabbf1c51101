// Idle programs and the program hook. The server runs inside the test, so that its clock can be moved.
#include <sys/socket.h>

#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/rtspclient.h"
#include "runtime/clock.h"
#include "server/server.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::ElementsAre;

struct HookCalls {
    std::mutex mutex;
    bool bInstalled = false;
    std::vector<std::string> calls;
    std::vector<std::string> Get()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
};

void NoteCall(void *pContext, const char *szProgram, const char *szRemote, int bUp)
{
    auto *pCalls = static_cast<HookCalls *>(pContext);
    std::lock_guard<std::mutex> lock(pCalls->mutex);
    std::string remote = szRemote ? std::string(szRemote).substr(0, 10) : "none";
    pCalls->calls.push_back((bUp ? "up " : "down ") + std::string(szProgram) + " " + remote);
}

int InstallHook(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    auto *pCalls = static_cast<HookCalls *>(TaskArgument(pTask));
    g_server.pProgramHookContext = pCalls;
    g_server.pfnProgramHook = NoteCall;
    std::lock_guard<std::mutex> lock(pCalls->mutex);
    pCalls->bInstalled = true;
    return -1;
}

struct InProcessTest : testing::Test {
    TempDir dir;
    PortBlock ports;
    std::string url;
    RtspClient pusher, player;
    HookCalls hook;

    void Start(const std::string &settings)
    {
        int nPort = ports.nFirst;
        url = "rtsp://127.0.0.1:" + std::to_string(nPort) + "/cam";
        std::string file = dir.File("orx.cfg");
        WriteFile(file, "[SERVER]\nAuthType=0\nListenPort=" + std::to_string(nPort) + "\n" + settings +
                            "[GUARD]\nRunUnprivileged=1\n");
        ASSERT_EQ(1, ServerStart(file.c_str()));
        TaskSchedule(&g_server.scheduler, InstallHook, 0, 0, &hook);
        ASSERT_TRUE(WaitFor([this] {
            std::lock_guard<std::mutex> lock(hook.mutex);
            return hook.bInstalled;
        }));
    }
    void TearDown() override
    {
        ServerStop();
        ClockSetOffset(0);
    }
    // Everything that was sent before is taken when this is answered.
    void Touch(RtspClient *pClient)
    {
        RtspMessage reply;
        ASSERT_EQ(1, RtspRequest(pClient, "OPTIONS", nullptr, nullptr, "", &reply));
    }
    // Lets the scheduler see what the moved clock has made due.
    static void Nudge()
    {
        TaskSchedule(
            &g_server.scheduler, [](Task *, uint32_t, uint32_t, uint32_t) { return -1; }, 0, 0, nullptr);
    }
    // Moves the clock to nMs after the start, in steps that the connections do not mistake for silence.
    void MoveTo(uint32_t nMs)
    {
        for (uint32_t nStep = nClockMs + 50000; nStep < nMs; nStep += 50000) {
            ClockSetOffset(nStep);
            Touch(&pusher);
        }
        ClockSetOffset(nMs);
        Nudge();
        nClockMs = nMs;
    }
    uint32_t nClockMs = 0;
};

// The watchdog of a pusher looks every 120 seconds here.
TEST_F(InProcessTest, IdlePusherSleepsUntilSomebodyWatches)
{
    Start("LiveTime=120\nEnableLowEnergy=1\n");
    ASSERT_EQ(1, RtspOpenPusher(&pusher, url.c_str(), CameraSdp()));
    SendPictures(&pusher, 0, 3);
    Touch(&pusher);
    MoveTo(121000);
    RtspMessage request;
    ASSERT_EQ(1, RtspWaitRequest(&pusher, "SLEEP", &request));
    EXPECT_EQ("SLEEP RTSP/1.0\r\n" + kServerLine + "CSeq: " + std::to_string(pusher.nCSeq + 1) + "\r\n\r\n",
              request.raw);

    // silence of a pusher that sleeps is no fault, at none of the watchdog's visits every minute
    for (uint32_t nMs = 200000; nMs <= 700000; nMs += 100000) {
        ClockSetOffset(nMs);
        Nudge();
    }
    nClockMs = 700000;
    ASSERT_EQ(1, RtspConnect(&player, url.c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    ASSERT_EQ(1, RtspWaitRequest(&pusher, "WAKE", &request));
    EXPECT_EQ("WAKE RTSP/1.0\r\n" + kServerLine + "CSeq: " + std::to_string(pusher.nCSeq + 2) + "\r\n\r\n",
              request.raw);

    // the watchdog's next visit, before the pusher has anything to send again
    ClockSetOffset(760000);
    Nudge();
    // what was cached before is not shown as if it were now
    ASSERT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
    ASSERT_EQ(1, RtspPlay(&player));
    SendPictures(&pusher, 5000, 4);
    Touch(&pusher);
    Touch(&pusher);  // every second read of a pusher sends what its players wait for
    RtspMessage frame;
    ASSERT_EQ(1, RtspWaitFrame(&player, 0, &frame));
    EXPECT_EQ(CameraPacket(0, 10000, 5000U * 3600, "\x67sps"), frame.body);
}

// Of a pusher's tunnel only the half towards us is left: it cannot be told anything, which ends nobody else.
TEST_F(InProcessTest, PusherOfHalfATunnelIsNotWoken)
{
    Start("LiveTime=120\nEnableLowEnergy=1\n");
    ASSERT_EQ(1, RtspConnectTunnel(&pusher, url.c_str()));
    ASSERT_EQ(1, RtspAnnounce(&pusher, CameraSdp()));
    MoveTo(121000);
    ASSERT_EQ(1, RtspWaitRequest(&pusher, "SLEEP", nullptr));
    ServerStat before{}, now{};
    ServerGetStat(&before, 0);
    shutdown(pusher.fd, SHUT_RDWR);
    ASSERT_TRUE(WaitFor([&] { return ServerGetStat(&now, 0) && now.nMonitors < before.nMonitors; }));
    ASSERT_EQ(1, RtspConnect(&player, url.c_str()));
    EXPECT_EQ(1, RtspDescribe(&player));
}

TEST_F(InProcessTest, WatchedPusherStaysAwake)
{
    Start("LiveTime=120\nEnableLowEnergy=1\n");
    ASSERT_EQ(1, RtspOpenPusher(&pusher, url.c_str(), CameraSdp()));
    ASSERT_EQ(1, RtspConnect(&player, url.c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    MoveTo(121000);
    Touch(&pusher);
    Touch(&player);
    EXPECT_EQ(0, RtspWaitRequest(&pusher, "SLEEP", nullptr, 100));
    RtspClose(&player);  // from now on it idles
    ASSERT_TRUE(WaitFor([] {
        ServerStat stat;
        return ServerGetStat(&stat, 0) && stat.nClients == 0;
    }));
    MoveTo(242000);
    EXPECT_EQ(1, RtspWaitRequest(&pusher, "SLEEP", nullptr));
}

TEST_F(InProcessTest, HookHearsOfProgramsThatComeAndGo)
{
    Start("");
    ASSERT_EQ(1, RtspOpenPusher(&pusher, url.c_str(), CameraSdp() + "a=NickName:front door\r\n"));
    RtspClose(&pusher);
    ASSERT_TRUE(WaitFor([&] { return hook.Get().size() == 2; }));
    EXPECT_THAT(hook.Get(), ElementsAre("up /cam:front door 127.0.0.1:", "down /cam:front door none"));
    ASSERT_EQ(1, RtspOpenPusher(&pusher, url.c_str(), CameraSdp()));
    ASSERT_TRUE(WaitFor([&] { return hook.Get().size() == 3; }));
    EXPECT_EQ("up /cam: 127.0.0.1:", hook.Get()[2]);
}

}  // namespace
}  // namespace orx
