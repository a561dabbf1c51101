#include "server/media/rtcp.h"

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/output.h"

namespace orx {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::HasSubstr;

// Runs a builder in a buffer that was dirty before, and gives what it wrote.
template <typename Build>
Bytes Built(Build build)
{
    Bytes out(512, 0xEE);
    out.resize(build(out.data(), out.size()));
    return out;
}

Bytes MakeSR()
{
    return Built([](uint8_t *p, size_t) {
        return RtcpMakeSR(p, 0x01020304, 0xE0000000, 0x80000000, 900000, 7, 1234567);
    });
}

Bytes MakeSDES(const char *szName)
{
    return Built([&](uint8_t *p, size_t nRoom) { return RtcpMakeSDES(p, nRoom, 0x01020304, szName); });
}

Bytes MakeBYE(const char *szReason)
{
    return Built([&](uint8_t *p, size_t nRoom) { return RtcpMakeBYE(p, nRoom, 0x01020304, szReason); });
}

// A report on one source, of which 1500 ms ago was heard last.
Bytes MakeRR()
{
    RtcpBlock block{1, 64, 0x123456, 70000, 33, 0xAABBCCDD, 1500, 1};
    return Built([&](uint8_t *p, size_t) {
        size_t nHead = RtcpMakeRR(p, 0xA0B0C0D0, 1);
        return nHead + RtcpMakeReportBlock(p + nHead, &block);
    });
}

TEST(RtcpNtp, FromWallClock)
{
    static const struct {
        uint32_t nSec, nMicros, nNtpSec, nNtpFrac;
    } cases[] = {
        {0, 0, 0x83AA7E80, 0},
        {1, 1, 0x83AA7E81, 4294},
        {0, 999999, 0x83AA7E80, 999999U * 4294 + 999999U * 1981 / 2048},
        {0x7C558180, 0, 0, 0},  // 2036: the NTP seconds wrap
    };
    for (const auto &c : cases) {
        uint32_t nSec = 1, nFrac = 1;
        NtpFromTime(c.nSec, c.nMicros, &nSec, &nFrac);
        EXPECT_EQ(c.nNtpSec, nSec) << c.nSec;
        EXPECT_EQ(c.nNtpFrac, nFrac) << c.nMicros;
    }
    char szText[64];
    NtpTimeToString(0x83AA7E80U + 1700000000U, 4295U * 1000 * 250, szText, sizeof(szText));
    EXPECT_STREQ("2023-11-14-22:13:20.250", szText);
}

std::string Dumped(const Bytes &packet, uint32_t nClockRate)
{
    return Printed([&] { RtcpDump(packet.data(), packet.size(), nClockRate); });
}

Bytes MakeCompound()
{
    Bytes all;
    for (const Bytes &packet : {MakeSR(), MakeRR(), MakeSDES("abcdefgh"), MakeBYE("x")})
        all.insert(all.end(), packet.begin(), packet.end());
    return all;
}

TEST(RtcpDump, ShowsACompound)
{
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
        Dumped(MakeCompound(), 90000));
    EXPECT_THAT(Dumped(MakeSR(), 999), HasSubstr("rtp_ts=900000,")) << "a rate that must not be divided by";
    EXPECT_THAT(Dumped({0x80, 205, 0, 1, 0, 0, 0, 0}, 0), HasSubstr("Invalid RTCP packet!\r\n"));
}

}  // namespace
}  // namespace orx
