// From packets into a file and out again: what a player gets is what the pusher sent.
#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {
namespace {

using Units = std::vector<std::string>;

Units MakeAccessUnit(uint32_t nFrame)
{
    size_t nBytes = 40 + nFrame * 977 % 9000;
    if (nFrame % 10 == 0)
        return {Nal(7, 20, nFrame), Nal(8, 6, nFrame), Nal(5, 12000 + nBytes, nFrame), Nal(5, 60000, nFrame)};
    if (nFrame % 3 == 0)
        return {Nal(1, nBytes, nFrame), Nal(1, 1461, nFrame), Nal(1, 1462, nFrame)};
    return {Nal(1, nBytes, nFrame)};
}

// The three ways of RFC 6184 by turns, as encoders mix them: parameter sets go into one aggregate.
Units Packetise(const Units &units)
{
    Units payloads;
    for (const auto &unit : units) {
        if (unit.size() < 30) {
            if (payloads.empty())
                payloads.emplace_back("\x78");
            payloads[0] += Be(Size(unit), 2) + unit;
        } else if (unit.size() <= 1400) {
            payloads.push_back(unit);
        } else {
            for (const auto &part : Fragments(unit, 1389))
                payloads.push_back(part);
        }
    }
    return payloads;
}

// What a player makes of the packets of one picture.
std::vector<Sample> Rebuild(const std::vector<Player::Packet> &packets)
{
    std::vector<Sample> samples;
    Depacketiser track;
    track.pContext = &samples;
    track.pfnSample = KeepSample;
    for (const auto &packet : packets)
        EXPECT_EQ(1, WriteH264RtpData(&track, Data(packet.data), Size(packet.data), packet.nTimeMs));
    DepacketiserReset(&track);
    return samples;
}

TEST(RoundTrip, H264AccessUnitsComeOutAsTheyWentIn)
{
    constexpr uint32_t kFrames = 200;
    constexpr uint32_t kStartMs = 0xFFFFF000;  // wraps on the way, as does the sequence number
    uint16_t nSeq = 65500;
    Recorder recorder;
    for (uint32_t i = 0; i < kFrames; i++) {
        Units payloads = Packetise(MakeAccessUnit(i));
        for (size_t k = 0; k < payloads.size(); k++) {
            std::string packet = Rtp(nSeq++, i * 3600, k + 1 == payloads.size(), payloads[k]);
            ASSERT_EQ(1, ZMFWriterWriteRtpPacket(recorder.pWriter, Data(packet), Size(packet), 'v',
                                                 kStartMs + i * 40));
        }
    }
    std::vector<Sample> recorded = recorder.FinishedSamples();
    ASSERT_EQ(kFrames, recorded.size());
    for (uint32_t i = 0; i < kFrames; i++) {
        Sample expected{'v', i % 10 == 0 ? ZMF_KEY : uint8_t{0}, i * 40, ""};
        for (const auto &unit : MakeAccessUnit(i))
            expected.data += Prefixed(unit);
        ASSERT_EQ(expected, recorded[i]) << i;
        Player player;
        player.Pack(Pack2Rtp264Block, recorded[i].data, recorded[i].nTimeMs);
        ASSERT_EQ(std::vector<Sample>{expected}, Rebuild(player.Packets())) << i;
    }
}

}  // namespace
}  // namespace orx
