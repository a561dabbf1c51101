// The methods of players, as they stand on the wire.
#include <sys/socket.h>

#include <csignal>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/rtppacket.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct PlayerTest : SystemTest {
    RtspClient pusher, player;

    // Starts the server with one program of nTracks tracks that is pushed.
    void StartWith(int nTracks = 1, const std::string &path = "/cam", const std::string &sdpTail = "")
    {
        server.Start();
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url(path).c_str(), CameraSdp(nTracks) + sdpTail));
    }
    void Connect() { ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str())); }
    std::string Ask(const std::string &method, const std::string &path, int nCSeq,
                    const std::string &headers = "")
    {
        return Exchange(&player, MakeRequest(method, server.Url(path), nCSeq, headers));
    }
    // The pusher's packets are all taken: whatever it sends is answered behind them.
    void FlushPusher()
    {
        RtspMessage reply;
        ASSERT_EQ(1, RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply));
    }
    std::string NextFrame(int nChannel = -1)
    {
        RtspMessage frame;
        return RtspWaitFrame(&player, nChannel, &frame) ? frame.body : "";
    }
};

const char *const kTcp = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";

std::string Dated(int nCSeq, const std::string &between = "")
{
    return "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n" + between +
           kNoCache + "Date: DATE\r\n\r\n";
}

TEST_F(PlayerTest, AnswersOptionsAndParametersInEveryState)
{
    StartWith();
    Connect();
    const std::string options =
        "Public: DESCRIBE, SETUP, PLAY, TEARDOWN, SET_PARAMETER, GETCAMINFO, CAMCONTROL\r\n";
    EXPECT_EQ(Dated(7, options), Ask("OPTIONS", "/cam", 7));
    EXPECT_EQ(Dated(8, options), Ask("options", "*", 8));
    EXPECT_EQ(Dated(9), Ask("SET_PARAMETER", "/nowhere", 9));
    ASSERT_THAT(Ask("DESCRIBE", "/cam", 10), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_EQ(Dated(11, options), Ask("OPTIONS", "/cam", 11));
    EXPECT_EQ(Dated(12), Ask("SET_PARAMETER", "/cam", 12));
    ASSERT_THAT(Ask("SETUP", "/cam/trackID=0", 13, kTcp), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_EQ(Dated(14), Ask("SET_PARAMETER", "/cam", 14));
}

TEST_F(PlayerTest, DescribesAProgramWithoutItsPassword)
{
    StartWith(2, "/cam", "a=NickName:door\r\na=ProgramAuth:0123456789\r\na=behind:1\r\n");
    Connect();
    std::string sdp = CameraSdp(2) + "a=NickName:door\r\n";
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine +
                  "CSeq: 3\r\nContent-Type: application/sdp\r\nContent-Length: " +
                  std::to_string(sdp.size()) + "\r\n" + kNoCache + "Date: DATE\r\n\r\n" + sdp,
              Ask("DESCRIBE", "/cam", 3));
    EXPECT_EQ(StatusReply("455 Method Not Valid in This State", 4), Ask("DESCRIBE", "/cam", 4));
    EXPECT_EQ(1, RtspWaitClosed(&player));
}

TEST_F(PlayerTest, FindsProgramsByPath)
{
    StartWith(1, "/ch1-s1");
    static const struct {
        const char *szPath;
        bool bFound;
    } cases[] = {
        {"/ch1-s1", true}, {"/CH1-S1", true},   {"/ch1", true},   {"/ch1-x", false},
        {"/ch", false},    {"/CH1", false},     {"/ch1/", false}, {"/cam", false},
        {"/%63h1", true},  {"/rec.zmf", false}, {"/", false},     {"/../cfg/x.zmf", false},
    };
    for (const auto &c : cases) {
        RtspClose(&player);
        Connect();
        std::string reply = Ask("DESCRIBE", c.szPath, 1);
        if (c.bFound) {
            EXPECT_THAT(reply, StartsWith("RTSP/1.0 200 OK")) << c.szPath;
            continue;
        }
        EXPECT_EQ(StatusReply("404 Not Found", 1), reply) << c.szPath;
        EXPECT_EQ(1, RtspWaitClosed(&player)) << c.szPath;
    }
}

TEST_F(PlayerTest, SetsUpOverTheConnection)
{
    StartWith(2);
    SendPictures(&pusher, 0, 1);
    FlushPusher();
    Connect();
    Ask("DESCRIBE", "/cam", 1);
    // the server's channels count, whatever the player asks for
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: 2\r\n" + kNoCache +
                  "Transport: RTP/AVP/TCP;unicast;interleaved=2-3;ssrc=1234ABCD\r\nSession: SESSION\r\n"
                  "Date: DATE\r\n\r\n",
              Ask("SETUP", "/cam/trackID=1", 2, "Transport: RTP/AVP/TCP;unicast;interleaved=4-5\r\n"));
    EXPECT_THAT(Ask("SETUP", "/cam/trackID=0", 3, "Transport: RTP/AVP/TCP;whatever\r\n"),
                HasSubstr("Transport: RTP/AVP/TCP;unicast;interleaved=0-1;ssrc=1234ABCD\r\n"));
    EXPECT_EQ(StatusReply("455 Method Not Valid in This State", 4), Ask("SETUP", "/cam/trackID=0", 4, kTcp));
    EXPECT_EQ(1, RtspWaitClosed(&player));
}

