// The methods of players, as they stand on the wire.
#include "client/rtppacket.h"
#include "system/systemtest.h"

using namespace orx;

using testing::HasSubstr;

struct PlayerTest : SystemTest {
    // Starts the server with a camera that has sent a picture, and a player that has described it.
    void StartWatched(int nTracks)
    {
        StartCamera(CameraSdp(nTracks));
        SendPictures(&pusher, 0, 1);
        Deliver();
        Describe(&player);
    }
    std::string NextFrame()
    {
        RtspMessage frame;
        return RtspWaitFrame(&player, -1, &frame) ? frame.body : "";
    }
    std::string RtpInfo(int nTracks)
    {
        std::string info = "RTP-Info: ";
        for (int i = 0; i < nTracks; i++)
            info += (i ? ",url=" : "url=") + server.Url("/cam/trackID=" + std::to_string(i));
        return info + "\r\n";
    }
};

// By its path without regard to case, or by its short name.
TEST_F(PlayerTest, DescribesAProgramWithoutItsPassword)
{
    server.Set("SERVER", "LogFile", "1");
    StartCamera(CameraSdp(2) + "a=NickName:door\r\na=ProgramAuth:0123456789\r\na=behind:1\r\n", "/ch1-s1");
    for (const char *szPath : {"/ch1-s1", "/CH1-S1", "/ch1", "/%63h1"}) {
        Connect(&player);
        EXPECT_EQ(WithBody("200 OK", kSdp, CameraSdp(2) + "a=NickName:door\r\n"), Ask(&player, "DESCRIBE", szPath));
    }
    for (const char *szLine :
         {"CreateLiveProgram(Uri=/ch1-s1), pointer=0x", "CreatePlayClient(Uri=/CH1-S1), Remote=127.0.0.1:"})
        EXPECT_TRUE(WaitFor([&] { return CountText(ReadFile(server.LogPath()), szLine) == 1; }, 10000)) << szLine;
}

// The server's channels count, whatever the player asks for; and each SETUP, also of a track that is set up.
TEST_F(PlayerTest, SetsUpOverTheConnection)
{
    StartWatched(2);
    EXPECT_EQ(Reply("200 OK", kNoCache +
                                  "Transport: RTP/AVP/TCP;unicast;interleaved=2-3;ssrc=1234ABCD\r\n"
                                  "Session: SESSION\r\n" +
                                  kDate),
              Ask(&player, "SETUP", "/cam/trackID=1", "Transport: RTP/AVP/TCP;unicast;interleaved=4-5\r\n"));
    EXPECT_THAT(Ask(&player, "SETUP", "/cam/trackID=1", "Transport: RTP/AVP/TCP;whatever\r\n"),
                HasSubstr("Transport: RTP/AVP/TCP;unicast;interleaved=2-3;ssrc=1234ABCD\r\n"));
    EXPECT_EQ(kWrongState, Ask(&player, "SETUP", "/cam/trackID=0", kOverTcp));
    EXPECT_EQ(1, RtspWaitClosed(&player));
}

TEST_F(PlayerTest, SetsUpOverUdpAndGivesThePortsBack)
{
    StartWatched(2);
    auto pair = [this](int n) {
        return std::to_string(server.nUdpStart + n) + "-" + std::to_string(server.nUdpStart + n + 1);
    };
    for (int nRound = 1; nRound <= 2; nRound++) {
        Describe(&player);
        EXPECT_EQ(Reply("200 OK", kNoCache + "Transport: RTP/AVP/UDP;unicast;client_port=6000-6001;server_port=" +
                                      pair(0) + ";ssrc=1234ABCD\r\nSession: SESSION\r\n" + kDate),
                  Ask(&player, "SETUP", "/cam/trackID=0", "Transport: RTP/AVP;unicast;client_port=6000-6001\r\n"));
        EXPECT_THAT(Ask(&player, "SETUP", "/cam/trackID=1", "Transport: RTP/AVP/UDP;unicast;client_port=6002\r\n"),
                    HasSubstr("client_port=6002-6003;server_port=" + pair(2) + ";"));
        EXPECT_TRUE(server.WaitOutput(", remote=6001)\r\n", nRound));
        RtspReset(&player);
        EXPECT_TRUE(server.WaitOutput("FreePairPort(" + pair(2) + ")\r\n", nRound));
    }
}

