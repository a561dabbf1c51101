// Pushers that ask for UDP, and the transports that standard clients offer.
#include "system/systemtest.h"

using namespace orx;

using testing::HasSubstr;
using testing::StartsWith;

struct UdpPushTest : SystemTest {
    Sock rtp[2], rtcp[2];  // of the pusher, for each track
    sockaddr_in to[2]{};   // the server's ports of RTP
    int nFiller = 14;      // number of the last packet of track 1

    static Sock Bind(int nPort = 0, int nHost = 1)
    {
        Sock sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in addr = Loopback(nPort);
        addr.sin_addr.s_addr = htonl(0x7F000000 | static_cast<uint32_t>(nHost));
        EXPECT_EQ(0, bind(sock.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)));
        return sock;
    }
    void Start(const std::string &keys)
    {
        server.Set("INTEROP", "StandardPushers=1\n" + keys);
        server.Set("SERVER", "LiveTime", "2");
        server.Start();
    }
    void Announce(int nTracks)
    {
        Connect(&pusher);
        ASSERT_THAT(Ask(&pusher, "ANNOUNCE", "", kSdp, CameraSdp(nTracks)), kIsOk);
    }
    std::string SetUp(int nTrack)
    {
        int nPort = server.nSparePort + 2 * nTrack;
        rtp[nTrack] = Bind(nPort);
        rtcp[nTrack] = Bind(nPort + 1);
        std::string reply = Ask(&pusher, "SETUP", "/cam/trackID=" + std::to_string(nTrack),
                                "Transport: RTP/AVP/UDP;unicast;client_port=" + std::to_string(nPort) + "-" +
                                    std::to_string(nPort + 1) + ";mode=record\r\n");
        size_t n = reply.find("server_port=");
        to[nTrack] = Loopback(n == std::string::npos ? 9 : atoi(reply.c_str() + n + 12));
        return reply;
    }
    void SendTo(const Sock &from, int nTrack, int nOffset, const std::string &packet)
    {
        sockaddr_in addr = to[nTrack];
        addr.sin_port = htons(static_cast<uint16_t>(ntohs(addr.sin_port) + nOffset));
        EXPECT_EQ(static_cast<ssize_t>(packet.size()),
                  sendto(from.fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)));
    }
    void SendPacket(int nTrack, int nNumber)
    {
        SendTo(rtp[nTrack], nTrack, 0,
               CameraPacket(nTrack, static_cast<uint16_t>(nNumber), 3600, nNumber & 1 ? "\x65slice" : "\x67sps"));
    }
    // The numbers of the next packets of a player's track. Of the other one more come, so that they leave.
    std::string Numbers(int nTrack, size_t nCount)
    {
        std::string numbers;
        RtspMessage frame;
        for (size_t i = 0; i < nCount; i++) {
            auto start = std::chrono::steady_clock::now();
            while (!RtspWaitFrame(&player, 2 * nTrack, &frame, 20) && ElapsedMs(start) < 20000)
                if (rtp[1].fd >= 0)
                    SendPacket(1, ++nFiller);
            numbers += std::to_string(GetBe(reinterpret_cast<const uint8_t *>(frame.body.data()) + 2, 2)) + " ";
        }
        return numbers;
    }
};

TEST_F(UdpPushTest, IsAskedForTcpWhereItIsNotTaken)
{
    Start("");
    Announce(1);
    EXPECT_EQ(Refused("461 Unsupported Transport"), SetUp(0));
    EXPECT_THAT(Ask(&pusher, "SETUP", "/cam/trackID=0", "Transport: RTP/AVP/TCP;unicast;mode=record\r\n"),
                HasSubstr("Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"));
    EXPECT_THAT(Ask(&pusher, "RECORD"), kIsOk);
    EXPECT_THAT(Ask(&pusher, "RECORD"), kIsOk) << "it may say so again";
}

// The player sees what came, in order, and a hole where nothing did.
TEST_F(UdpPushTest, ReachesPlayersInOrder)
{
    Start("UdpPushers=1");
    Announce(2);
    for (int nTrack : {0, 1})
        EXPECT_THAT(SetUp(nTrack), HasSubstr(";client_port=" + std::to_string(server.nSparePort + 2 * nTrack)));
    ASSERT_THAT(Ask(&pusher, "RECORD"), kIsOk);
    Describe(&player);
    for (size_t nTrack : {0, 1})
        ASSERT_EQ(1, RtspSetup(&player, nTrack, RTSP_OVER_TCP));
    ASSERT_EQ(1, RtspPlay(&player));
    Sock stranger = Bind(0, 77);
    SendTo(stranger, 0, 0, CameraPacket(0, 65533, 3600, "\x67not its"));
    for (int nNumber : {65534, 0, 65535, 0, 1, 3, 5, 4, 8, 7, 9, 10})
        SendPacket(0, nNumber);
    SendTo(rtp[0], 0, 0, "hole in a NAT");
    for (int nNumber : {7, 6, 8, 9, 10, 11, 12, 13, 14})
        SendPacket(1, nNumber);
    EXPECT_EQ("65534 65535 0 1 3 4 5 7 8 9 10 ", Numbers(0, 11));
    SendPacket(0, 2);
    EXPECT_EQ("6 7 8 9 10 11 12 13 14 ", Numbers(1, 9));
    EXPECT_TRUE(WaitFor(
        [this] {
            size_t nFrom = server.Output().size();
            server.Stat();
            return server.Output().find("   late=1 lost=2\r\n", nFrom) != std::string::npos;
        },
        10000));
}

