#include "server/rtcp.h"

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/bytes.h"
#include "base/datablock.h"
#include "runtime/clock.h"
#include "server/program.h"

namespace orx {
namespace {

using Bytes = std::vector<uint8_t>;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

// Runs a builder in a buffer that was dirty before, and gives what it wrote.
template <typename Build>
Bytes Built(Build build, size_t nRoom = 512)
{
    Bytes out(nRoom, 0xEE);
    out.resize(build(out.data(), out.size()));
    return out;
}

std::string Dumped(const Bytes &packet, uint32_t nClockRate)
{
    testing::internal::CaptureStdout();
    RtcpDump(packet.data(), packet.size(), nClockRate);
    return testing::internal::GetCapturedStdout();
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

Bytes MakeRR(unsigned nBlocks)
{
    Bytes packet = Built([&](uint8_t *p, size_t) { return RtcpMakeRR(p, 0xA0B0C0D0, nBlocks); });
    for (unsigned i = 0; i < nBlocks; i++) {
        RtcpBlock block{i + 1, 64, 0x123456, 70000, 33, 0xAABBCCDD, 2500, 1};
        Bytes made = Built([&](uint8_t *p, size_t) { return RtcpMakeReportBlock(p, &block); });
        packet.insert(packet.end(), made.begin(), made.end());
    }
    return packet;
}

Bytes MakeBYE(const char *szReason)
{
    return Built([&](uint8_t *p, size_t nRoom) { return RtcpMakeBYE(p, nRoom, 0x01020304, szReason); });
}

Bytes Joined(std::initializer_list<Bytes> packets)
{
    Bytes all;
    for (const Bytes &packet : packets)
        all.insert(all.end(), packet.begin(), packet.end());
    return all;
}

TEST(RtcpMake, SenderReport)
{
    EXPECT_THAT(MakeSR(), ElementsAre(0x80, 200, 0, 6, 1, 2, 3, 4, 0xE0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0x0D,
                                      0xBB, 0xA0, 0, 0, 0, 7, 0, 0x12, 0xD6, 0x87));
}

// Sizes and length bytes as deployed players know them.
TEST(RtcpMake, SourceDescription)
{
    static const struct {
        const char *szName;
        size_t nBytes;
        uint8_t nLength;
    } cases[] = {
        {"", 12, 255},       {"a", 16, 3},          {"abcd", 16, 3},           {"abcde", 20, 7},
        {"abcdefgh", 20, 7}, {"abcdefghi", 24, 11}, {"Orx1700000000", 28, 15},
    };
    for (const auto &c : cases) {
        Bytes packet = MakeSDES(c.szName);
        ASSERT_EQ(c.nBytes, packet.size()) << c.szName;
        Bytes expected(c.nBytes, 0);
        const uint8_t head[] = {0x81, 202, 0,        static_cast<uint8_t>(c.nBytes / 4 - 1), 1, 2, 3,
                                4,    1,   c.nLength};
        memcpy(expected.data(), head, sizeof(head));
        memcpy(expected.data() + 10, c.szName, strlen(c.szName));
        EXPECT_EQ(expected, packet) << c.szName;
    }
}

TEST(RtcpMake, DescriptionKeepsToItsRoom)
{
    Bytes out(20, 0xEE);
    EXPECT_EQ(0U, RtcpMakeSDES(out.data(), 19, 1, "abcdefgh"));
    EXPECT_THAT(out, testing::Each(0xEE));
    EXPECT_EQ(20U, RtcpMakeSDES(out.data(), 20, 1, "abcdefgh"));
    EXPECT_EQ(0U, RtcpMakeBYE(out.data(), 11, 1, nullptr));
}

TEST(RtcpMake, ReceiverReport)
{
    EXPECT_THAT(MakeRR(0), ElementsAre(0x80, 201, 0, 1, 0xA0, 0xB0, 0xC0, 0xD0));
    Bytes packet = MakeRR(2);
    ASSERT_EQ(8U + 2 * 24, packet.size());
    EXPECT_EQ(0x82, packet[0]);
    EXPECT_EQ(13U, GetBe(&packet[2], 2));
    EXPECT_THAT(Bytes(packet.begin() + 8, packet.begin() + 32),
                ElementsAre(0, 0, 0, 1, 64, 0x12, 0x34, 0x56, 0, 1, 0x11, 0x70, 0, 0, 0, 33, 0xAA, 0xBB, 0xCC,
                            0xDD, 0, 2, 0x80, 0));
}

TEST(RtcpMake, DelaySinceLastReport)
{
    static const struct {
        uint32_t nMs;
        int bKnown;
        uint32_t nDelay;
    } cases[] = {
        {0, 1, 0},
        {1, 1, 65},
        {999, 1, (999U << 13) / 125},
        {1000, 1, 65536},
        {1500, 1, 98304},
        {1500, 0, 0},
        {65535999, 1, 65535U << 16 | (999U << 13) / 125},
    };
    for (const auto &c : cases) {
        RtcpBlock block{1, 0, 0, 0, 0, 0, c.nMs, c.bKnown};
        Bytes made = Built([&](uint8_t *p, size_t) { return RtcpMakeReportBlock(p, &block); });
        EXPECT_EQ(c.nDelay, GetBe(&made[20], 4)) << c.nMs;
    }
}

TEST(RtcpMake, Goodbye)
{
    EXPECT_THAT(MakeBYE(nullptr), ElementsAre(0x81, 203, 0, 2, 1, 2, 3, 4, 0, 0, 0, 0));
    EXPECT_EQ(MakeBYE(nullptr), MakeBYE(""));
    // the reason has no length byte
    EXPECT_THAT(MakeBYE("bye"), ElementsAre(0x81, 203, 0, 3, 1, 2, 3, 4, 'b', 'y', 'e', 0, 0, 0, 0, 0));
    EXPECT_THAT(MakeBYE("completed"), ElementsAre(0x81, 203, 0, 5, 1, 2, 3, 4, 'c', 'o', 'm', 'p', 'l', 'e',
                                                  't', 'e', 'd', 0, 0, 0, 0, 0, 0, 0));
}

TEST(RtcpNtp, FromWallClock)
{
    static const struct {
        uint32_t nSec, nMicros, nNtpSec, nNtpFrac;
    } cases[] = {
        {0, 0, 0x83AA7E80, 0},
        {1, 1, 0x83AA7E81, 4294},
        {0, 500000, 0x83AA7E80, 500000U * 4294 + 500000U * 1981 / 2048},
        {0, 999999, 0x83AA7E80, 999999U * 4294 + 999999U * 1981 / 2048},
        {0x7C558180, 0, 0, 0},  // 2036: the NTP seconds wrap
    };
    for (const auto &c : cases) {
        uint32_t nSec = 1, nFrac = 1;
        NtpFromTime(c.nSec, c.nMicros, &nSec, &nFrac);
        EXPECT_EQ(c.nNtpSec, nSec) << c.nSec;
        EXPECT_EQ(c.nNtpFrac, nFrac) << c.nMicros;
    }
}

TEST(RtcpNtp, ToText)
{
    char szText[64];
    NtpTimeToString(0x83AA7E80U + 1700000000U, 4295U * 1000 * 250, szText, sizeof(szText));
    EXPECT_STREQ("2023-11-14-22:13:20.250", szText);
    NtpTimeToString(0x83AA7E80U, 4294, szText, sizeof(szText));
    EXPECT_STREQ("1970-01-01-00:00:00.0", szText);
}

TEST(RtcpDump, SenderReportWithAndWithoutRate)
{
    char szTime[64];
    NtpTimeToString(0xE0000000, 0x80000000, szTime, sizeof(szTime));
    std::string start =
        "RTCP head: version=2, padding=0, count=0, type=200, length=28\r\nRTCP packet type is SR\r\nSR "
        "ssrc=16909060, ntpTime=" +
        std::string(szTime) + ", rtp_ts=";
    EXPECT_EQ(start + "900000, psent=7, osent=1234567\r\n\r\n", Dumped(MakeSR(), 0));
    EXPECT_EQ(start + "10000ms, psent=7, osent=1234567\r\n\r\n", Dumped(MakeSR(), 90000));
    EXPECT_EQ(start + "112500ms, psent=7, osent=1234567\r\n\r\n", Dumped(MakeSR(), 8000));
    EXPECT_THAT(Dumped(MakeSR(), 999), HasSubstr("psent=7")) << "a rate that must not be divided by";
}

TEST(RtcpDump, ReceiverReportAndTheRestOfACompound)
{
    std::string text = Dumped(Joined({MakeRR(1), MakeSDES("abcdefgh"), MakeBYE("x")}), 90000);
    EXPECT_EQ(
        "RTCP head: version=2, padding=0, count=1, type=201, length=32\r\n"
        "RTCP packet type is RR\r\n"
        "RR sender's ssrc=2695938256:\r\n"
        "RR[0] ssrc=1, fraction=64, lost=1193046, last_seq=70000, jitter=33, lsr=2864434397, dlsr=163840\r\n"
        "RTCP head: version=2, padding=0, count=1, type=202, length=20\r\n"
        "RTCP packet type is SDES\r\n"
        "SDes ssrc=16909060, type=1, length=7, data=abcdefgh\r\n"
        "RTCP head: version=2, padding=0, count=1, type=203, length=16\r\n"
        "RTCP packet type is BYE\r\n"
        "\r\n",
        text);
}

TEST(RtcpDump, StopsAtWhatIsNoRtcp)
{
    const std::string head = "RTCP head: version=2, padding=0, count=0, type=205, length=8\r\n";
    EXPECT_EQ(head + "Invalid RTCP packet!\r\n", Dumped({0x80, 205, 0, 1, 0, 0, 0, 0}, 0));
    EXPECT_EQ(
        "RTCP head: version=0, padding=1, count=31, type=199, length=262144\r\nInvalid RTCP packet!\r\n",
        Dumped({0x3F, 199, 0xFF, 0xFF}, 0));
    EXPECT_EQ(
        "RTCP head: version=2, padding=0, count=0, type=204, length=4\r\nRTCP packet type is APP\r\n\r\n",
        Dumped({0x80, 204, 0, 0}, 0));
    EXPECT_EQ("\r\n", Dumped({}, 0));
    EXPECT_EQ("\r\n", Dumped({0x80, 200, 0}, 0));
}

// A description of a peer whose second item follows at once shows the first one only.
TEST(RtcpDump, ShowsOneItemOfADescription)
{
    Bytes packet{0x81, 202, 0, 4, 0, 0, 0, 9, 1, 3, 'c', 'a', 'm', 2, 3, 'x', 'y', 'z', 0, 0};
    EXPECT_THAT(Dumped(packet, 0), HasSubstr("SDes ssrc=9, type=1, length=3, data=cam\r\n"));
    packet[9] = 200;  // longer than the packet
    EXPECT_THAT(Dumped(packet, 0), HasSubstr("SDes ssrc=9, type=1, length=200, data=cam"));
}

// Counts and lengths that promise more than there is; run with the address sanitizer this finds any reading
// past the end.
TEST(RtcpDump, StaysInsideAtEveryCut)
{
    const Bytes whole = Joined({MakeSR(), MakeRR(2), MakeSDES("Orx1700000000"), MakeBYE("completed")});
    for (size_t n = 0; n <= whole.size(); n++) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));
        cut.shrink_to_fit();
        EXPECT_THAT(Dumped(cut, 90000), HasSubstr("\r\n")) << n;
        for (size_t nAt : {size_t{0}, size_t{2}, size_t{3}}) {
            Bytes wrong = cut;
            if (nAt >= wrong.size())
                continue;
            wrong[nAt] = 0x9F + static_cast<uint8_t>(nAt);
            EXPECT_THAT(Dumped(wrong, 90000), HasSubstr("\r\n")) << n;
        }
    }
}