TEST_F(PlayerTest, PlaysFromTheLastKeyFrame)
{
    StartWatched(2);
    SendPictures(&pusher, 1, 1);
    std::string slice = CameraPacket(0, 4, 7200, "\x41slice", true);
    ASSERT_EQ(1, RtspSendFrame(&pusher, 0, slice.data(), slice.size()));
    Deliver();
    for (size_t nTrack : {0, 1})
        ASSERT_EQ(1, RtspSetup(&player, nTrack, RTSP_OVER_TCP));
    EXPECT_EQ(Reply("200 OK", "Range: npt=now-\r\n" + kNoCache + "Session: SESSION\r\n" + kDate + RtpInfo(2)),
              Ask(&player, "PLAY"));
    EXPECT_EQ(CameraPacket(0, 2, 3600, "\x67sps"), NextFrame());
    EXPECT_EQ(CameraPacket(0, 3, 3600, "\x65picture", true), NextFrame());
    EXPECT_EQ(slice, NextFrame());
    EXPECT_TRUE(server.WaitOutput("FillBufferAtFirstPlay(Cache Packets:In=5, Out=3)\r\n"));
    std::string audio = CameraPacket(1, 1, 160, std::string(160, 'a'));
    ASSERT_EQ(1, RtspSendFrame(&pusher, 2, audio.data(), audio.size()));
    SendPictures(&pusher, 2, 3);
    Deliver();
    EXPECT_EQ(audio, NextFrame());
}

// The reply leaves before the media, and what comes in a pause is not sent later.
TEST_F(PlayerTest, PausesAndGoesOn)
{
    StartWatched(1);
    ASSERT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
    ASSERT_NE(0, RtspSend(&player, "PLAY", nullptr));
    RtspMessage first;
    ASSERT_EQ(1, RtspWait(
                     &player, [](const RtspMessage &) { return true; }, &first));
    EXPECT_THAT(first.raw, kIsOk);
    EXPECT_NE("", NextFrame());
    EXPECT_NE("", NextFrame());
    EXPECT_EQ(Reply("200 OK", kNoCache + "Session: SESSION\r\n" + kDate), Ask(&player, "PAUSE"));
    SendPictures(&pusher, 1, 5);
    Deliver();
    EXPECT_TRUE(Answers(&player));
    EXPECT_TRUE(player.inbox.empty()) << "nothing was sent in between";
    EXPECT_THAT(Ask(&player, "PLAY"), kIsOk);
    EXPECT_EQ(CameraPacket(0, 10, 5 * 3600, "\x67sps"), NextFrame());
    for (const char *szMethod : {"TEARDOWN", "SET_PARAMETER"})
        EXPECT_EQ(Dated(), Ask(&player, szMethod, szMethod[0] == 'S' ? "/nowhere" : ""));
    EXPECT_TRUE(Answers(&player));
}

TEST_F(PlayerTest, StartsWithOneRequest)
{
    StartWatched(2);
    Connect(&player);
    EXPECT_EQ(WithBody("200 OK", kSdp, CameraSdp(2)), Ask(&player, "QUICKPLAY"));
    EXPECT_EQ(CameraPacket(0, 0, 0, "\x67sps"), NextFrame());
    EXPECT_EQ(CameraPacket(0, 1, 0, "\x65picture", true), NextFrame());
    EXPECT_THAT(Ask(&player, "PAUSE"), kIsOk);
    EXPECT_THAT(Ask(&player, "PLAY"), HasSubstr(RtpInfo(2)));
}

