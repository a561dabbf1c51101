// Event subscriptions: who may, and that every packet of the data track arrives as the camera sent it.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;

constexpr int kDataTrack = 2, kDataChannel = 4;

std::string Credentials(const std::string &user, const std::string &password)
{
    return "UserName: " + user + "\r\nUserAuth: " + RtspUserToken(user, password) + "\r\n";
}

struct SubscribeTest : SystemTest {
    RtspClient pusher, subscriber;
    uint16_t nSequence = 0;

    void SetUsers()
    {
        server.Set("USERS", "SuperUser", "root");
        server.Set("USERS", "SuperPwd", "rootpw");
        server.Set("USERS", "NumUsers", "1");
        server.Set("USERS", "UserName0", "ann");
        server.Set("USERS", "UserPwd0", "");
    }
    void StartCamera(const char *szPath = "/cam", int nTracks = 3)
    {
        SetUsers();
        server.Start();
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url(szPath).c_str(), CameraSdp(nTracks)));
    }
    std::string Subscribe(RtspClient *pClient, const std::string &headers, const std::string &path = "/cam")
    {
        if (pClient->fd < 0 && !RtspConnect(pClient, server.Url(path).c_str()))
            return "";
        return Exchange(pClient, MakeRequest("SUBSCRIBE", server.Url(path), ++pClient->nCSeq, headers));
    }
    // One packet of the data track; what of it an event is.
    std::string SendEvent(const std::string &event)
    {
        std::string packet = CameraPacket(kDataTrack, nSequence, nSequence * 200U, event);
        nSequence++;
        EXPECT_EQ(1, RtspSendFrame(&pusher, kDataChannel, packet.data(), packet.size()));
        return event;
    }
};

// How many packets of the data track a player has received since it was asked last.
int TakeEvents(RtspClient *pPlayer)
{
    RtspPoll(pPlayer);
    int nEvents = 0;
    for (const RtspMessage &message : pPlayer->inbox)
        nEvents += message.nChannel == kDataChannel;
    pPlayer->inbox.clear();
    return nEvents;
}

std::string Welcome(int nCSeq)
{
    return "RTSP/1.0 200 OK\r\n" + kServerLine + "CSeq: " + std::to_string(nCSeq) + "\r\n" + kNoCache +
           "Date: DATE\r\n\r\n";
}