struct ReportTest : testing::Test {
    Program prog;
    Session session;
    ReportTest()
    {
        BlockListInit(&session.out.Outq, &session);
        strcpy(prog.szName, "Orx12345");
        session.pProg = &prog;
        session.nFlags = SESSION_INTERLEAVED | SESSION_RTCP;
        session.out.nTracks = 2;
        for (int i = 0; i < 2; i++) {
            session.out.tracks[i].bSetUp = 1;
            session.out.tracks[i].nTimeScale = i ? 8000 : 90000;
            session.tracks[i].nRtcpChannel = static_cast<uint8_t>(2 * i + 1);
        }
    }
    ~ReportTest() override
    {
        ClockSetOffset(0);
        ListEmpty(&session.out.Outq);
    }
    // A block of nBytes as if it had just been sent, still at the head of the queue.
    DataBlock *Sent(uint32_t nTime, uint32_t nSsrc, size_t nBytes = 112)
    {
        Bytes frame(4 + nBytes);
        PutBe(&frame[8], 4, nTime);
        PutBe(&frame[12], 4, nSsrc);
        DataBlock *pBlock = MakeDataBlock(frame.data(), frame.size(), 1, 1, 0);
        ListPrepend(&session.out.Outq, pBlock);
        return pBlock;
    }
    void Note(int nTrack, DataBlock *pBlock)
    {
        testing::internal::CaptureStdout();
        RtcpNotePacketSent(&session, nTrack, BlockData(pBlock) + 4, pBlock->len - 4U, pBlock);
        output = testing::internal::GetCapturedStdout();
    }
    int Cycle()
    {
        testing::internal::CaptureStdout();
        int nResult = SendRtcpReport(&session);
        output = testing::internal::GetCapturedStdout();
        return nResult;
    }
    std::vector<Bytes> Queue()
    {
        std::vector<Bytes> blocks;
        for (auto *p = ListFirstOf<DataBlock>(&session.out.Outq); p;
             p = reinterpret_cast<DataBlock *>(p->node.pNext))
            blocks.emplace_back(BlockData(p), BlockData(p) + p->len);
        return blocks;
    }
    std::string output;
};

