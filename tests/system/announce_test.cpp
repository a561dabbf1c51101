// Pushers: how a program comes up, is replaced and goes.
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

const char *const kType = "Content-Type: application/sdp\r\n";

std::string Announced(int nCSeq)
{
    return "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n" + kNoCache +
           "Date: DATE\r\n\r\n";
}

struct AnnounceTest : SystemTest {
    RtspClient pusher, other, player;

    void Connect(RtspClient *pClient, const char *szSource = "")
    {
        RtspClose(pClient);
        pClient->sourceIp = szSource;
        ASSERT_EQ(1, RtspConnect(pClient, server.Url("/cam").c_str()));
    }
    std::string Announce(RtspClient *pClient, const std::string &path, int nCSeq,
                         const std::string &sdp = CameraSdp(), const std::string &headers = kType)
    {
        return Exchange(pClient, MakeRequest("ANNOUNCE", server.Url(path), nCSeq, headers, sdp));
    }
    std::string Ask(RtspClient *pClient, const std::string &method, const std::string &path, int nCSeq,
                    const std::string &headers = "")
    {
        return Exchange(pClient, MakeRequest(method, server.Url(path), nCSeq, headers));
    }
    // Whether a player finds a program under a path.
    bool Finds(const std::string &path)
    {
        RtspClient client;
        EXPECT_EQ(1, RtspConnect(&client, server.Url(path).c_str()));
        return RtspDescribe(&client) == 1;
    }
};

TEST_F(AnnounceTest, MakesAProgram)
{
    server.Start();
    Connect(&pusher);
    EXPECT_EQ(Announced(5), Announce(&pusher, "/cam", 5));
    EXPECT_TRUE(server.WaitOutput("CreateLiveProgram(Uri=/cam), pointer=0x"));
    EXPECT_TRUE(Finds("/cam"));
    EXPECT_TRUE(Finds("/CAM")) << "names do not look at case";
    EXPECT_FALSE(Finds("/cam/"));
}

TEST_F(AnnounceTest, RefusesAndCloses)
{
    server.Start();
    std::string longest = CameraSdp();
    longest += "a=x:" + std::string(3999 - longest.size() - 6, 'x') + "\r\n";
    ASSERT_EQ(3999U, longest.size());
    const struct {
        std::string headers, sdp, status;
    } cases[] = {
        {"", CameraSdp(), "400 Bad Request(no SDP)"},
        {"Content-Type: Application/SDP\r\n", CameraSdp(), "400 Bad Request(no SDP)"},
        {kType, "", "400 Bad Request(no SDP)"},
        {kType, longest + "x", "501 Internal error"},
        {kType, "v=0\r\n", "501 Internal error"},
        {kType, "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 AMR/8000/0\r\n", "501 Internal error"},
        {kType, longest, ""},
    };
    for (const auto &c : cases) {
        Connect(&pusher);
        EXPECT_EQ(c.status.empty() ? Announced(3) : StatusReply(c.status, 3),
                  Announce(&pusher, "/cam", 3, c.sdp, c.headers))
            << c.headers;
        if (c.status.empty())
            continue;
        EXPECT_EQ(1, RtspWaitClosed(&pusher));
        EXPECT_FALSE(Finds("/cam"));
    }
    EXPECT_EQ(StatusReply("455 Method Not Valid in This State", 4), Announce(&pusher, "/other", 4));
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
}

TEST_F(AnnounceTest, ReplacesThePusherOfTheSameAddress)
{
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 1);
    ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    Connect(&other);
    EXPECT_EQ(Announced(9), Announce(&other, "/Cam", 9, CameraSdp(2)));
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_THAT(server.Output(), HasSubstr("The same pusher Announce again, Destroy the old program.\r\n"));
    RtspClose(&player);
    ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_EQ(2U, player.tracks.size());
}

TEST_F(AnnounceTest, RefusesAnotherAddress)
{
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 41);
    Connect(&other, "127.0.0.2");
    // numbered by the counter of the pusher that stays
    EXPECT_EQ(StatusReply("502 Duplicate", 42), Announce(&other, "/cam", 7));
    EXPECT_EQ(1, RtspWaitClosed(&other));
    Connect(&other, "127.0.0.2");
    EXPECT_EQ(StatusReply("502 Duplicate", 43), Announce(&other, "/cam", 7));
    EXPECT_TRUE(Finds("/cam"));
    EXPECT_EQ(1, RtspPoll(&pusher));
}