TEST_F(PlayerTest, SetsUpOverUdpAndGivesThePortsBack)
{
    StartWith(2);
    for (int nRound = 1; nRound <= 2; nRound++) {
        RtspClose(&player);
        Connect();
        Ask("DESCRIBE", "/cam", 1);
        int nPort = server.nUdpStart;
        EXPECT_EQ(
            "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: 2\r\n" + kNoCache +
                "Transport: RTP/AVP/UDP;unicast;client_port=6000-6001;server_port=" + std::to_string(nPort) +
                "-" + std::to_string(nPort + 1) + ";ssrc=00000000\r\nSession: SESSION\r\nDate: DATE\r\n\r\n",
            Ask("SETUP", "/cam/trackID=0", 2, "Transport: RTP/AVP;unicast;client_port=6000-6001\r\n"));
        EXPECT_THAT(Ask("SETUP", "/cam/trackID=1", 3, "Transport: RTP/AVP/UDP;unicast;client_port=6002\r\n"),
                    HasSubstr("client_port=6002-6003;server_port=" + std::to_string(nPort + 2) + "-" +
                              std::to_string(nPort + 3) + ";"));
        EXPECT_TRUE(server.WaitOutput(
            "CreateUdpPort(local=" + std::to_string(nPort + 1) + ", remote=6001)\r\n", nRound));
        RtspReset(&player);
        std::string pair = std::to_string(nPort + 2) + "-" + std::to_string(nPort + 3);
        EXPECT_TRUE(server.WaitOutput("FreePairPort(" + pair + ")\r\n", nRound));
    }
}

// What is asked of a session in the wrong state, or wrongly, is refused and ends it.
TEST_F(PlayerTest, RefusesAndCloses)
{
    StartWith(2);
    const std::string state = "455 Method Not Valid in This State";
    const struct {
        int nSteps;  // of DESCRIBE, SETUP, PLAY done before
        std::string method, path, headers, status;
    } cases[] = {
        {0, "SETUP", "/cam/trackID=0", kTcp, state},
        {0, "PLAY", "/cam", "", state},
        {0, "PAUSE", "/cam", "", state},
        {1, "PLAY", "/cam", "", state},
        {1, "QUICKPLAY", "/cam", "", state},
        {1, "SETUP", "/cam/trackID=9", kTcp, "400 Bad Request(invalid trackID in SETUP)"},
        {1, "SETUP", "/cam/trackID=0", "Transport: RTP/AVP;multicast\r\n", "500 Internal error"},
        {1, "SETUP", "/cam/trackID=0", "Transport: RTP/AVP/UDP;unicast;x\r\n", "500 Internal error"},
        {2, "PAUSE", "/cam", "", state},
        {2, "DESCRIBE", "/cam", "", state},
        {3, "PLAY", "/cam", "", state},
        {3, "SETUP", "/cam/trackID=1", kTcp, state},
    };
    for (const auto &c : cases) {
        RtspClose(&player);
        Connect();
        static const struct {
            const char *szMethod, *szPath, *szHeaders;
        } steps[] = {{"DESCRIBE", "/cam", ""}, {"SETUP", "/cam/trackID=0", kTcp}, {"PLAY", "/cam", ""}};
        for (int i = 0; i < c.nSteps; i++)
            ASSERT_THAT(Ask(steps[i].szMethod, steps[i].szPath, i + 1, steps[i].szHeaders),
                        StartsWith("RTSP/1.0 200"));
        EXPECT_EQ(StatusReply(c.status, 4), Ask(c.method, c.path, 4, c.headers)) << c.method << c.headers;
        EXPECT_EQ(1, RtspWaitClosed(&player)) << c.method << c.headers;
    }
    EXPECT_EQ(1, RtspPoll(&pusher)) << "the program is none the worse";
}