TEST_F(ReportTest, FollowsTheFirstPacketOfATrack)
{
    DataBlock *pLater = MakeDataBlock("later", 5, 0, 0, 0);
    ListAppend(&session.out.Outq, pLater);
    Note(0, Sent(90000, 0xCAFE0001));
    EXPECT_THAT(output, HasSubstr("SendFirstRtcpReport():\r\nRTCP head: "));
    auto blocks = Queue();
    ASSERT_EQ(3U, blocks.size());
    EXPECT_EQ(5U, blocks[2].size()) << "in front of what waits";
    const Bytes &report = blocks[1];
    ASSERT_EQ(4U + 28 + 20, report.size());
    EXPECT_THAT(Bytes(report.begin(), report.begin() + 12),
                ElementsAre('$', 1, 0, 48, 0x80, 200, 0, 6, 0xCA, 0xFE, 0, 1));
    EXPECT_LT(GetBe(&report[4 + 16], 4) - 90000, 90000U) << "the time stamp of now counts from the packet's";
    EXPECT_EQ(1U, GetBe(&report[4 + 20], 4));
    EXPECT_EQ(100U, GetBe(&report[4 + 24], 4)) << "octets without the header of 12 bytes";
    EXPECT_EQ(0, memcmp(&report[4 + 28 + 10], "Orx12345", 8));
    auto *pReport = static_cast<DataBlock *>(ListNext(&session.out.Outq, ListFirst(&session.out.Outq, 0), 0));
    EXPECT_EQ(DB_KEY, pReport->nFlags);
    EXPECT_EQ(ClockUptime(), session.tLastReport);

    Note(0, Sent(93600, 0xCAFE0001));
    EXPECT_EQ("", output) << "only once";
    EXPECT_EQ(2U, session.tracks[0].nPackets);
    EXPECT_EQ(200U, session.tracks[0].nOctets);
    Note(1, Sent(8000, 0xCAFE0002));
    EXPECT_THAT(output, HasSubstr("SR ssrc=3405643778"));
    EXPECT_EQ(3, Queue()[1][1]) << "the channel of the second track";
}

