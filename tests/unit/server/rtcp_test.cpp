#include "server/rtcp.h"

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "base/datablock.h"
#include "server/program.h"
#include "support/output.h"

namespace orx {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::ElementsAre;
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

TEST(RtcpMake, Reports)
{
    EXPECT_THAT(MakeSR(), ElementsAre(0x80, 200, 0, 6, 1, 2, 3, 4, 0xE0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0x0D,
                                      0xBB, 0xA0, 0, 0, 0, 7, 0, 0x12, 0xD6, 0x87));
    EXPECT_THAT(MakeRR(),
                ElementsAre(0x81, 201, 0, 7, 0xA0, 0xB0, 0xC0, 0xD0, 0, 0, 0, 1, 64, 0x12, 0x34, 0x56, 0, 1,
                            0x11, 0x70, 0, 0, 0, 33, 0xAA, 0xBB, 0xCC, 0xDD, 0, 1, 0x80, 0));
    // the reason has no length byte
    EXPECT_THAT(MakeBYE("bye"), ElementsAre(0x81, 203, 0, 3, 1, 2, 3, 4, 'b', 'y', 'e', 0, 0, 0, 0, 0));
}

// Sizes and length bytes as deployed players know them.
TEST(RtcpMake, SourceDescription)
{
    static const struct {
        const char *szName;
        size_t nBytes;
        uint8_t nLength;
    } cases[] = {{"", 12, 255}, {"abcd", 16, 3}, {"abcde", 20, 7}, {"abcdefghi", 24, 11}};
    for (const auto &c : cases) {
        Bytes expected{0x81, 202, 0, static_cast<uint8_t>(c.nBytes / 4 - 1), 1, 2, 3, 4, 1, c.nLength};
        expected.insert(expected.end(), c.szName, c.szName + strlen(c.szName));
        expected.resize(c.nBytes);
        EXPECT_EQ(expected, MakeSDES(c.szName)) << c.szName;
    }
    Bytes out(20, 0xEE);
    EXPECT_EQ(0U, RtcpMakeSDES(out.data(), 19, 1, "abcdefgh"));
    EXPECT_THAT(out, testing::Each(0xEE)) << "keeps to its room";
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

// Counts and lengths that promise more than there is.
TEST(RtcpDump, StaysInsideAtEveryCut)
{
    const Bytes whole = MakeCompound();
    for (size_t n = 0; n <= whole.size(); n++) {
        Bytes cut(whole.begin(),
                  whole.begin() + static_cast<long>(n));  // of its very size, for the sanitizers
        EXPECT_THAT(Dumped(cut, 90000), HasSubstr("\r\n")) << n;
        for (size_t nAt : {0, 2, 3}) {
            Bytes wrong = cut;
            if (nAt < wrong.size())
                wrong[nAt] = 0x9F;
            EXPECT_THAT(Dumped(wrong, 90000), HasSubstr("\r\n")) << n;
        }
    }
}

// The first report comes right behind the first packet and counts from its time stamp, also where that wraps.
TEST(RtcpReport, FollowsTheFirstPacketOfATrack)
{
    Program prog;
    Session session;
    BlockListInit(&session.out.Outq, &session);
    strcpy(prog.szName, "Orx12345");
    session.pProg = &prog;
    session.nFlags = SESSION_INTERLEAVED | SESSION_RTCP;
    session.out.nTracks = 1;
    session.out.tracks[0].nTimeScale = 90000;
    session.tracks[0].nRtcpChannel = 5;
    const Bytes rtp = Built([](uint8_t *p, size_t) {
        PutBe(p + 4, 4, 0xFFFFFF00);
        PutBe(p + 8, 4, 0xCAFE0001);
        return 112;
    });
    for (int i = 0; i < 2; i++)
        RtcpNotePacketSent(&session, 0, rtp.data(), rtp.size(), nullptr);
    ASSERT_EQ(1U, ListCount(&session.out.Outq)) << "only once";
    const uint8_t *pReport = BlockData(ListFirstOf<DataBlock>(&session.out.Outq));
    EXPECT_THAT(Bytes(pReport, pReport + 12), ElementsAre('$', 5, 0, 48, 0x80, 200, 0, 6, 0xCA, 0xFE, 0, 1));
    EXPECT_LT(GetBe(pReport + 4 + 16, 4) - 0xFFFFFF00U, 90000U);
    EXPECT_EQ(1U, GetBe(pReport + 4 + 20, 4));
    EXPECT_EQ(100U, GetBe(pReport + 4 + 24, 4)) << "octets without the header of 12 bytes";
    EXPECT_EQ(0, memcmp(pReport + 4 + 28 + 10, "Orx12345", 8));
    EXPECT_EQ(2U, session.tracks[0].nPackets);
    EXPECT_EQ(200U, session.tracks[0].nOctets);
    ListEmpty(&session.out.Outq);
}

}  // namespace
}  // namespace orx
