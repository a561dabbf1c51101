#include "shared/rtpsource.h"

#include <gtest/gtest.h>

#include "base/bytes.h"
#include "client/rtppacket.h"

using namespace orx;

static void Take(RtpSource *pSource, uint16_t nSequence, uint64_t nNowMs, uint32_t nSsrc = 7)
{
    uint8_t packet[kRtpHeadBytes];
    RtpHead head;
    head.nSequence = nSequence;
    head.nTimestamp = static_cast<uint32_t>(nNowMs * 90);
    head.nSsrc = nSsrc;
    RtpWriteHead(packet, &head);
    RtpSourceTake(pSource, packet, sizeof packet, 90000, nNowMs);
}

struct Block {
    uint32_t nSsrc, nFraction, nLost, nHighest, nJitter, nStamp, nDelay;
};

static Block Report(RtpSource *pSource, uint64_t nNowMs)
{
    std::string report = RtpSourceReport(pSource, 9, "name", nNowMs);
    EXPECT_EQ(0U, report.size() % 4);
    ByteReader in{reinterpret_cast<const uint8_t *>(report.data()), report.size()};
    EXPECT_EQ(0x81C90007U, ReadBe(&in, 4));
    EXPECT_EQ(9U, ReadBe(&in, 4));
    Block block{};
    block.nSsrc = ReadBe(&in, 4);
    block.nFraction = ReadBe(&in, 1);
    block.nLost = ReadBe(&in, 3);
    for (uint32_t *pField : {&block.nHighest, &block.nJitter, &block.nStamp, &block.nDelay})
        *pField = ReadBe(&in, 4);
    EXPECT_EQ(0x81CA, static_cast<int>(ReadBe(&in, 2)));
    EXPECT_EQ(ReadBe(&in, 2) * 4, in.nLeft);
    return block;
}

TEST(RtpSource, TellsLossesAndCycles)
{
    RtpSource source;
    for (int i = 0; i < 10; i++)
        if (i != 4 && i != 5)  // two are lost on the way past the end of the numbers
            Take(&source, static_cast<uint16_t>(65530 + i), static_cast<uint64_t>(1000 + i));
    Block block = Report(&source, 2000);
    EXPECT_EQ(7U, block.nSsrc);
    EXPECT_EQ(2U, block.nLost);
    EXPECT_EQ(2U * 256 / 10, block.nFraction);
    EXPECT_EQ(0x10003U, block.nHighest);
    EXPECT_EQ(0U, block.nJitter);
    Take(&source, 65535, 2001);  // one of them after all: nothing more was lost, and one less altogether
    block = Report(&source, 3000);
    EXPECT_EQ(0U, block.nFraction);
    EXPECT_EQ(1U, block.nLost);
}

TEST(RtpSource, BeginsAnewWithAnotherSourceOrAJump)
{
    RtpSource source;
    for (uint16_t nSequence : {100, 99, 101})  // late before the first: not less than none lost
        Take(&source, nSequence, 1000);
    EXPECT_EQ(0xFFFFFFU, Report(&source, 1000).nLost);
    Take(&source, 20000, 1100);
    EXPECT_EQ(20000U, Report(&source, 1100).nHighest);
    EXPECT_EQ(0U, Report(&source, 1100).nLost);
    Take(&source, 1, 1200, 8);
    EXPECT_EQ(8U, Report(&source, 1200).nSsrc);
}

TEST(RtpSource, TellsJitterAndTheLastSenderReport)
{
    RtpSource source;
    for (int i = 0; i < 200; i++) {
        uint8_t packet[kRtpHeadBytes];
        RtpHead head;
        head.nSequence = static_cast<uint16_t>(i);
        head.nTimestamp = static_cast<uint32_t>(i) * 900;
        head.nSsrc = 7;
        RtpWriteHead(packet, &head);  // every other one 4 ms late: a step of 360 each time
        RtpSourceTake(&source, packet, sizeof packet, 90000, static_cast<uint64_t>(i * 10 + i % 2 * 4));
    }
    std::string sender = RtcpSenderReport(7, 0, 0, 0, "x");
    RtpSourceTakeRtcp(&source, reinterpret_cast<const uint8_t *>(sender.data()), sender.size(), 5000);
    for (size_t nBytes = 0; nBytes < 20; nBytes++)  // what is cut off is none
        RtpSourceTakeRtcp(&source, reinterpret_cast<const uint8_t *>(sender.data()), nBytes < 16 ? nBytes : 15, 9000);
    Block block = Report(&source, 5500);
    EXPECT_NEAR(360, block.nJitter, 3);
    EXPECT_EQ(GetBe(sender.data() + 10, 4), block.nStamp);
    EXPECT_EQ(32768U, block.nDelay);
}

TEST(RtpSource, HasNoBlockBeforeAnythingCame)
{
    RtpSource source;
    std::string report = RtpSourceReport(&source, 9, "abc", 0);
    EXPECT_EQ(0x80C90001U, GetBe(report.data(), 4));
    EXPECT_EQ(8U + 8 + 8, report.size());  // 2 + 3 bytes of an item, and zeros up to a whole word
}
