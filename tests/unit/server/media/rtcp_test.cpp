#include "server/media/rtcp.h"

#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {

using testing::HasSubstr;

TEST(RtcpNtp, FromWallClock)
{
    static const std::tuple<uint32_t, uint32_t, uint32_t, uint32_t> cases[] = {
        // seconds and microseconds, and what they are
        {0, 0, 0x83AA7E80, 0},
        {1, 1, 0x83AA7E81, 4294},
        {0, 999999, 0x83AA7E80, 999999U * 4294 + 999999U * 1981 / 2048},
        {0x7C558180, 0, 0, 0},  // 2036: the NTP seconds wrap
    };
    for (const auto &[nSec, nMicros, nNtpSec, nNtpFrac] : cases) {
        uint32_t nGotSec = 1, nGotFrac = 1;
        NtpFromTime(nSec, nMicros, &nGotSec, &nGotFrac);
        EXPECT_EQ(nNtpSec, nGotSec) << nSec;
        EXPECT_EQ(nNtpFrac, nGotFrac) << nMicros;
    }
    char szText[64];
    NtpTimeToString(0x83AA7E80U + 1700000000U, 4295U * 1000 * 250, szText, sizeof(szText));
    EXPECT_STREQ("2023-11-14-22:13:20.250", szText);
}

TEST(RtcpDump, ShowsACompound)
{
    std::vector<uint8_t> packet(512, 0xEE);
    uint8_t *p = packet.data();
    size_t nSr = RtcpMakeSR(p, 0x01020304, 0xE0000000, 0x80000000, 900000, 7, 1234567), n = nSr;
    const RtcpBlock block{1,  64,         0x123456, 70000,
                          33, 0xAABBCCDD, 1500,     1};  // of which an SR came 1500 ms ago
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
