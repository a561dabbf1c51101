// What orxload measures with: latencies in a histogram, and packets compared with what was pushed.
#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "client/rtppacket.h"
#include "orxload/dump.h"
#include "orxload/histogram.h"
#include "support/files.h"

namespace orx {
namespace {

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
        for (double dShare : {0.0, 0.5, 0.99, 1.0}) {
            uint64_t nExact = values[static_cast<size_t>(std::max(1.0, dShare * 5000)) - 1];
            EXPECT_GE(HistogramAt(&histogram, dShare), nExact) << nRange << " " << dShare;
            EXPECT_LE(HistogramAt(&histogram, dShare), nExact + nExact / 31 + 1) << nRange << " " << dShare;
        }
    }
}

std::string Packet(uint16_t nSequence, const std::string &payload)
{
    RtpHead head;
    head.nPayloadType = 96;
    head.nSequence = nSequence;
    std::string packet(kRtpHeadBytes, '\0');
    RtpWriteHead(packet.data(), &head);
    return packet + payload;
}

TEST(PacketDump, FollowsAGrowingFile)
{
    TempDir dir;
    std::ofstream file(dir.File("dump"), std::ios::binary);
    PacketDump dump;
    ASSERT_TRUE(PacketDumpOpen(&dump, dir.File("dump").c_str()));
    auto write = [&](const std::string &packet) {
        std::string frame;
        FrameAddHead(&frame, 0, packet.size());
        frame += packet;
        file << frame.substr(0, 9) << std::flush;
        return frame.substr(9);  // the rest
    };
    auto holds = [&](const std::string &packet) {
        return PacketDumpHolds(&dump, reinterpret_cast<const uint8_t *>(packet.data()), packet.size());
    };
    const std::string first = Packet(65535, "first"), again = Packet(65535, "65536 packets later");
    std::string rest = write(first);
    EXPECT_FALSE(holds(first)) << "half of it";
    file << rest << std::flush;
    EXPECT_TRUE(holds(first));
    for (const std::string &wrong :
         {first + "x", Packet(65534, "first"), Packet(65535, "First"), std::string("short")})
        EXPECT_FALSE(holds(wrong));
    file << write(again) << std::flush;
    EXPECT_TRUE(holds(again));
    EXPECT_FALSE(holds(first));
}

}  // namespace
}  // namespace orx
