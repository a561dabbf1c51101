// Pushers: how a program comes up, is replaced and goes.
#include "system/systemtest.h"

using namespace orx;

struct AnnounceTest : SystemTest {
    RtspClient other;

    std::string Announce(RtspClient *pClient, const std::string &path = "/cam", const std::string &sdp = CameraSdp())
    {
        return Ask(pClient, "ANNOUNCE", path, kSdp, sdp);
    }
    // Starts the server with a program that is announced, and a player that has described it.
    void StartWatched()
    {
        server.Start();
        Connect(&pusher);
        ASSERT_EQ(Dated(), Announce(&pusher));
        Describe(&player);
    }
    // Whether a player finds a program under a path.
    bool Finds(const std::string &path)
    {
        RtspClient client;
        Connect(&client, path);
        return RtspDescribe(&client) == 1;
    }
};

TEST_F(AnnounceTest, AnswersToTheLetter)
{
    server.Start();
    Connect(&pusher);
    EXPECT_EQ(Dated(), Announce(&pusher, "/cam", LongestSdp()));
    EXPECT_TRUE(server.WaitOutput("CreateLiveProgram(Uri=/cam), pointer=0x"));
    EXPECT_TRUE(Finds("/CAM")) << "names do not look at case";
    EXPECT_EQ(Reply("200 OK", kNoCache + "Session: SESSION\r\n" + kDate),
              Ask(&pusher, "SETUP", "/cam/trackID=1", "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\n"));
    EXPECT_EQ(kNotImplemented, Ask(&pusher, "RECORD"));
    EXPECT_EQ(Reply("200 OK", "Range: npt=now-\r\n" + kNoCache + "Session: SESSION\r\n" + kDate +
                                  "RTP-Info: url=" + server.Url("/cam/trackID=1") + "\r\n"),
              Ask(&pusher, "PLAY"));
}

// Another address is refused, and the refusal numbered by the counter of the pusher that stays.
TEST_F(AnnounceTest, ReplacesThePusherOfTheSameAddressOnly)
{
    StartWatched();
    other.sourceIp = "127.0.0.2";
    for (const char *szNumber : {"CSeq: 2\r\n", "CSeq: 3\r\n"}) {
        Connect(&other);
        other.nCSeq = 7;
        EXPECT_EQ("RTSP/1.0 502 Duplicate\r\n" + kServerLine + szNumber + kNoCache + "\r\n", Announce(&other));
        EXPECT_EQ(1, RtspWaitClosed(&other));
    }
    EXPECT_EQ(1, RtspPoll(&pusher));
    other.sourceIp = "";
    Connect(&other);
    EXPECT_EQ(Dated(), Announce(&other, "/Cam", CameraSdp(2)));
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_TRUE(server.WaitOutput("The same pusher Announce again, Destroy the old program.\r\n"));
    Describe(&player);
    EXPECT_EQ(2U, player.tracks.size());
}

// A player that was only asked for its password may turn out to be the camera that was away.
TEST_F(AnnounceTest, LetsGoOfWhatAChallengedPlayerHeld)
{
    server.Set("SERVER", "AuthType", "1");
    server.Start();
    Connect(&pusher);
    Announce(&pusher);
    Connect(&other);
    ASSERT_THAT(Ask(&other, "DESCRIBE"), testing::StartsWith("RTSP/1.0 401"));
    EXPECT_EQ(Dated(), Announce(&other));
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
    EXPECT_EQ(1, RtspPoll(&other));
}

// Standard encoders start with RECORD, want to hear of their transport, and end with TEARDOWN: their players
// are not left waiting then.
TEST_F(AnnounceTest, ServesStandardPushers)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    Connect(&pusher);
    Announce(&pusher, "/cam", "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:streamid=0\r\n");
    EXPECT_EQ(
        Reply("200 OK", kNoCache + kOverTcp + "Session: SESSION\r\n" + kDate),
        Ask(&pusher, "SETUP", "/cam/streamid=0", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1;mode=record\r\n"));
    EXPECT_THAT(Ask(&pusher, "RECORD"), kIsOk);
    Connect(&player);
    EXPECT_EQ(1, RtspDescribe(&player));
    Connect(&other);
    EXPECT_THAT(Ask(&other, "RECORD"), testing::StartsWith("RTSP/1.0 500")) << "not for others";
    EXPECT_EQ(Dated(), Ask(&pusher, "TEARDOWN"));
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_TRUE(server.WaitOutput("OnFreeProgram(Uri=/cam)"));
}

// Controls as encoders write them, and how they name them in SETUP.
TEST_F(AnnounceTest, FindsTracksByTheirControls)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    static const struct {
        const char *szFirst, *szSecond;  // controls
        const char *szSetup, *szAnswer;
    } rows[] = {
        {"streamid=0", "streamid=1", "/p=1/streamid=1", "interleaved=2-3\r\n"},
        {"track1", "track2", "/p=1/track1", "interleaved=0-1\r\n"},
        {"track1", "track2", "/p=1?key=a=2/track2/", "interleaved=2-3\r\n"},
        {"track=video", "track=audio", "/p=1/track=audio?x=1", "interleaved=2-3\r\n"},
        {"7", "17", "/p=1/17", "interleaved=2-3\r\n"},
        {"7", "17", "/p=1/7", "interleaved=0-1\r\n"},
        {"rtsp://10.0.0.1/a/b?c=1", "x", "/a/b?c=1", "interleaved=0-1\r\n"},
        {"", "", "/p=1/trackID=1", "interleaved=2-3\r\n"},
        {"x", "y", "/p=1", "400 Bad Request(invalid trackID"},
        {"x", "y", "/p=1/z", "400 Bad Request(invalid trackID"},
        {"x", nullptr, "/p=1", "interleaved=0-1\r\n"},  // the only one
        {"x", nullptr, "/p=1/?key=v", "interleaved=0-1\r\n"},
    };
    for (const auto &row : rows) {
        RtspClient encoder;
        Connect(&encoder);
        std::string sdp;
        for (const char *szControl : {row.szFirst, row.szSecond})
            if (szControl)
                sdp += "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n" +
                       (*szControl ? "a=control:" + std::string(szControl) + "\r\n" : "");
        ASSERT_EQ(Dated(), Announce(&encoder, "/p=1", sdp)) << row.szSetup;
        std::string reply = Ask(&encoder, "SETUP", row.szSetup, "Transport: RTP/AVP/TCP;unicast;mode=record\r\n");
        EXPECT_THAT(reply, testing::HasSubstr(row.szAnswer)) << row.szFirst << " " << row.szSetup;
        EXPECT_TRUE(Answers(&encoder));
    }
    Connect(&pusher);
    const std::string same = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:x\r\n";
    EXPECT_EQ(Refused("400 Bad Request(two sections have the same control)"), Announce(&pusher, "/p=1", same + same));
}

