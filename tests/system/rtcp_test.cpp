// RTCP: reports to players, and what players and pushers send.
#include <sys/socket.h>

#include <regex>

#include "client/rtppacket.h"
#include "system/systemtest.h"

using namespace orx;

struct RtcpTest : SystemTest {
    const time_t tStart = time(nullptr);

    void StartWatched(RtspTransport transport, int nTracks = 1)
    {
        server.Set("SERVER", "EnableRtcp", "1");
        StartCamera(CameraSdp(nTracks));
        SendPictures(&pusher, 0, 1);
        Deliver();
        ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), transport));
    }
    // A sender report of the source pushed, and a description, as the server makes them.
    void ExpectReport(const std::string &report, uint32_t nPackets, uint32_t nOctets)
    {
        ASSERT_GE(report.size(), 28U + 20U);
        EXPECT_EQ(std::string("\x80\xC8\0\x06\x12\x34\xAB\xCD", 8), report.substr(0, 8));
        time_t tReport = GetBe(report.data() + 8, 4) - 0x83AA7E80U;
        timespec now{};  // time() lags behind by up to a tick
        clock_gettime(CLOCK_REALTIME, &now);
        EXPECT_TRUE(tReport >= tStart && tReport <= now.tv_sec) << tReport;
        EXPECT_EQ(nPackets, GetBe(report.data() + 20, 4));
        EXPECT_EQ(nOctets, GetBe(report.data() + 24, 4));
        EXPECT_EQ(std::string("\x81\xCA"), report.substr(28, 2));
        EXPECT_EQ(report.size() - 28, 4 * (1 + (GetBe(report.data() + 28, 4) & 0xFFFF)));
        EXPECT_EQ("\x12\x34\xAB\xCD\x01", report.substr(32, 5));
        EXPECT_TRUE(std::regex_match(report.c_str() + 38, std::regex("Orx[0-9]+")));
    }
    // One to each port of a pair.
    static void SendDatagrams(const RtspUdpPair &pair, const std::string &bytes)
    {
        for (const auto &[fd, to] : {std::pair{pair.fdRtp, pair.serverRtp}, {pair.fdRtcp, pair.serverRtcp}})
            EXPECT_EQ(ssize_t(bytes.size()), sendto(fd, bytes.data(), bytes.size(), 0, &to.any, AddrSize(&to)));
    }
};

TEST_F(RtcpTest, AFirstReportFollowsTheFirstPacketOfATrack)
{
    StartWatched(RTSP_OVER_TCP, 2);
    std::string audio = CameraPacket(1, 1, 160, std::string(160, 'a'));
    ASSERT_EQ(1, RtspSendFrame(&pusher, 2, audio.data(), audio.size()));
    SendPictures(&pusher, 1, 3);
    Deliver();
    RtspMessage frame;
    for (int nChannel : {0, 1, 0, 2, 3}) {
        ASSERT_EQ(1, RtspWaitFrame(&player, -1, &frame));
        ASSERT_EQ(nChannel, frame.nChannel);
        if (nChannel & 1)
            ExpectReport(frame.body, 1, nChannel == 1 ? 4 : 160);
    }
    EXPECT_EQ(2, CountText(server.Output(), "SendFirstRtcpReport():\r\nRTCP head: version=2, "));
}

// Receiver reports, packets that open a NAT and whatever else players send to the media ports reach neither
// the text of their connection nor its state.
TEST_F(RtcpTest, DatagramsLeaveTheConnectionAlone)
{
    StartWatched(RTSP_OVER_UDP);
    RtspTrack *pTrack = &player.tracks[0];
    std::string report, packet;
    ASSERT_EQ(1, RtspUdpReceive(pTrack->udp.fdRtcp, &report));
    ExpectReport(report, 1, 4);
    std::string begun = MakeRequest("GET_PARAMETER", server.Url("/cam"), 50);
    Send(&player, begun.substr(0, 15));  // half a request is under way meanwhile
    for (uint32_t i = 0; i < 20; i++) {
        ASSERT_EQ(1, RtspUdpSendReport(pTrack, 0x77, 1000 + i));
        for (const std::string &bytes : {std::string(), std::string("\xCE\xFA\xED\xFE"), std::string("$\x01"),
                                         MakeRequest("TEARDOWN", "/cam", 60), std::string(1400, '\x80')})
            SendDatagrams(pTrack->udp, bytes);
        ASSERT_TRUE(server.WaitOutput("last_seq=" + std::to_string(1000 + i) + ", "));
    }
    EXPECT_EQ(20, CountText(server.Output(), "RR sender's ssrc=119:\r\n"));
    EXPECT_THAT(server.Output(), testing::HasSubstr("Receive RTCP packet on track 1, 52 bytes.\n"));
    EXPECT_EQ(kNotImplemented, Exchange(&player, begun.substr(15))) << "an unknown method, received whole";
    SendPictures(&pusher, 1, 5);
    Deliver();
    player.nCSeq = 70;
    EXPECT_TRUE(Answers(&player)) << "behind the last five, which would wait for more";
    for (int i = 0; i < 12; i++)
        ASSERT_EQ(1, RtspUdpReceive(pTrack->udp.fdRtp, &packet)) << i;
}

