// RTCP: reports to players, and what players and pushers send.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <regex>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "client/rtppacket.h"
#include "system/orxprocess.h"

namespace orx {
namespace {

using testing::HasSubstr;
using testing::Not;

uint32_t Be32(const std::string &bytes, size_t nAt)
{
    return GetBe(reinterpret_cast<const uint8_t *>(bytes.data()) + nAt, 4);
}

struct RtcpTest : SystemTest {
    RtspClient pusher, player;
    int nPicture = 0;

    void StartWith(RtspTransport transport, int nTracks = 1)
    {
        server.Set("SERVER", "EnableRtcp", "1");
        server.Start();
        ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp(nTracks)));
        Push(1);
        ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), transport));
    }
    void Push(int nPictures)
    {
        SendPictures(&pusher, nPicture, nPictures);
        nPicture += nPictures;
        RtspMessage reply;
        ASSERT_EQ(1, RtspRequest(&pusher, "OPTIONS", nullptr, nullptr, "", &reply));
    }
    // The next report of track 0 on whatever way it comes; "" when none does.
    std::string NextReport(int nTimeoutMs = kRtspTimeoutMs)
    {
        RtspMessage frame;
        std::string bytes;
        if (player.tracks[0].udp.fdRtcp >= 0)
            return RtspUdpReceive(player.tracks[0].udp.fdRtcp, &bytes, nTimeoutMs) ? bytes : "";
        return RtspWaitFrame(&player, 1, &frame, nTimeoutMs) ? frame.body : "";
    }
    // A sender report and a description as the server makes them.
    void ExpectReport(const std::string &report, uint32_t nPackets, uint32_t nOctets)
    {
        ASSERT_GE(report.size(), 28U + 20U);
        EXPECT_EQ(std::string("\x80\xC8\0\x06\x12\x34\xAB\xCD", 8), report.substr(0, 8))
            << "of the source pushed";
        time_t now = time(nullptr);
        EXPECT_NEAR(static_cast<double>(now), static_cast<double>(Be32(report, 8) - 0x83AA7E80U), 3);
        EXPECT_EQ(nPackets, Be32(report, 20));
        EXPECT_EQ(nOctets, Be32(report, 24));
        EXPECT_EQ(std::string("\x81\xCA"), report.substr(28, 2));
        EXPECT_EQ(report.size() - 28, 4 * (1 + (Be32(report, 28) & 0xFFFF)));
        EXPECT_EQ("\x12\x34\xAB\xCD\x01", report.substr(32, 5));
        std::string name = report.substr(38);
        EXPECT_TRUE(std::regex_match(name.c_str(), std::regex("Orx[0-9]+"))) << name;
        EXPECT_EQ(((strlen(name.c_str()) + 11) / 4 + 1) * 4, report.size() - 28);
    }
};

constexpr uint32_t kPictureOctets = 4 + 8;  // "gsps" and "epicture"

TEST_F(RtcpTest, FirstReportFollowsTheFirstPacketOverTcp)
{
    StartWith(RTSP_OVER_TCP);
    RtspMessage frame;
    ASSERT_EQ(1, RtspWaitFrame(&player, -1, &frame));
    ASSERT_EQ(0, frame.nChannel);
    uint32_t nFirst = Be32(frame.body, 4);
    ASSERT_EQ(1, RtspWaitFrame(&player, -1, &frame));
    ASSERT_EQ(1, frame.nChannel) << "right behind the packet";
    ExpectReport(frame.body, 1, 4);
    EXPECT_LT(Be32(frame.body, 16) - nFirst, 90000U) << "the packet's time stamp is that moment's";
    ASSERT_EQ(1, RtspWaitFrame(&player, -1, &frame));
    EXPECT_EQ(0, frame.nChannel);
    Push(60);
    for (int i = 0; i < 60; i++)  // the last up to fifty wait for more
        ASSERT_EQ(1, RtspWaitFrame(&player, 0, nullptr));
    EXPECT_EQ("", NextReport(100)) << "the next is due after ten seconds";
    std::string output = server.Output();
    EXPECT_EQ(1, CountText(output,
                           "SendFirstRtcpReport():\r\nRTCP head: version=2, padding=0, count=0, type=200, "
                           "length=28\r\nRTCP packet type is SR\r\nSR ssrc=305441741, ntpTime="));
    EXPECT_TRUE(std::regex_search(
        output, std::regex("ntpTime=20[0-9]{2}-[0-9]{2}-[0-9]{2}-[0-9]{2}:[0-9]{2}:"
                           "[0-9]{2}\\.[0-9]{1,3}, rtp_ts=[0-9]+ms, psent=1, osent=4\r\n")));
    EXPECT_TRUE(std::regex_search(
        output, std::regex("SDes ssrc=305441741, type=1, length=[0-9]+, data=Orx[0-9]+\r\n\r\n")));
}

