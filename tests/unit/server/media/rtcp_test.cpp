#include "server/media/rtcp.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {

using testing::HasSubstr;

TEST(RtcpNtp, FromWallClock)
{
    auto ntp = [](uint32_t nSec, uint32_t nMicros) {
        uint32_t nNtpSec = 1, nNtpFrac = 1;
        NtpFromTime(nSec, nMicros, &nNtpSec, &nNtpFrac);
        return std::pair(nNtpSec, nNtpFrac);
    };
    EXPECT_EQ(std::pair(0x83AA7E80U, 0U), ntp(0, 0));
    EXPECT_EQ(std::pair(0x83AA7E81U, 4294U), ntp(1, 1));
    EXPECT_EQ(std::pair(0x83AA7E80U, 999999U * 4294 + 999999U * 1981 / 2048), ntp(0, 999999));
    EXPECT_EQ(std::pair(0U, 0U), ntp(0x7C558180, 0)) << "2036: the NTP seconds wrap";
    char szText[64];
    NtpTimeToString(0x83AA7E80U + 1700000000U, 4295U * 1000 * 250, szText, sizeof(szText));
    EXPECT_STREQ("2023-11-14-22:13:20.250", szText);
}

TEST(RtcpDump, ShowsACompound)
{
    std::vector<uint8_t> packet(512, 0xEE);
    uint8_t *p = packet.data();
    size_t nSr = RtcpMakeSR(p, 0x01020304, 0xE0000000, 0x80000000, 900000, 7, 1234567), n = nSr;
    const RtcpBlock block{1, 64, 0x123456, 70000, 33, 0xAABBCCDD, 1500, 1};  // of which an SR came 1500 ms ago
    n += RtcpMakeRR(p + n, 0xA0B0C0D0, 1);
    n += RtcpMakeReportBlock(p + n, &block);
    n += RtcpMakeSDES(p + n, packet.size() - n, 0x01020304, "abcdefgh");
    n += RtcpMakeBYE(p + n, packet.size() - n, 0x01020304, "x");
    EXPECT_EQ(
        "RTCP head: version=2, padding=0, count=0, type=200, length=28\r\n"
        "RTCP packet type is SR\r\n"
        "SR ssrc=16909060, ntpTime=2019-02-02-11:39:44.499, rtp_ts=10000ms, psent=7, osent=1234567\r\n"
        "RTCP head: version=2, padding=0, count=1, type=201, length=32\r\n"
        "RTCP packet type is RR\r\n"
        "RR sender's ssrc=2695938256:\r\n"
        "RR[0] ssrc=1, fraction=64, lost=1193046, last_seq=70000, jitter=33, lsr=2864434397, dlsr=98304\r\n"
        "RTCP head: version=2, padding=0, count=1, type=202, length=20\r\n"
        "RTCP packet type is SDES\r\n"
        "SDes ssrc=16909060, type=1, length=7, data=abcdefgh\r\n"
        "RTCP head: version=2, padding=0, count=1, type=203, length=16\r\n"
        "RTCP packet type is BYE\r\n"
        "\r\n",
        Printed([&] { RtcpDump(p, n, 90000); }));
    EXPECT_THAT(Printed([&] { RtcpDump(p, nSr, 999); }), HasSubstr("rtp_ts=900000,"))
        << "a rate that must not be divided by";
    p[1] = 205;
    EXPECT_THAT(Printed([&] { RtcpDump(p, 8, 0); }), HasSubstr("Invalid RTCP packet!\r\n"));
}

}  // namespace orx