// Media goes to where the player's datagrams come from, which a NAT has chosen, whatever ports it told.
TEST_F(RtcpTest, MediaFollowsTheDatagrams)
{
    for (const std::string &opener : {std::string(), std::string(200, 'x')}) {
        if (server.pid < 0)
            StartCamera(CameraSdp());
        RtspUdpPair pair;
        ASSERT_EQ(1, RtspUdpOpen(&pair));
        Describe(&player);
        std::string reply = Ask(&player, "SETUP", "/cam/trackID=0", "Transport: RTP/AVP;unicast;client_port=9-10\r\n");
        std::smatch ports;
        ASSERT_TRUE(std::regex_search(reply, ports, std::regex("server_port=([0-9]+)-([0-9]+);")));
        pair.serverRtp.in4 = Loopback(std::stoi(ports[1]));
        pair.serverRtcp.in4 = Loopback(std::stoi(ports[2]));
        ASSERT_THAT(Ask(&player, "PLAY"), kIsOk);
        SendDatagrams(pair, opener);
        std::string packet;
        EXPECT_TRUE(WaitFor([&] {
            SendPictures(&pusher, 1, 3);
            Deliver();
            return RtspUdpReceive(pair.fdRtp, &packet, 1);
        }));
    }
}

// What a pusher reports of a track reaches its players, the last report ahead of a start, and takes the place of the
// server's own; a track without reports gets those after ten seconds. What players report is told by the console.
TEST_F(RtcpTest, ReportsOfPushersReachPlayers)
{
    server.Set("INTEROP", "StandardPushers=1\nStandardPlayers", "1");
    server.Set("SERVER", "EnableRtcp", "1");
    StartCamera(CameraSdp(2));
    const std::string report("\x80\xC8\0\x06\x12\x34\xAB\xCD\xE0\0\0\x01\x80\0\0\0\0\0\0\x07\0\0\0\1\0\0\0\4", 28);
    const std::string name(
        "\x81\xCA\0\x03\x12\x34\xAB\xCD\x01\x03"
        "cam\0\0\0",
        16);
    const std::string bye("\x81\xCB\0\x01\x12\x34\xAB\xCD", 8);
    std::string blocks = report + std::string(24, 'b');  // of what the pusher receives itself: nobody else's business
    blocks[0] = '\x81';
    blocks[3] = 12;
    auto push = [&](const std::string &bytes) { return RtspSendFrame(&pusher, 1, bytes.data(), bytes.size()); };
    ASSERT_EQ(1, push(blocks + name + bye));
    SendPictures(&pusher, 0, 1);
    std::string sound = CameraPacket(1, 1, 160, "sound");
    ASSERT_EQ(1, RtspSendFrame(&pusher, 2, sound.data(), sound.size()));
    Deliver();
    const std::string second = report.substr(0, 8) + std::string("\xE0\0\0\x02\x80\0\0\0", 8) + report.substr(16);
    for (RtspTransport transport : {RTSP_OVER_UDP, RTSP_OVER_TCP}) {
        RtspClient viewer;
        ASSERT_EQ(1, RtspOpenPlayer(&viewer, server.Url("/cam").c_str(), transport));
        RtspTrack *pTrack = &viewer.tracks[0];
        auto received = [&](int nChannel = 1) {
            RtspMessage frame;
            if (transport == RTSP_OVER_UDP)
                RtspUdpReceive(pTrack->udp.fdRtcp, &frame.body);
            else
                RtspWaitFrame(&viewer, nChannel, &frame);
            return frame.body;
        };
        EXPECT_EQ(report + name, received(-1)) << "ahead of all media";
        ASSERT_EQ(1, push(std::string(3, '\x80') + second)) << "no RTCP";
        ASSERT_EQ(1, push(bye + second));
        std::string named = received();  // by the program, as its source has no name
        EXPECT_THAT(named, testing::StartsWith(second + std::string("\x81\xCA\0", 3)));
        EXPECT_EQ(std::string("\x12\x34\xAB\xCD\x01", 5), named.substr(32, 5));
        EXPECT_EQ("Orx", named.substr(38, 3));
        EXPECT_EQ(named.find('\0', 38) - 38, static_cast<unsigned char>(named[37])) << "the text's own length";
        std::string back("\x81\xC9\0\x07\0\0\0\x77\x12\x34\xAB\xCD\x40\0\0\1\0\0\0\1\0\0\x03\x84\0\x02\x80\0\0\0\0\0",
                         32);
        if (transport == RTSP_OVER_UDP)
            SendDatagrams(pTrack->udp, back);
        else
            ASSERT_EQ(1, RtspSendFrame(&viewer, 1, back.data(), back.size()));
        EXPECT_TRUE(WaitFor([&] {
            size_t nBefore = server.Output().size();
            server.Stat();
            return server.Output().find("\t0\r\n   loss=25% jitter=10ms rtt=", nBefore) != std::string::npos;
        }));
        RtspMessage own;
        if (transport == RTSP_OVER_TCP) {
            ASSERT_EQ(1, RtspWaitFrame(&viewer, 3, &own, 15000));
            EXPECT_EQ(std::string("\xE0\0\0\x02", 4), own.body.substr(8, 4)) << "the wall clock of the pictures";
            EXPECT_EQ(std::string("\0\0\0\xA0\0\0\0\1\0\0\0\5", 12), own.body.substr(16, 12));
        }
        ASSERT_EQ(1, push(report + name));  // for the next one
    }
}