TEST_F(SubscribeTest, LetsInByToken)
{
    server.Set("SERVER", "LogFile", "1");
    StartCamera("/ch1-s1");
    const std::string refused = "401 Unauthorized", invalid = "455 Method Not Valid in This State";
    const struct {
        std::string headers, path, status;
    } cases[] = {
        {"", "/ch1", refused},
        {"UserName: root\r\n", "/ch1", refused},
        {"UserAuth: " + RtspUserToken("root", "rootpw") + "\r\n", "/ch1", refused},
        {Credentials("root", "wrong"), "/ch1", refused},
        {Credentials("eve", "rootpw"), "/ch1", refused},
        {Credentials("root", "rootpw"), "/ch2", "404 Not Found"},
        {Credentials("root", "rootpw"), "/ch1", ""},
        {Credentials("ann", ""), "/ch1-s1", ""},
    };
    for (const auto &c : cases) {
        RtspClient client;
        EXPECT_EQ(c.status.empty() ? Welcome(1) : StatusReply(c.status, 1),
                  Subscribe(&client, c.headers, c.path))
            << c.headers << c.path;
        EXPECT_EQ(c.status.empty() ? 0 : 1, RtspWaitClosed(&client, c.status.empty() ? 1 : 5000));
    }
    RtspClient player;
    ASSERT_EQ(1, RtspConnect(&player, server.Url("/ch1").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    EXPECT_EQ(StatusReply(invalid, 2), Subscribe(&player, Credentials("root", "rootpw")));
    EXPECT_EQ(1, RtspWaitClosed(&player));
    EXPECT_EQ(1, CountText(ReadFile(server.LogPath()), "CreateSubscribeClient(Uri=/ch1), Remote=127.0.0.1:"));
}

TEST_F(SubscribeTest, NeedsADataTrack)
{
    StartCamera("/cam", 2);
    EXPECT_EQ(StatusReply("455 Method Not Valid in This State", 1),
              Subscribe(&subscriber, Credentials("root", "rootpw")));
    EXPECT_EQ(1, RtspWaitClosed(&subscriber));
}

// Five minutes of a camera that has five events a second, told quickly: other clients watch meanwhile.
TEST_F(SubscribeTest, PassesEveryEventOn)
{
    constexpr int kEvents = 1500, kBurst = 25;
    StartCamera();
    RtspClient tcp, udp, tunnel, second;
    ASSERT_EQ(1, RtspOpenPlayer(&tcp, server.Url("/cam").c_str(), RTSP_OVER_TCP));
    ASSERT_EQ(1, RtspOpenPlayer(&udp, server.Url("/cam").c_str(), RTSP_OVER_UDP));
    ASSERT_EQ(Welcome(1), Subscribe(&subscriber, Credentials("root", "rootpw")));
    ASSERT_EQ(Welcome(1), Subscribe(&second, Credentials("ann", "")));
    ASSERT_EQ(1, RtspConnectTunnel(&tunnel, server.Url("/cam").c_str()));
    RtspMessage reply;
    ASSERT_EQ(1,
              RtspRequest(&tunnel, "SUBSCRIBE", nullptr, Credentials("root", "rootpw").c_str(), "", &reply));
    ASSERT_EQ(200, reply.nStatus);
    int nPlayed = 0;
    for (int nDone = 0; nDone < kEvents; nDone += kBurst) {
        std::string sent;
        for (int i = nDone; i < nDone + kBurst; i++) {
            SendPictures(&pusher, i, 1);
            std::string event(static_cast<size_t>(i % 1200), static_cast<char>(i));
            sent += SendEvent("$\r\n\r\n" + std::string(1, '\0') + std::to_string(i) + event);
        }
        for (RtspClient *pClient : {&subscriber, &second, &tunnel}) {
            std::string got;
            ASSERT_EQ(1, RtspWaitBytes(pClient, sent.size(), &got)) << nDone << server.Output();
            ASSERT_EQ(sent, got) << nDone;
        }
        nPlayed += TakeEvents(&tcp);
    }
    SendEvent("");  // says nothing, and is no short write
    std::string last = SendEvent("last"), got;
    ASSERT_EQ(1, RtspWaitBytes(&subscriber, last.size(), &got));
    EXPECT_EQ(last, got);
    // what waits for a player leaves with the packets behind it
    EXPECT_TRUE(WaitFor([&] {
        SendPictures(&pusher, nSequence++, 1);
        nPlayed += TakeEvents(&tcp);
        return nPlayed == kEvents + 2;
    })) << nPlayed
        << " events played";
}

// What the accounts of one camera allow does not count at another.
TEST_F(SubscribeTest, GivesNoRightsAtOtherCameras)
{
    server.Set("SERVER", "AuthType", "1");
    StartCamera();
    RtspClient other;
    ASSERT_EQ(1, RtspOpenPusher(&other, server.Url("/other").c_str(), CameraSdp()));
    ASSERT_EQ(Welcome(1), Subscribe(&subscriber, Credentials("root", "rootpw")));
    auto ask = [&](const char *szMethod, const char *szPath, const char *szHeaders = "") {
        return Exchange(&subscriber,
                        MakeRequest(szMethod, server.Url(szPath), ++subscriber.nCSeq, szHeaders));
    };
    EXPECT_THAT(ask("DESCRIBE", "/other"), testing::StartsWith("RTSP/1.0 401 "));
    EXPECT_THAT(ask("CAMCONTROL", "/other", "CamAction: up\r\n"),
                HasSubstr("400 Bad Request(no CAMCONTROL yet)"));
}

// A recording has no events to come: asking for them is the peer's fault.
TEST_F(SubscribeTest, KnowsNoRecordings)
{
    server.Set("SERVER", "EnableFilePrg", "1");
    server.Set("STORAGE", "RecordEnable", "1");
    server.Set("STORAGE", "RecordPath", server.dir.path + "/");
    server.Set("GUARD", "SurvivePeerFaults", "1");
    StartCamera();
    RtspClient player;
    ASSERT_EQ(1, RtspConnect(&player, server.Url("/cam").c_str()));
    ASSERT_EQ(1, RtspDescribe(&player));
    auto record = [&](const std::string &param) {
        std::string headers = "ActionParam: " + param + "\r\n";
        return Exchange(&player, MakeRequest("RECORDEX", server.Url("/cam"), ++player.nCSeq, headers));
    };
    ASSERT_THAT(record("FileName=" + server.dir.File("events.zmf")),
                testing::StartsWith("RTSP/1.0 200 OK\r\n"));
    SendPictures(&pusher, 0, 20);
    RtspMessage reply;
    ASSERT_EQ(1, RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply)) << "the pictures are in";
    ASSERT_THAT(record("Cmd=stop"), testing::StartsWith("RTSP/1.0 200 OK\r\n"));
    EXPECT_EQ("RTSP/1.0 400 Bad Request\r\n" + kServerLine + "CSeq: 1\r\n\r\n",
              Subscribe(&subscriber, Credentials("root", "rootpw"), "/events.zmf"));
    EXPECT_EQ(1, RtspWaitClosed(&subscriber));
    EXPECT_TRUE(server.WaitOutput("pProg->bLive"));
}

// Who does not read loses its subscription; the others lose nothing.
TEST_F(SubscribeTest, DropsWhoDoesNotRead)
{
    StartCamera();
    RtspClient slow;
    slow.nReceiveBuffer = 4096;
    ASSERT_EQ(Welcome(1), Subscribe(&slow, Credentials("root", "rootpw")));
    ASSERT_EQ(Welcome(1), Subscribe(&subscriber, Credentials("root", "rootpw")));
    const std::string lost = "SendEventMsg2SubscribeClient()->DestroySession()!\r\n";
    for (int i = 0; i < 20000 && !CountText(server.Output(), lost); i++) {
        std::string sent = SendEvent(std::string(1200, static_cast<char>(i))), got;
        ASSERT_EQ(1, RtspWaitBytes(&subscriber, sent.size(), &got));
        ASSERT_EQ(sent, got);
    }
    EXPECT_EQ(1, CountText(server.Output(), lost));
    EXPECT_EQ(2U, server.Stat().sessions.size());
}

}  // namespace
}  // namespace orx