struct SetupFault {
    const char *szPath, *szHeaders, *szText;
};
const SetupFault kSetupFaults[] = {
    {"/cam", "Transport: RTP/AVP/TCP;unicast\r\n", "Assertion `"},
    {"/cam/trackID=0", "Transport: RAW/RAW/UDP\r\n", "Assertion `"},
    {"/cam/trackID=0", "", "Assertion `"},
    {"/cam/trackID=0", "Transport: RTP/AVP;unicast;client_port=5000-5003\r\n", "atoi(s+1)==nRemotePort+1"},
    {"/cam/trackID=0", "Transport: RTP/AVP;unicast;client_port=0-1\r\n", "nLocalPort && nRemotePort"},
    {"/cam/trackID=0", "Transport: RTP/AVP;unicast;client_port=65535-65536\r\n", "nLocalPort && nRemotePort"},
};

TEST_F(PlayerTest, SurvivesFaultsOfSetup)
{
    server.Set("GUARD", "SurvivePeerFaults", "1");
    StartWith(2);
    for (const SetupFault &fault : kSetupFaults) {
        RtspClose(&player);
        Connect();
        Ask("DESCRIBE", "/cam", 1);
        int nBefore = CountText(server.Output(), fault.szText);
        EXPECT_EQ("RTSP/1.0 400 Bad Request\r\n" + kServerLine + "CSeq: 2\r\n\r\n",
                  Ask("SETUP", fault.szPath, 2, fault.szHeaders))
            << fault.szHeaders;
        EXPECT_EQ(1, RtspWaitClosed(&player));
        EXPECT_TRUE(server.WaitOutput(fault.szText, nBefore + 1)) << fault.szHeaders;
    }
}

// The connection for replies is closed; what arrives on the other one has nowhere to be answered.
TEST_F(PlayerTest, SurvivesHalfATunnel)
{
    server.Set("GUARD", "SurvivePeerFaults", "1");
    StartWith();
    static const struct {
        const char *szMethod, *szText;
    } cases[] = {{"OPTIONS", "Assertion `session->Reply' failed"},
                 {"DESCRIBE", "session->Reply!=((void *)0) && session->Reply!=port"},
                 {"PLAY", "Assertion `session->Reply' failed"}};
    for (const auto &c : cases) {
        RtspClose(&player);
        ASSERT_EQ(1, RtspConnectTunnel(&player, server.Url("/cam").c_str()));
        RtspMessage reply;
        ASSERT_EQ(1, RtspRequest(&player, "OPTIONS", nullptr, nullptr, "", &reply));
        int nBefore = CountText(server.Output(), c.szText);
        int nClosed = CountText(server.Output(), "OnFreePort(");
        shutdown(player.fd, SHUT_RDWR);
        ASSERT_TRUE(server.WaitOutput("OnFreePort(", nClosed + 1));
        ASSERT_NE(0, RtspSend(&player, c.szMethod, nullptr));
        EXPECT_TRUE(server.WaitOutput(c.szText, nBefore + 1)) << c.szMethod;
        EXPECT_TRUE(server.WaitOutput("OnFreePort(", nClosed + 2)) << c.szMethod;
    }
    EXPECT_EQ(1, RtspPoll(&pusher));
}

