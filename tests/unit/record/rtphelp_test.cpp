#include "record/rtphelp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {
namespace {

using testing::HasSubstr;

// Which packets a sample of units becomes: 1 a single unit, n an aggregate of n, f a fragment; * key, !
// marker.
TEST(RtpHelp, H264PacketKinds)
{
    const struct {
        std::vector<std::pair<int, size_t>> units;  // type and size
        const char *szPackets;
    } cases[] = {
        {{{7, 20}, {8, 6}, {5, 3000}}, "2* f f f! "},
        {{{1, 1461}}, "1! "},
        {{{1, 1462}}, "f f! "},
        {{{1, 1460}, {1, 1}}, "2! "},
        {{{7, 700}, {8, 761}, {5, 10}}, "2* 1! "},
        {{{1, 1461}, {1, 5000}, {1, 3}, {1, 3}, {1, 3}}, "1 f f f f 3! "},
    };
    for (const auto &c : cases) {
        std::string sample, kinds;
        for (const auto &[nType, nBytes] : c.units)
            sample += Prefixed(Nal(nType, nBytes, 1));
        Player player;
        player.Pack(Pack2Rtp264Block, sample);
        for (const auto &packet : player.Packets()) {
            std::string payload = packet.Payload();
            int nType = payload[0] & 0x1F, nUnits = nType == 24 ? 0 : 1;
            for (size_t nPos = 1; nType == 24 && nPos < payload.size(); nUnits++)
                nPos += 2 + GetBe(payload.data() + nPos, 2);
            kinds += (nType == 28 ? "f" : std::to_string(nUnits)) + (packet.bKey ? "*" : "") +
                     (packet.Marker() ? "! " : " ");
            EXPECT_LE(payload.size(), nType == 28 ? 1462U : 1470U);
        }
        EXPECT_EQ(c.szPackets, kinds);
    }
}

// What a file's samples break ends their packetising.
TEST(RtpHelp, BrokenSamples)
{
    const struct {
        const char *szText;
        Player::PackProc pfn;
        std::string sample;
        uint32_t nTimeScale = 1000;
    } cases[] = {
        {"nTimeScale % 1000)==0", Pack2RtpUserBlock, "x", 11025},
        {"len==0", Pack2Rtp264Block, Prefixed(Nal(1, 20, 1)) + Be(2, 2)},
        {"(nLenIn % nBytesPerFrame) == 0", Pack2RtpG711Block, std::string(161, 'x')},
        {"nLenIn <= 1460", Pack2RtpUserBlock, std::string(1461, 'x')},
        {"lqt != ((void *)0)", Pack2RtpJpegBlock, "nothing"},
        {"scanLines != ((void *)0)", Pack2RtpJpegBlock, "\xFF\xD8\xFF\xDB" + Be(67, 2) + std::string(65, 0)},
    };
    for (const auto &c : cases) {
        Player player(MEDIA_H264, c.nTimeScale);
        EXPECT_THAT(PeerFaults([&] { EXPECT_EQ(0, player.Pack(c.pfn, c.sample)); }), HasSubstr(c.szText));
        EXPECT_TRUE(player.Packets().empty());
    }
}

// Payloads of an image go out as they were recorded, also where they have restart markers (RFC 2435).
TEST(RtpHelp, RecordedJpegPayloads)
{
    for (uint32_t nType : {1, 65}) {
        std::vector<std::string> payloads;
        std::string sample;
        uint32_t nOffset = 0;
        for (uint32_t i = 0; i < 5; i++) {
            std::string restart = nType == 65 ? Be(0x0004C000 + i, 4) : "";
            std::string tables = i == 0 ? Be(128, 4) + Noise(128, 9) : "", scan = Noise(1000 + 13 * i, i);
            payloads.push_back(Be(nOffset, 4) + Be(nType, 1) + "\xFF\x28\x1E" + restart + tables + scan);
            sample += payloads.back();
            nOffset += Size(scan);
        }
        Player player(MEDIA_JPEG);
        ASSERT_EQ(5, player.Pack(Pack2RtpJpegBlock, sample));
        std::vector<Player::Packet> packets = player.Packets();
        for (size_t i = 0; i < 5; i++) {
            EXPECT_EQ(payloads[i], packets[i].Payload());
            EXPECT_EQ(i == 4, packets[i].Marker());
        }
    }
}

TEST(RtpHelp, JfifImages)
{
    auto segment = [](uint32_t nMarker, const std::string &body) {
        return Be(0xFF00 | nMarker, 2) + Be(Size(body) + 2, 2) + body;
    };
    std::string luma = Noise(64, 1), chroma = Noise(64, 2), scan = Noise(4000, 3), luma0 = Be(0, 1) + luma;
    std::string size = segment(0xC0, "\x08" + Be(240, 2) + Be(320, 2) + "\x03" + std::string(9, 'c'));
    std::string soi = "\xFF\xD8" + segment(0xE0, "JFIF \xFF\xDB inside"), sos = segment(0xDA, "\x03ssssss");
    for (const auto &tables :  // the two may share a segment or have one each
         {segment(0xDB, luma0 + "\x01" + chroma), segment(0xDB, luma0) + segment(0xDB, "\x01" + chroma)}) {
        Player player(MEDIA_JPEG);
        ASSERT_EQ(3, player.Pack(Pack2RtpJpegBlock, soi + tables + size + sos + scan, 40));
        std::vector<Player::Packet> packets = player.Packets();
        for (uint32_t i = 0; i < 3; i++) {
            EXPECT_EQ(Be(i * 1460, 4) + "\x01\xFF\x28\x1E" + (i == 0 ? Be(128, 4) + luma + chroma : "") +
                          scan.substr(i * 1460, 1460),
                      packets[i].Payload());
            EXPECT_EQ(i == 2, packets[i].Marker());
        }
    }
}

}  // namespace
}  // namespace orx
