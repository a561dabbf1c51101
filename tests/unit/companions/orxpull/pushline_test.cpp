#include "orxpull/pushline.h"

#include <gtest/gtest.h>

#include <string>

#include "base/bytes.h"

using namespace orx;

struct Packet {
    uint8_t bytes[64] = {};
    size_t nBytes = 0;
};

Packet Rtp(uint32_t nSsrc, unsigned nSeq, uint32_t nStamp)
{
    Packet packet;
    packet.nBytes = 20;
    PutBe(packet.bytes, 2, 0x8060);
    PutBe(packet.bytes + 2, 2, nSeq);
    PutBe(packet.bytes + 4, 4, nStamp);
    PutBe(packet.bytes + 8, 4, nSsrc);
    return packet;
}

// A sender report, a description of the source, and a goodbye.
Packet Report(uint32_t nSsrc, uint32_t nNtpSec, uint32_t nStamp)
{
    Packet packet;
    packet.nBytes = 28 + 12 + 8;
    PutBe(packet.bytes, 4, 0x80C80006);
    PutBe(packet.bytes + 4, 4, nSsrc);
    PutBe(packet.bytes + 8, 4, nNtpSec);
    PutBe(packet.bytes + 16, 4, nStamp);
    PutBe(packet.bytes + 28, 4, 0x81CA0002);
    PutBe(packet.bytes + 32, 4, nSsrc);
    PutBe(packet.bytes + 40, 4, 0x81CB0001);
    PutBe(packet.bytes + 44, 4, nSsrc);
    return packet;
}

struct PushLineTest : testing::Test {
    PushLine line;
    Packet last;

    void SetUp() override { line.tracks = {LineTrack{90000}, LineTrack{8000}}; }
    int Send(size_t nTrack, uint32_t nSsrc, unsigned nSeq, uint32_t nStamp, uint64_t nMs)
    {
        last = Rtp(nSsrc, nSeq, nStamp);
        return LineRtp(&line, nTrack, last.bytes, last.nBytes, nMs);
    }
    size_t Tell(size_t nTrack, uint32_t nSsrc, uint32_t nNtpSec, uint32_t nStamp, uint64_t nMs)
    {
        last = Report(nSsrc, nNtpSec, nStamp);
        return LineRtcp(&line, nTrack, last.bytes, last.nBytes, nMs);
    }
    uint32_t At(size_t nPlace, size_t nBytes = 4) const { return GetBe(last.bytes + nPlace, nBytes); }
    void ExpectRtp(unsigned nSeq, uint32_t nStamp, uint32_t nSsrc) const
    {
        EXPECT_EQ(nSeq, At(2, 2));
        EXPECT_EQ(nStamp, At(4));
        EXPECT_EQ(nSsrc, At(8));
    }
};

TEST_F(PushLineTest, FirstSessionGoesOnAsItCame)
{
    ASSERT_EQ(1, Send(0, 7, 65535, 4294967000U, 1000));
    ExpectRtp(65535, 4294967000U, 7);
    ASSERT_EQ(28U + 12, Tell(0, 7, 500, 4294967000U, 1000)) << "the goodbye stays behind";
    EXPECT_EQ(7U, At(4));
    EXPECT_EQ(500U, At(8));
    EXPECT_EQ(4294967000U, At(16));
}

TEST_F(PushLineTest, AnotherSessionGoesOnBehindTheLast)
{
    Send(0, 7, 65535, 4294967000U, 1000);
    Send(0, 7, 0, 4294960000U, 1040);  // a picture that is shown before
    LineJoin(&line);
    EXPECT_EQ(0U, Tell(0, 8, 900, 5000, 3000)) << "nobody knows where its stamps go";
    Send(0, 8, 300, 5000, 3000);
    ExpectRtp(1, 4294967000U + 180000, 7);  // 2 s behind the latest stamp
    Send(0, 8, 301, 8600, 3040);
    ExpectRtp(2, 4294967000U + 183600, 7);
    Send(1, 9, 40, 160, 3000);
    ExpectRtp(40, 160, 9);  // of that track nothing came before
}

TEST_F(PushLineTest, SourceThatChangesOnTheWayGoesOn)
{
    Send(0, 7, 10, 1000, 1000);
    Send(0, 8, 5000, 777, 1001);
    ExpectRtp(11, 1090, 7);
    EXPECT_EQ(0U, Tell(0, 7, 500, 1000, 1002)) << "a report of the source that has gone";
    EXPECT_EQ(40U, Tell(0, 0, 500, 1000, 1003)) << "cameras name other sources in reports";
    EXPECT_EQ(7U, At(4));
}

TEST_F(PushLineTest, WallClockGoesOnForAllTracks)
{
    Send(0, 7, 1, 90000, 1000);
    Send(1, 6, 1, 8000, 1000);
    Tell(0, 7, 500, 90000, 1000);
    Tell(1, 6, 500, 8000, 1000);
    LineJoin(&line);
    Send(0, 8, 1, 0, 11000);
    Send(1, 5, 1, 0, 11000);
    Tell(0, 8, 20, 90000, 12000);  // the camera has begun at 1970: a second behind its first packet
    EXPECT_EQ(511U, At(8));
    EXPECT_EQ(7U, At(4));
    EXPECT_EQ(7U, At(32)) << "the description is of the same source";
    EXPECT_EQ(90000U + 990000, At(16));
    Tell(1, 5, 21, 16000, 13000);
    EXPECT_EQ(512U, At(8)) << "the same for both";
    Tell(1, 5, 0, 24000, 14000);
    EXPECT_EQ(0U, At(8)) << "a camera without a clock tells none";
}