// A player that was only asked for its password may turn out to be the camera that was away.
TEST_F(AnnounceTest, LetsGoOfWhatAChallengedPlayerHeld)
{
    server.Set("SERVER", "AuthType", "1");
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 1);
    Connect(&other);
    ASSERT_THAT(Ask(&other, "DESCRIBE", "/cam", 1), StartsWith("RTSP/1.0 401"));
    EXPECT_EQ(Announced(2), Announce(&other, "/cam", 2));
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_EQ(1, RtspPoll(&other));
}

TEST_F(AnnounceTest, AnswersAPusherToTheLetter)
{
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 1, CameraSdp(2));
    const std::string reply = "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: 2\r\n" + kNoCache +
                              "Session: SESSION\r\nDate: DATE\r\n\r\n";
    EXPECT_EQ(reply, Ask(&pusher, "SETUP", "/cam/trackID=1", 2,
                         "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\n"));
    EXPECT_EQ("RTSP/1.0 500 Not implemented\r\n" + kServerLine + kNoCache + "\r\n",
              Ask(&pusher, "RECORD", "/cam", 3));
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: 4\r\nRange: npt=now-\r\n" + kNoCache +
                  "Session: SESSION\r\nDate: DATE\r\nRTP-Info: url=" + server.Url("/cam") +
                  "/trackID=1\r\n\r\n",
              Ask(&pusher, "PLAY", "/cam", 4));
}

TEST_F(AnnounceTest, LetsStandardPushersRecord)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 1,
             "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:streamid=0\r\n");
    std::string reply = Ask(&pusher, "SETUP", "/cam/streamid=0", 2,
                            "Transport: RTP/AVP/TCP;unicast;interleaved=0-1;mode=record\r\n");
    EXPECT_EQ("RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: 2\r\n" + kNoCache +
                  "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\nSession: SESSION\r\nDate: DATE\r\n\r\n",
              reply);
    EXPECT_THAT(Ask(&pusher, "RECORD", "/cam", 3), StartsWith("RTSP/1.0 200 OK"));
    SendPictures(&pusher, 0, 1);
    EXPECT_THAT(Ask(&pusher, "OPTIONS", "/cam", 4), StartsWith("RTSP/1.0 200 OK"));
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TCP));
    EXPECT_EQ(1, RtspWaitFrame(&player, 0, nullptr));
    RtspClose(&other);
    Connect(&other);
    EXPECT_THAT(Ask(&other, "RECORD", "/cam", 1), StartsWith("RTSP/1.0 500")) << "not for others";
}

// Its name is free at once; those who watch it stay until they leave.
TEST_F(AnnounceTest, ForgetsAProgramWhosePusherLeft)
{
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 1);
    ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_EQ(Announced(2), Ask(&pusher, "TEARDOWN", "/cam", 2));
    EXPECT_FALSE(Finds("/cam"));
    Connect(&other, "127.0.0.2");
    EXPECT_EQ(Announced(1), Announce(&other, "/cam", 1, CameraSdp(2)));
    ASSERT_EQ(1, RtspWaitClosed(&pusher));
    RtspMessage reply;
    EXPECT_EQ(1, RtspRequest(&player, "OPTIONS", nullptr, nullptr, "", &reply));
    EXPECT_EQ(0, CountText(server.Output(), "OnFreeProgram("));
    RtspClose(&player);
    EXPECT_TRUE(server.WaitOutput("OnFreeProgram(Uri=/cam)"));
    EXPECT_TRUE(Finds("/cam")) << "the new one is not touched by the end of the old one";
}

// Standard encoders end with TEARDOWN: their players are not left waiting.
TEST_F(AnnounceTest, EndsThePlayersOfAStandardPusher)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 1);
    ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_EQ(Announced(2), Ask(&pusher, "TEARDOWN", "/cam", 2));
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_TRUE(server.WaitOutput("OnFreeProgram(Uri=/cam)"));
}

TEST_F(AnnounceTest, DropsAPusherThatFallsSilent)
{
    server.Set("SERVER", "LiveTime", "1");
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", 1);
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_TRUE(server.WaitOutput("Live Program Client(socket=0x"));
    EXPECT_THAT(server.Output(), HasSubstr(" TimeOut! The network will be closed.\r\n"));
    EXPECT_FALSE(Finds("/cam"));
}

}  // namespace
}  // namespace orx