TEST_F(RtcpTest, EachTrackHasItsOwnReports)
{
    StartWith(RTSP_OVER_TCP, 2);
    std::string audio = CameraPacket(1, 1, 160, std::string(160, 'a'));
    ASSERT_EQ(1, RtspSendFrame(&pusher, 2, audio.data(), audio.size()));
    Push(60);
    RtspMessage frame;
    ASSERT_EQ(1, RtspWaitFrame(&player, 2, &frame));
    ASSERT_EQ(1, RtspWaitFrame(&player, 3, &frame));
    ExpectReport(frame.body, 1, 160);
    ASSERT_EQ(1, RtspWaitFrame(&player, 1, &frame));
    ExpectReport(frame.body, 1, 4);
}

TEST_F(RtcpTest, NoReportsUnlessTold)
{
    server.Start();
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp()));
    Push(1);
    ASSERT_EQ(1, RtspOpenPlayer(&player, server.Url("/cam").c_str(), RTSP_OVER_TCP));
    std::string report = RtcpReceiverReport(1, 2, 3);
    ASSERT_EQ(1, RtspSendFrame(&player, 1, report.data(), report.size()));
    Push(60);
    for (int i = 0; i < 60; i++)  // the last up to fifty wait for more
        ASSERT_EQ(1, RtspWaitFrame(&player, 0, nullptr));
    EXPECT_EQ("", NextReport(50));
    EXPECT_THAT(server.Output(), Not(HasSubstr("RTCP")));
}

// A second report comes ten seconds after the first, counts what was sent between, and not before.
struct RtcpCycleTest : RtcpTest, testing::WithParamInterface<RtspTransport> {};
INSTANTIATE_TEST_SUITE_P(Transports, RtcpCycleTest, testing::Values(RTSP_OVER_TCP, RTSP_OVER_UDP));

TEST_P(RtcpCycleTest, TakesTenSeconds)
{
    StartWith(GetParam());
    Push(30);
    ExpectReport(NextReport(), 1, 4);
    auto tFirst = std::chrono::steady_clock::now();
    std::string report;
    while (report.empty() && std::chrono::steady_clock::now() < tFirst + std::chrono::seconds(15)) {
        Push(30);
        report = NextReport(100);
    }
    auto spent = std::chrono::steady_clock::now() - tFirst;
    EXPECT_GE(spent, std::chrono::milliseconds(8900));
    EXPECT_LT(spent, std::chrono::milliseconds(12500));
    ASSERT_GE(report.size(), 28U);
    uint32_t nPackets = Be32(report, 20);
    EXPECT_GT(nPackets, 100U);
    ExpectReport(report, nPackets, nPackets / 2 * kPictureOctets + (nPackets & 1 ? 4 : 0));
    EXPECT_EQ(1, CountText(server.Output(), "SendRtcpReport():\r\n"));
}

