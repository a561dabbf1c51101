#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "client/rtppacket.h"
#include "orxload/dump.h"
#include "orxload/histogram.h"

using namespace orx;

TEST(Histogram, StaysCloseToTheSortedValues)
{
    std::minstd_rand random(7);
    for (uint64_t nRange : {uint64_t{10}, uint64_t{64}, uint64_t{100000}, uint64_t{1} << 40}) {
        Histogram histogram;
        std::vector<uint64_t> values;
        for (int i = 0; i < 5000; i++) {
            values.push_back((uint64_t{random()} << 20 | random()) % nRange);
            HistogramAdd(&histogram, values.back());
        }
        std::sort(values.begin(), values.end());
        for (double dShare : {0.0, 0.5, 0.9, 0.99, 1.0}) {
            auto nIndex = static_cast<size_t>(std::max(1.0, dShare * 5000)) - 1;
            uint64_t nExact = values[nIndex], nFound = HistogramAt(&histogram, dShare);
            EXPECT_GE(nFound, nExact) << nRange << " " << dShare;
            EXPECT_LE(nFound, nExact + nExact / 31 + 1) << nRange << " " << dShare;
        }
        EXPECT_EQ(values.back(), HistogramAt(&histogram, 1));
    }
}

static std::string Packet(int nPayloadType, uint16_t nSequence, const std::string &payload)
{
    RtpHead head;
    head.nPayloadType = static_cast<uint8_t>(nPayloadType);
    head.nSequence = nSequence;
    std::string packet(kRtpHeadBytes, '\0');
    RtpWriteHead(packet.data(), &head);
    return packet + payload;
}

static void Write(int fd, const std::string &packet, size_t nCut)
{
    std::string frame;
    FrameAddHead(&frame, 0, packet.size());
    frame += packet;
    ASSERT_EQ(static_cast<ssize_t>(nCut), write(fd, frame.data(), nCut));
}

static int Holds(PacketDump *pDump, const std::string &packet)
{
    return PacketDumpHolds(pDump, reinterpret_cast<const uint8_t *>(packet.data()), packet.size());
}

TEST(PacketDump, FollowsAGrowingFile)
{
    char szPath[] = "/tmp/orx_dump_XXXXXX";
    int fd = mkstemp(szPath);
    ASSERT_GE(fd, 0);
    PacketDump dump;
    ASSERT_TRUE(PacketDumpOpen(&dump, szPath));
    unlink(szPath);
    std::string first = Packet(96, 65535, "first"), second = Packet(96, 0, "second"),
                other = Packet(8, 0, "other");
    EXPECT_FALSE(Holds(&dump, first));
    Write(fd, first, first.size() + 4);
    EXPECT_TRUE(Holds(&dump, first));
    Write(fd, second, 9);  // half of it
    EXPECT_FALSE(Holds(&dump, second));
    std::string rest = second.substr(5);
    ASSERT_EQ(static_cast<ssize_t>(rest.size()), write(fd, rest.data(), rest.size()));
    Write(fd, other, other.size() + 4);
    EXPECT_TRUE(Holds(&dump, second));
    EXPECT_TRUE(Holds(&dump, other));
    EXPECT_TRUE(Holds(&dump, first));
    for (const std::string &wrong :
         {first + "x", first.substr(0, first.size() - 1), Packet(97, 65535, "first"),
          Packet(96, 65534, "first"), Packet(96, 65535, "First"), std::string("short")})
        EXPECT_FALSE(Holds(&dump, wrong));
    std::string again = Packet(96, 65535, "65536 packets later");
    Write(fd, again, again.size() + 4);
    EXPECT_TRUE(Holds(&dump, again));
    EXPECT_FALSE(Holds(&dump, first));
    close(fd);
}