TEST_F(PlayerTest, RefusesProgramsOfFourTracks)
{
    server.Set("GUARD", "SurvivePeerFaults", "1");
    server.Start();
    ASSERT_EQ(1, RtspConnect(&pusher, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspAnnounce(&pusher, CameraSdp(4)));
    const char *szText = "session->nTrackCount>=1 && session->nTrackCount < 4";
    Connect();
    EXPECT_THAT(Ask("DESCRIBE", "/cam", 1), HasSubstr("trackID=3"));
    EXPECT_THAT(Ask("SETUP", "/cam/trackID=0", 2, kTcp), StartsWith("RTSP/1.0 400 Bad Request\r\n"));
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_TRUE(server.WaitOutput(szText));
    RtspClose(&player);
    Connect();
    EXPECT_THAT(Ask("QUICKPLAY", "/cam", 1), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_TRUE(server.WaitOutput(szText, 2));
    EXPECT_THAT(Exchange(&pusher, MakeRequest("SETUP", server.Url("/cam/trackID=0"), 9, kTcp)),
                StartsWith("RTSP/1.0 400 Bad Request\r\n"));
}

// With the guard off every such request stops the process.
TEST(PlayerFaults, StopTheProcess)
{
    for (const SetupFault &fault : kSetupFaults) {
        OrxProcess server;
        RtspClient pusher;
        RtspClient player;
        server.Start();
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
        ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
        ASSERT_EQ(1, RtspDescribe(&player));
        EXPECT_EQ("", Exchange(&player, MakeRequest("SETUP", server.Url(fault.szPath), 9, fault.szHeaders)));
        EXPECT_EQ(256 + SIGABRT, server.WaitExit()) << fault.szHeaders;
        EXPECT_THAT(server.Output(), HasSubstr(fault.szText));
    }
}

TEST_F(PlayerTest, PlaysFromTheLastKeyFrame)
{
    StartWith(2);
    SendPictures(&pusher, 0, 2);
    std::string slice = CameraPacket(0, 4, 7200, "\x41slice", true);
    ASSERT_EQ(1, RtspSendFrame(&pusher, 0, slice.data(), slice.size()));
    FlushPusher();
    Connect();
    Ask("DESCRIBE", "/cam", 1);
    Ask("SETUP", "/cam/trackID=0", 2, kTcp);
    Ask("SETUP", "/cam/trackID=1", 3, kTcp);
    std::string url = server.Url("/cam");
    ASSERT_EQ(1,
              RtspSendRaw(&player, MakeRequest("PLAY", url, 4).data(), MakeRequest("PLAY", url, 4).size()));
    RtspMessage first;  // the reply leaves before the media
    ASSERT_EQ(1, RtspWait(
                     &player, [](const RtspMessage &) { return true; }, &first));
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: 4\r\nRange: npt=now-\r\n" + kNoCache +
                  "Session: SESSION\r\nDate: DATE\r\nRTP-Info: url=" + url + "/trackID=0,url=" + url +
                  "/trackID=1\r\n\r\n",
              Normalized(first.raw));
    EXPECT_EQ(CameraPacket(0, 2, 3600, "\x67sps"), NextFrame());
    EXPECT_EQ(CameraPacket(0, 3, 3600, "\x65picture", true), NextFrame());
    EXPECT_EQ(slice, NextFrame());
    EXPECT_TRUE(server.WaitOutput("FillBufferAtFirstPlay(Cache Packets:In=5, Out=3)\r\n"));
    std::string audio = CameraPacket(1, 1, 160, std::string(160, 'a'));
    ASSERT_EQ(1, RtspSendFrame(&pusher, 2, audio.data(), audio.size()));
    SendPictures(&pusher, 2, 10);
    FlushPusher();
    FlushPusher();  // every second read of a pusher sends what its players wait for
    EXPECT_EQ(audio, NextFrame());
}

TEST_F(PlayerTest, PausesAndGoesOn)
{
    StartWith();
    SendPictures(&pusher, 0, 1);
    FlushPusher();
    Connect();
    Ask("DESCRIBE", "/cam", 1);
    Ask("SETUP", "/cam/trackID=0", 2, kTcp);
    Ask("PLAY", "/cam", 3);
    EXPECT_NE("", NextFrame());
    EXPECT_NE("", NextFrame());
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: 4\r\n" + kNoCache +
                  "Session: SESSION\r\nDate: DATE\r\n\r\n",
              Ask("PAUSE", "/cam", 4));
    SendPictures(&pusher, 1, 5);
    FlushPusher();
    EXPECT_EQ(Dated(5), Ask("SET_PARAMETER", "/cam", 5));
    EXPECT_TRUE(player.inbox.empty()) << "nothing was sent in between";
    EXPECT_THAT(Ask("PLAY", "/cam", 6), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_EQ(CameraPacket(0, 10, 5 * 3600, "\x67sps"), NextFrame());
}

TEST_F(PlayerTest, TearsDownAndClosesAWhileLater)
{
    StartWith();
    Connect();
    EXPECT_EQ(Dated(1), Ask("TEARDOWN", "/cam", 1)) << "accepted in every state";
    RtspClose(&player);
    Connect();
    Ask("DESCRIBE", "/cam", 1);
    Ask("SETUP", "/cam/trackID=0", 2, kTcp);
    Ask("PLAY", "/cam", 3);
    uint64_t nStart = RtspNowUs();
    EXPECT_EQ(Dated(4), Ask("TEARDOWN", "/cam", 4));
    EXPECT_EQ(Dated(5), Ask("SET_PARAMETER", "/cam", 5)) << "still answered";
    ASSERT_EQ(1, RtspWaitClosed(&player));
    EXPECT_GT(RtspNowUs() - nStart, 1900000U);
    EXPECT_TRUE(server.WaitOutput("OnSessionDelayCloseTimer()\r\n"));
}

TEST_F(PlayerTest, StartsWithOneRequest)
{
    StartWith(2);
    SendPictures(&pusher, 0, 1);
    FlushPusher();
    Connect();
    std::string sdp = CameraSdp(2);
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine +
                  "CSeq: 1\r\nContent-Type: application/sdp\r\nContent-Length: " +
                  std::to_string(sdp.size()) + "\r\n" + kNoCache + "Date: DATE\r\n\r\n" + sdp,
              Ask("QUICKPLAY", "/cam", 1));
    EXPECT_EQ(CameraPacket(0, 0, 0, "\x67sps"), NextFrame());
    EXPECT_EQ(CameraPacket(0, 1, 0, "\x65picture", true), NextFrame());
    EXPECT_THAT(Ask("PAUSE", "/cam", 2), StartsWith("RTSP/1.0 200 OK"));
    EXPECT_THAT(Ask("PLAY", "/cam", 3), HasSubstr("RTP-Info: url=" + server.Url("/cam") + "/trackID=0,url="));
}

TEST_F(PlayerTest, GoesWithThePusher)
{
    StartWith();
    Connect();
    Ask("DESCRIBE", "/cam", 1);
    RtspReset(&pusher);
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_TRUE(server.WaitOutput("StopProgramAssociatedSessions().\r\n"));
    EXPECT_TRUE(server.WaitOutput("OnFreeProgram(Uri=/cam), pointer=0x"));
    RtspClose(&player);
    Connect();
    EXPECT_EQ(StatusReply("404 Not Found", 1), Ask("DESCRIBE", "/cam", 1));
}

TEST_F(PlayerTest, IsLogged)
{
    server.Set("SERVER", "LogFile", "1");
    StartWith();
    Connect();
    Ask("DESCRIBE", "/cam", 1);
    EXPECT_TRUE(WaitFor([&] {
        return CountText(ReadFile(server.LogPath()), "CreatePlayClient(Uri=/cam), Remote=127.0.0.1:") == 1;
    }));
    EXPECT_EQ(1, CountText(ReadFile(server.LogPath()), "CreateLiveProgram(Uri=/cam), pointer=0x"));
}

}  // namespace
}  // namespace orx