// Receiver reports, packets that open a NAT and whatever else players send to the media ports reach neither
// the text of their connection nor its state.
TEST_F(RtcpTest, DatagramsLeaveTheConnectionAlone)
{
    StartWith(RTSP_OVER_UDP);
    RtspTrack *pTrack = &player.tracks[0];
    ExpectReport(NextReport(), 1, 4);
    std::string begun = MakeRequest("GET_PARAMETER", server.Url("/cam"), 50);
    ASSERT_EQ(1, RtspSendRaw(&player, begun.data(), 15));  // half a request is under way meanwhile
    auto send = [&](int fd, const sockaddr_in &to, const std::string &bytes) {
        EXPECT_EQ(
            static_cast<ssize_t>(bytes.size()),
            sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to)));
    };
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(1, RtspUdpSendReport(pTrack, 0x77, 1000u + static_cast<uint32_t>(i)));
        send(pTrack->udp.fdRtp, pTrack->udp.serverRtp, "");
        send(pTrack->udp.fdRtcp, pTrack->udp.serverRtcp, "");
        send(pTrack->udp.fdRtp, pTrack->udp.serverRtp, std::string("\xCE\xFA\xED\xFE", 4));
        send(pTrack->udp.fdRtp, pTrack->udp.serverRtp, MakeRequest("TEARDOWN", "/cam", 60));
        send(pTrack->udp.fdRtcp, pTrack->udp.serverRtcp, "$\x01");
        send(pTrack->udp.fdRtcp, pTrack->udp.serverRtcp, std::string(1400, '\x80'));
    }
    ASSERT_TRUE(server.WaitOutput("RR sender's ssrc=119:\r\n", 20));
    EXPECT_THAT(server.Output(), HasSubstr("Receive RTCP packet on track 1, 52 bytes.\n"));
    EXPECT_THAT(server.Output(), HasSubstr("last_seq=1019, "));
    ASSERT_EQ(1, RtspSendRaw(&player, begun.data() + 15, begun.size() - 15));
    RtspMessage reply;
    ASSERT_EQ(1, RtspWaitReply(&player, 0, &reply));
    EXPECT_EQ(500, reply.nStatus) << "an unknown method, received whole";
    Push(60);
    std::string packet;
    for (int i = 0; i < 50; i++)
        ASSERT_EQ(1, RtspUdpReceive(pTrack->udp.fdRtp, &packet)) << i;
    EXPECT_EQ(200, (player.nCSeq = 70, RtspRequest(&player, "SET_PARAMETER", nullptr, nullptr, "", &reply),
                    reply.nStatus));
    ASSERT_EQ(1, RtspRequest(&player, "TEARDOWN", nullptr, nullptr, "", &reply));
    EXPECT_EQ(200, reply.nStatus);
    EXPECT_TRUE(server.WaitOutput("OnSessionDelayCloseTimer()\r\n"));
}

TEST_F(RtcpTest, DumpsWhatPushersSend)
{
    server.Set("SERVER", "EnableRtcp", "1");
    server.Start();
    ASSERT_EQ(1, RtspOpenPusher(&pusher, server.Url("/cam").c_str(), CameraSdp(2)));
    std::string report = RtcpSenderReport(0xABCD, 900000, 5, 6, "encoder");
    ASSERT_EQ(1, RtspSendFrame(&pusher, 1, report.data(), report.size()));
    ASSERT_EQ(1, RtspSendFrame(&pusher, 3, report.data(), report.size()));
    Push(1);
    std::string start = "Receive RTCP packet on track ";
    EXPECT_THAT(server.Output(),
                HasSubstr(start + "1, " + std::to_string(report.size()) + " bytes.\nRTCP head: "));
    EXPECT_THAT(server.Output(), HasSubstr(start + "3, "));
    EXPECT_THAT(server.Output(), HasSubstr("rtp_ts=10000ms, psent=5, osent=6\r\n")) << "video, 90 kHz";
    EXPECT_THAT(server.Output(), HasSubstr("rtp_ts=112500ms, psent=5, osent=6\r\n")) << "audio, 8 kHz";
    EXPECT_THAT(server.Output(), HasSubstr("data=encoder"));
    // of a track that is not there, and torn: nothing ends
    ASSERT_EQ(1, RtspSendFrame(&pusher, 7, report.data(), report.size()));
    ASSERT_EQ(1, RtspSendFrame(&pusher, 1, report.data(), 9));
    ASSERT_EQ(1, RtspSendFrame(&pusher, 1, "\x80\xCD\0\x40", 4));
    Push(1);
    EXPECT_TRUE(server.WaitOutput("type=205, length=260\r\nInvalid RTCP packet!\r\n"));
}

}  // namespace
}  // namespace orx