// Its reports alone keep it, its requests do not.
// The request for the end may overtake them, and those behind a lost one wait.
TEST_F(UdpPushTest, LosesNothingAtItsEnd)
{
    Start("UdpPushers=1");
    Announce(1);
    SetUp(0);
    ASSERT_THAT(Ask(&pusher, "RECORD"), kIsOk);
    Describe(&player);
    ASSERT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_TCP));
    ASSERT_EQ(1, RtspPlay(&player));
    for (int nNumber : {0, 1, 2, 3, 4, 5})
        SendPacket(0, nNumber);
    ASSERT_NE(0, RtspSend(&pusher, "TEARDOWN", nullptr));
    for (int nNumber : {6, 8})
        SendPacket(0, nNumber);
    EXPECT_EQ("0 1 2 3 4 5 6 8 ", Numbers(0, 8));
    EXPECT_EQ(1, RtspWaitClosed(&pusher));
}

TEST_F(UdpPushTest, EndsWhenNothingComesAnyMore)
{
    Start("UdpPushers=1");
    Announce(1);
    SetUp(0);
    ASSERT_THAT(Ask(&pusher, "RECORD"), kIsOk);
    auto start = std::chrono::steady_clock::now();
    while (ElapsedMs(start) < 4500) {
        SendTo(rtcp[0], 0, 1, Be(0x80C90001, 4) + Be(1, 4));
        ASSERT_TRUE(Answers(&pusher));
        poll(nullptr, 0, 200);
    }
    start = std::chrono::steady_clock::now();
    int nAnswers = 0;
    while (ElapsedMs(start) < 20000 && RtspSend(&pusher, "OPTIONS", "*") && RtspWaitReply(&pusher, 0, nullptr, 500))
        nAnswers++;
    EXPECT_EQ(1, RtspWaitClosed(&pusher, 1000)) << nAnswers;
    EXPECT_TRUE(server.WaitOutput("over UDP. It is closed.\r\n"));
    EXPECT_TRUE(server.WaitOutput("FreePairPort("));
}

// A player goes on whatever it is refused; "a" and "b" are its ports.
TEST_F(UdpPushTest, PlayersGoOnToWhatIsServed)
{
    static const struct {
        const char *szTransport, *szReply;
    } cases[] = {
        {"RTP/AVP;multicast", "461 Unsupported Transport"},
        {"RTP/SAVP;unicast;client_port=6000-6001", "461 Unsupported Transport"},
        {"RTP/AVP;unicast;client_port=0-0", "461 Unsupported Transport"},
        {"RTP/AVP;unicast;client_port=a", "400 Bad Request"},
        {"none", "400 Bad Request"},
        {"RTP/AVP;multicast,RTP/AVP;unicast;client_port=6000-6001,RTP/AVP/TCP", "client_port=6000-6001;server_port"},
        {"RTP/AVP;unicast;client_port=6002-6003", "client_port=6002-6003;server_port"},
        {"RTP/AVP;multicast,RTP/AVP/TCP;unicast", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1;ssrc="},
        {"RTP/AVP/TCP;unicast;interleaved=0-1", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1;ssrc="},
    };
    Start("StandardPlayers=1");
    Connect(&pusher);
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp(2)));
    SendPictures(&pusher, 0, 1);
    EXPECT_THAT(Ask(&pusher, "OPTIONS"), kIsOk);
    Describe(&player);
    EXPECT_EQ(kWrongState, Ask(&player, "PLAY"));
    for (const auto &c : cases)
        EXPECT_THAT(Ask(&player, "SETUP", "/cam/trackID=0", "Transport: " + std::string(c.szTransport) + "\r\n"),
                    HasSubstr(c.szReply))
            << c.szTransport;
    EXPECT_EQ(Refused("461 Unsupported Transport"),
              Ask(&player, "SETUP", "/cam/trackID=1", "Transport: RTP/AVP;unicast;client_port=6000-6001\r\n"));
    EXPECT_EQ(Refused("454 Session Not Found"), Ask(&player, "PLAY", "", "Session: 12345678\r\n"));
    EXPECT_EQ(Reply("551 Option not supported", "Unsupported: a, b\r\n" + kNoCache),
              Ask(&player, "PLAY", "", "Require: a, b\r\n"));
    EXPECT_THAT(Ask(&player, "PLAY"), kIsOk);
    EXPECT_EQ("0 1 ", Numbers(0, 2));
    EXPECT_THAT(Ask(&player, "PLAY"), kIsOk);
    EXPECT_EQ(kWrongState, Ask(&player, "SETUP", "/cam/trackID=0", kOverTcp));
    EXPECT_THAT(Ask(&player, "PAUSE"), kIsOk);
    EXPECT_EQ(kWrongState, Ask(&player, "PAUSE"));
    player.session.clear();  // ffmpeg changes from UDP to the connection so
    EXPECT_EQ(1, RtspSetup(&player, 0, RTSP_OVER_UDP));
    EXPECT_EQ(1, RtspSetup(&player, 1, RTSP_OVER_UDP));
    EXPECT_THAT(Ask(&player, "SETUP", "/cam/trackID=1", kOverTcp), HasSubstr("interleaved=2-3"));
    EXPECT_THAT(Ask(&player, "SETUP", "/cam/trackID=0", kOverTcp), HasSubstr("interleaved=0-1"));
    EXPECT_TRUE(server.WaitOutput("FreePairPort(", 3)) << "of the first time, and both now";
    EXPECT_THAT(Ask(&player, "PLAY"), kIsOk);
    EXPECT_EQ("0 1 ", Numbers(0, 2));
}
