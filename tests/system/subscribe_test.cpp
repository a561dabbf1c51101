// Event subscriptions: who may, and that every packet of the data track arrives as the camera sent it.
#include "system/recordingtest.h"

using namespace orx;

constexpr int kDataTrack = 2, kDataChannel = 4;
struct SubscribeTest : RecordingTest {
    RtspClient subscriber;
    const std::string root = UserHeaders("root", "rootpw");
    uint16_t nSequence = 0;

    void StartDevice(int nTracks = 3)
    {
        server.Set("USERS", "SuperUser=root\nSuperPwd=rootpw\nNumUsers=1\nUserName0=ann\nUserPwd0=");
        StartCamera(CameraSdp(nTracks), "/ch1-s1");
    }
    std::string Subscribe(RtspClient *pClient, const std::string &headers, const std::string &path = "/ch1")
    {
        Connect(pClient, path);
        return Ask(pClient, "SUBSCRIBE", "", headers);
    }
    // One packet of the data track; what of it an event is.
    std::string SendEvent(const std::string &event)
    {
        std::string packet = CameraPacket(kDataTrack, nSequence, nSequence * 200U, event);
        nSequence++;
        EXPECT_EQ(1, RtspSendFrame(&pusher, kDataChannel, packet.data(), packet.size()));
        return event;
    }
    static void ExpectEvents(RtspClient *pClient, const std::string &sent)
    {
        std::string got;
        ASSERT_EQ(1, RtspWaitBytes(pClient, sent.size(), &got));
        ASSERT_TRUE(sent == got);
    }
};

// Other clients watch meanwhile; who does not read loses its subscription, and the others lose nothing.
TEST_F(SubscribeTest, PassesEveryEventOn)
{
    constexpr int kEvents = 250;
    server.Set("SERVER", "LogFile", "1");
    StartDevice();
    RtspClient slow, tunnel, second;
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/ch1").c_str(), RTSP_OVER_TCP));
    ASSERT_EQ(Dated(), Subscribe(&subscriber, root));
    ASSERT_EQ(Dated(), Subscribe(&second, UserHeaders("ann", ""), "/ch1-s1"));
    ASSERT_EQ(1, RtspConnectTunnel(&tunnel, server.Url("/ch1").c_str()));
    ASSERT_EQ(Dated(), Ask(&tunnel, "SUBSCRIBE", "", root));
    std::string sent;
    for (int i = 0; i < kEvents; i++) {
        sent += SendEvent("$\r\n\r\n" + std::string(1, '\0') + Pattern(static_cast<size_t>(5 * i), i));
        if (i % 25 != 24)
            continue;
        SendEvent("");  // says nothing, and is no short write
        for (RtspClient *pClient : {&subscriber, &second, &tunnel})
            ExpectEvents(pClient, sent);
        sent.clear();
    }
    SendPictures(&pusher, 0, 3);
    Deliver();
    for (int i = 0; i < kEvents + 10; i++)
        ASSERT_EQ(1, RtspWaitFrame(&player, kDataChannel, nullptr)) << i;

    slow.nReceiveBuffer = 4096;
    ASSERT_EQ(Dated(), Subscribe(&slow, root));
    const std::string lost = "SendEventMsg2SubscribeClient()->DestroySession()!\r\n";
    for (int i = 0; i < 20000 && !CountText(server.Output(), lost) && !HasFatalFailure(); i++) {
        sent = SendEvent(std::string(1200, static_cast<char>(i)));
        for (RtspClient *pClient : {&subscriber, &second, &tunnel})
            ExpectEvents(pClient, sent);
        RtspPoll(&player);
        player.inbox.clear();
    }
    EXPECT_EQ(1, CountText(server.Output(), lost));
    EXPECT_EQ(5U, server.Stat().sessions.size());
    static const char kLine[] = "CreateSubscribeClient(Uri=/ch1), Remote=127.0.0.1:";
    EXPECT_TRUE(WaitFor([&] { return CountText(ReadFile(server.LogPath()), kLine) == 3; }, 10000));
}

// What the accounts of one camera allow does not count at another, and a recording has no events to come.
TEST_F(SubscribeTest, GivesNoRightsElsewhere)
{
    server.Set("SERVER", "AuthType", "1");
    server.Set("GUARD", "SurvivePeerFaults", "1");
    StartDevice();
    Camera camera({Coding::JPEG, Coding::EVENTS});
    ASSERT_NO_FATAL_FAILURE(Record(&camera, "events.zmf", 2));
    ASSERT_EQ(Dated(), Subscribe(&subscriber, root));
    EXPECT_THAT(Ask(&subscriber, "DESCRIBE", "/camera-of-events.zmf"), testing::StartsWith("RTSP/1.0 401 "));
    EXPECT_EQ(Reply("400 Bad Request(no CAMCONTROL yet)"),
              Ask(&subscriber, "CAMCONTROL", "/camera-of-events.zmf", "CamAction: up\r\n"));
    // events of a program that it was only asked a password for are not for it
    RtspClient other;
    ASSERT_EQ(1, RtspOpenPusher(&other, server.Url("/other").c_str(), CameraSdp(3)));
    ASSERT_EQ(Dated(), Subscribe(&subscriber, root));
    EXPECT_THAT(Ask(&subscriber, "DESCRIBE", "/other"), testing::StartsWith("RTSP/1.0 401 "));
    std::string packet = CameraPacket(kDataTrack, 1, 200, "secret");
    EXPECT_EQ(1, RtspSendFrame(&other, kDataChannel, packet.data(), packet.size()));
    EXPECT_TRUE(Answers(&other));
    EXPECT_TRUE(Answers(&subscriber)) << "nothing but the reply";
    EXPECT_TRUE(subscriber.inbox.empty() && subscriber.buffer.empty());
    EXPECT_EQ(Reply("400 Bad Request"), Subscribe(&subscriber, root, "/events.zmf"));
    EXPECT_EQ(1, RtspWaitClosed(&subscriber));
    EXPECT_TRUE(server.WaitOutput("pProg->bLive"));
}
