#include "record/rtphelp.h"

#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {
namespace {

using PackProc = int (*)(RtpOut *, const uint8_t *, uint32_t, uint32_t, int);

int Pack(PackProc pfn, Player *pPlayer, const std::string &sample, uint32_t nTimeMs = 0, int nTrack = 0)
{
    std::vector<uint8_t> exact(sample.begin(), sample.end());
    return pfn(&pPlayer->out, exact.data(), static_cast<uint32_t>(exact.size()), nTimeMs, nTrack);
}

TEST(RtpHelp, HeaderAndPrefix)
{
    for (bool bInterleaved : {false, true}) {
        Player player(bInterleaved, MEDIA_H264, 90000);
        for (int i = 0; i < 3; i++)
            ASSERT_EQ(1, Pack(Pack2RtpUserBlock, &player, "hi", 0x10000000, 2));
        std::vector<Player::Packet> packets = player.Packets();
        std::string header = "\x80\xE2" + Be(0xFFFE, 2) + Be(0xA0000000, 4) + Be(0xA0B0C0D2, 4);
        EXPECT_EQ((bInterleaved ? "$\x04" + Be(14, 2) : "") + header + "hi", packets[0].data);
        EXPECT_EQ(0x10000000U, packets[0].nTimeMs);
        EXPECT_EQ(uint32_t{DB_MEDIA}, packets[0].nFlags);
        size_t nSeq = bInterleaved ? 6 : 2;
        EXPECT_EQ(0xFFFFU, GetBe(packets[1].data.data() + nSeq, 2));
        EXPECT_EQ(0U, GetBe(packets[2].data.data() + nSeq, 2));
    }
}

TEST(RtpHelpDeathTest, ClockRatesAndTracks)
{
    Player player(false, 1, 11025);
    uint8_t header[12];
    EXPECT_DEATH(SetRtpHeader(&player.out, header, 0, 0), "nTimeScale % 1000\\)==0");
    EXPECT_DEATH(SetRtpHeader(&player.out, header, 3, 0), "nTrackId <= 2");
    SurviveFaults survive;
    EXPECT_EQ(0, SetRtpHeader(&player.out, header, 0, 0));
    EXPECT_EQ(0, Pack(Pack2RtpUserBlock, &player, "x"));
    EXPECT_EQ(0, Pack(Pack2Rtp264Block, &player, Prefixed(Nal(1, 20, 1))));
    EXPECT_TRUE(player.Packets().empty());
}

// Which packets a sample of units becomes: 1 a single unit, n an aggregate of n, f a fragment; * key, !
// marker.
TEST(RtpHelp, H264PacketKinds)
{
    const struct {
        std::vector<std::pair<int, size_t>> units;  // type and size
        const char *szPackets;
    } cases[] = {
        {{{7, 20}, {8, 6}, {5, 3000}}, "2* f f f!"},
        {{{1, 1461}}, "1!"},
        {{{1, 1462}}, "f f!"},
        {{{1, 1460}, {1, 1}}, "2!"},
        {{{7, 700}, {8, 761}, {5, 10}}, "2* 1!"},
        {{{9, 2}, {7, 20}}, "2!"},
        {{{1, 1461}, {1, 5000}, {1, 3}, {1, 3}, {1, 3}}, "1 f f f f 3!"},
    };
    for (const auto &c : cases) {
        std::string sample, kinds;
        for (const auto &unit : c.units)
            sample += Prefixed(Nal(unit.first, unit.second, 1));
        Player player;
        int nPackets = Pack(Pack2Rtp264Block, &player, sample, 77);
        std::vector<Player::Packet> packets = player.Packets();
        EXPECT_EQ(static_cast<int>(packets.size()), nPackets) << c.szPackets;
        for (const auto &packet : packets) {
            std::string payload = packet.Payload();
            int nType = payload[0] & 0x1F;
            int nUnits = 1;
            if (nType == 24) {
                nUnits = 0;
                for (size_t nPos = 1; nPos < payload.size(); nUnits++)
                    nPos += 2 + GetBe(payload.data() + nPos, 2);
            }
            kinds += (kinds.empty() ? "" : " ") + (nType == 28 ? "f" : std::to_string(nUnits)) +
                     (packet.nFlags & DB_KEY ? "*" : "") + (packet.Marker() ? "!" : "");
            EXPECT_EQ(77U, packet.nTimeMs);
            EXPECT_TRUE(packet.nFlags & DB_VIDEO);
            EXPECT_LE(payload.size(), nType == 28 ? 1462U : 1470U);
        }
        EXPECT_EQ(c.szPackets, kinds);
    }
}

TEST(RtpHelpDeathTest, BrokenSamples)
{
    const struct {
        const char *szText;
        PackProc pfn;
        std::string sample;
    } cases[] = {
        {"len==0", Pack2Rtp264Block, Prefixed(Nal(1, 20, 1)) + Be(2, 2)},
        {"\\(nLenIn % nBytesPerFrame\\) == 0", Pack2RtpG711Block, std::string(161, 'x')},
        {"nLenIn <= 1460", Pack2RtpUserBlock, std::string(1461, 'x')},
        {"lqt != \\(\\(void \\*\\)0\\)", Pack2RtpJpegBlock, "nothing"},
        {"scanLines != \\(\\(void \\*\\)0\\)", Pack2RtpJpegBlock,
         "\xFF\xD8\xFF\xDB" + Be(67, 2) + std::string(65, 0)},
    };
    for (const auto &c : cases) {
        Player player;
        EXPECT_DEATH(Pack(c.pfn, &player, c.sample), c.szText);
        SurviveFaults survive;
        EXPECT_EQ(0, Pack(c.pfn, &player, c.sample)) << c.szText;
        EXPECT_TRUE(player.Packets().empty());
    }
    Player player;
    EXPECT_EQ(0, Pack(Pack2Rtp264Block, &player, ""));
    EXPECT_EQ(1, Pack(Pack2RtpUserBlock, &player, std::string(1460, 'x')));
}

TEST(RtpHelp, G711In20MsPackets)
{
    std::string sample = Noise(480, 1);
    Player player(true, MEDIA_G711, 8000);
    EXPECT_EQ(3, Pack(Pack2RtpG711Block, &player, sample, 500, 1));
    std::vector<Player::Packet> packets = player.Packets();
    for (uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ("$\x02" + Be(172, 2), packets[i].data.substr(0, 4));
        EXPECT_EQ(sample.substr(i * 160, 160), packets[i].data.substr(16));
        EXPECT_EQ(500 + i * 20, packets[i].nTimeMs);
        EXPECT_EQ((500 + i * 20) * 8 * 8, GetBe(packets[i].data.data() + 8, 4));
        EXPECT_TRUE(packets[i].data[5] & 0x80);
    }
}

std::string Segment(uint8_t nMarker, const std::string &body)
{
    return std::string("\xFF") + static_cast<char>(nMarker) + Be(static_cast<uint32_t>(body.size() + 2), 2) +
           body;
}

TEST(RtpHelp, JfifImages)
{
    std::string luma = Noise(64, 1), chroma = Noise(64, 2), scan = Noise(4000, 3);
    std::string size = Segment(0xC0, "\x08" + Be(240, 2) + Be(320, 2) + "\x03" + std::string(9, 'c'));
    std::string sos = Segment(0xDA, "\x03" + std::string(9, 's'));
    std::string soi = "\xFF\xD8" + Segment(0xE0, std::string("JFIF\0", 5) + "\xFF\xDB inside");
    const std::string images[] = {
        soi + Segment(0xDB, std::string(1, '\0') + luma + "\x01" + chroma) + size + sos + scan,
        soi + Segment(0xDB, std::string(1, '\0') + luma) + size + Segment(0xDB, "\x01" + chroma) + sos + scan,
    };
    for (const auto &image : images) {
        Player player(false, MEDIA_JPEG);
        ASSERT_EQ(3, Pack(Pack2RtpJpegBlock, &player, image, 40));
        std::string joined;
        std::vector<Player::Packet> packets = player.Packets();
        for (size_t i = 0; i < 3; i++) {
            std::string payload = packets[i].Payload();
            std::string header = Be(static_cast<uint32_t>(i * 1460), 4);
            header += "\x01\xFF\x28\x1E";
            EXPECT_EQ(header, payload.substr(0, 8));
            if (i == 0) {
                EXPECT_EQ(std::string("\0\0\0\x80", 4) + luma + chroma, payload.substr(8, 132));
            }
            joined += payload.substr(i == 0 ? 140 : 8);
            EXPECT_EQ(i == 2, packets[i].Marker());
            EXPECT_EQ(i == 0, (packets[i].nFlags & DB_KEY) != 0);
        }
        EXPECT_EQ(scan, joined);
        for (size_t nBytes = 0; nBytes < image.size() - scan.size(); nBytes++) {
            SurviveFaults survive;
            Player other;
            EXPECT_EQ(0, Pack(Pack2RtpJpegBlock, &other, image.substr(0, nBytes)));
        }
    }
}

}  // namespace
}  // namespace orx