// Cameras tell what they see beside the picture, and that keeps nobody out.
TEST_F(AnnounceTest, CarriesSectionsOfOtherKinds)
{
    server.Set("INTEROP", "StandardPushers", "1");
    server.Start();
    Connect(&pusher);
    const std::string sdp =
        "m=application 0 RTP/AVP 107\r\na=control:trackID=2\r\nm=video 0 RTP/AVP 26\r\na=control:trackID=0\r\n"
        "m=audio 0 RTP/AVP 0\r\na=control:trackID=1\r\nm=text 0 RTP/AVP 98\r\na=control:trackID=3\r\n"
        "m=application 0 RTP/AVP 107\r\na=control:trackID=5\r\n";  // the type of the first
    EXPECT_EQ(Dated(), Announce(&pusher, "/cam", sdp));
    Connect(&player);
    EXPECT_EQ(1, RtspDescribe(&player));
    for (RtspClient *p : {&pusher, &player})
        for (const char *szTrack : {"2", "0", "1", "3", "5"})
            EXPECT_THAT(Ask(p, "SETUP", std::string("/cam/trackID=") + szTrack,
                            "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"),
                        kIsOk);
    EXPECT_THAT(Ask(&pusher, "RECORD"), kIsOk);
    EXPECT_THAT(Ask(&player, "PLAY"), kIsOk);
    std::string seen = CameraPacket(1, 1, 160, "seen");
    seen[1] = 107;
    for (int i = 0; i < 6; i++)
        ASSERT_EQ(1, RtspSendFrame(&pusher, 8, seen.data(), seen.size()));
    Deliver();
    RtspMessage frame;
    ASSERT_EQ(1, RtspWaitFrame(&player, 8, &frame));
    EXPECT_EQ(seen, frame.body);
}

// Packets and requests share a connection, and often a read. What becomes of a request changes no packet beside it,
// and one that has to wait for a file may have more behind it than fits into the buffer of a request.
TEST_F(AnnounceTest, RequestsBetweenPacketsChangeNone)
{
    server.Start();
    Connect(&pusher);
    ASSERT_TRUE(RtspAnnounce(&pusher, CameraSdp(1)) && RtspSetupPush(&pusher, 0) && RtspPlay(&pusher));
    Describe(&player);
    ASSERT_TRUE(RtspSetup(&player, 0, RTSP_OVER_TCP) && RtspPlay(&player));
    uint16_t nSent = 0, nSeen = 0;
    auto packet = [](uint16_t n) {
        return CameraPacket(0, n, 3600U * n, "a" + std::string(1000, char('a' + n % 26)), true);
    };
    auto packets = [&](int nCount) {
        std::string frames;
        while (nCount-- > 0)
            frames += Frame(0, packet(nSent++));
        return frames;
    };
    std::string posted = packets(8) + "POST /x HTTP/1.0\r\nCSeq: 1000\r\n\r\n";
    EXPECT_NE("", Exchange(&pusher, posted));
    std::string held = packets(8) + MakeRequest("GETPLAYLIST", "*", 1001);
    held += packets(70);
    EXPECT_NE("", Exchange(&pusher, held));
    Send(&pusher, packets(60));
    EXPECT_NE("", Exchange(&pusher, Options(1002)));
    RtspMessage frame;
    for (; nSeen < nSent && RtspWaitFrame(&player, 0, &frame); nSeen++)
        ASSERT_EQ(packet(nSeen), frame.body) << nSeen;
    EXPECT_LE(nSent - nSeen, 50) << "that many may wait for the next read";
}