TEST_F(ReportTest, CycleComesEveryTenSeconds)
{
    session.tLastReport = ClockUptime();
    ClockSetOffset(9000);
    EXPECT_EQ(0, Cycle());
    EXPECT_EQ(0U, Queue().size());
    ClockSetOffset(11000);
    EXPECT_EQ(1, Cycle());
    ASSERT_EQ(2U, Queue().size());
    size_t nFirst = output.find("SendRtcpReport():\r\n");
    ASSERT_NE(std::string::npos, nFirst);
    EXPECT_NE(std::string::npos, output.find("SendRtcpReport():\r\n", nFirst + 1)) << "one line per track";
    EXPECT_EQ(0, Cycle());
}

TEST_F(ReportTest, CycleLeavesOutTracksThatAreNotSetUp)
{
    session.out.tracks[0].bSetUp = 0;
    session.tLastReport = ClockUptime() - 10;
    EXPECT_EQ(1, Cycle());
    ASSERT_EQ(1U, Queue().size());
    EXPECT_EQ(3, Queue()[0][1]);
    session.out.nTracks = 0;
    session.tLastReport = ClockUptime() - 10;
    EXPECT_EQ(1, Cycle()) << "also without tracks";
    EXPECT_EQ(ClockUptime(), session.tLastReport);
}

TEST_F(ReportTest, RtpTimeRunsOnAcrossItsWrap)
{
    Note(0, Sent(0xFFFFFF00, 7));
    uint32_t nTime = GetBe(&Queue()[1][4 + 16], 4);
    EXPECT_LT(nTime - 0xFFFFFF00U, 90000U);
}

}  // namespace
}  // namespace orx