// Nothing is sent behind a picture, a piece of sound and a picture that has no marker, and each arrives.
TEST_F(PlayerTest, LowDelayWaitsForNothingMore)
{
    server.Set("INTEROP", "StandardPlayers=1\nLowDelay", "1");
    StartWatched(2);
    for (size_t nTrack : {0, 1})
        ASSERT_EQ(1, RtspSetup(&player, nTrack, RTSP_OVER_TCP));
    ASSERT_EQ(1, RtspPlay(&player, ""));
    EXPECT_NE("", NextFrame());
    EXPECT_NE("", NextFrame());
    SendPictures(&pusher, 1, 1);
    EXPECT_EQ(CameraPacket(0, 2, 3600, "\x67sps"), NextFrame());
    EXPECT_EQ(CameraPacket(0, 3, 3600, "\x65picture", true), NextFrame());
    const struct {
        int nChannel;
        std::string packet;
    } rows[] = {{2, CameraPacket(1, 1, 160, std::string(160, 'a'))}, {0, CameraPacket(0, 4, 7200, "\x41slice")}};
    for (const auto &row : rows) {
        ASSERT_EQ(1, RtspSendFrame(&pusher, row.nChannel, row.packet.data(), row.packet.size()));
        EXPECT_EQ(row.packet, NextFrame()) << row.nChannel;
    }
}

// With StandardPlayers: what each request is answered, one behind the other on one connection that lives on.
TEST_F(PlayerTest, ServesStandardPlayers)
{
    server.Set("INTEROP", "StandardPlayers", "1");
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam/?key=a=b").c_str(), CameraSdp(2)));
    Connect(&player);
    const std::string overTcp = "X:\r\nAccept: a\r\nAccept: b\r\n" + kOverTcp;
    const std::string session = "\r\nSession: SESSION;timeout=60\r\n", none = "\r\n" + kNoCache + "\r\n";
    const struct {
        const char *szMethod, *szPath, *szHeaders;
        std::string status, holds;
    } rows[] = {
        {"FOO", "", "", "500 Not implemented", none},
        {"PLAY", "", "", "455 Method Not Valid in This State", none},
        {"DESCRIBE", "/cam", "Require: x.y\r\n", "551 Option not supported", "\r\nUnsupported: x.y\r\n"},
        {"DESCRIBE", "/cam/?t=1", "Session: 12\r\n", "200 OK",
         "\r\nContent-Base: " + server.Url("/cam/") + "\r\nContent-Type"},
        {"SETUP", "/cam?t=1", kOverTcp.c_str(), "400 Bad Request(invalid trackID in SETUP)", none},
        {"SETUP", "/cam/trackID=0", "Transport:\r\n", "400 Bad Request", none},
        {"SETUP", "/cam?t=1/trackID=1", overTcp.c_str(), "200 OK", "interleaved=2-3"},
        {"SETUP", "/cam/trackID=0?t=1", kOverTcp.c_str(), "200 OK", session},
        {"PLAY", "/cam/", "Session: 12\r\n", "454 Session Not Found", none},
        {"PLAY", "/cam/?t=1", "", "200 OK", "RTP-Info: url=" + server.Url("/cam/trackID=0")},
        {"RECORD", "/cam/", "", "455 Method Not Valid in This State", none},
        {"PLAY", "/cam/", "Range: npt=now-\r\n", "200 OK", session + "Date: RFC1123\r\n\r\n"},
        {"DESCRIBE", "/cam", "", "200 OK", "\r\n\r\nv=0"},
        {"DESCRIBE", "/other", "", "455 Method Not Valid in This State", none},
        {"GET_PARAMETER", "/cam/", "", "200 OK", session},
        {"OPTIONS", "", "Session: 12\r\n", "200 OK", "PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER"},
        {"TEARDOWN", "/cam/", "", "200 OK", kStandardEnd},
    };
    for (const auto &row : rows) {
        std::string reply = Ask(&player, row.szMethod, row.szPath, row.szHeaders);
        EXPECT_THAT(reply, testing::StartsWith("RTSP/1.0 " + row.status)) << row.szMethod;
        EXPECT_THAT(reply, HasSubstr("\r\nCSeq: #\r\n")) << row.szMethod;
        EXPECT_THAT(reply, HasSubstr(row.holds)) << row.szMethod << row.szPath;
    }
}
