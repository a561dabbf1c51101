#include "record/rtphelp.h"

#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {

// Which packets a sample of units becomes: 1 a single unit, n an aggregate of n, f a fragment; * key, !
// marker.
TEST(RtpHelp, H264PacketKinds)
{
    using Units = std::vector<std::pair<int, size_t>>;  // type and size
    const std::pair<Units, const char *> cases[] = {
        {{{7, 20}, {8, 6}, {5, 3000}}, "2* f f f! "},
        {{{1, 1461}}, "1! "},
        {{{1, 1462}}, "f f! "},
        {{{1, 1460}, {1, 1}}, "2! "},
        {{{7, 700}, {8, 761}, {5, 10}}, "2* 1! "},
        {{{1, 1461}, {1, 5000}, {1, 3}, {1, 3}, {1, 3}}, "1 f f f f 3! "},
    };
    for (const auto &[units, szPackets] : cases) {
        std::string sample, kinds;
        for (const auto &[nType, nBytes] : units)
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
        EXPECT_EQ(szPackets, kinds);
    }
}

// Sound of any length is played whole; it goes on where it ended, though its times are cut to milliseconds.
TEST(RtpHelp, G711IsStampedByItsSamples)
{
    static const struct {
        size_t nBytes;
        uint32_t nTimeMs, nStamp;
    } cases[] = {{160, 0, 0}, {240, 20, 160}, {123, 50, 400}, {123, 65, 523}, {1, 81, 646}, {161, 1000, 8000}};
    Player player(8000);
    player.out.bSampleStamps = 1;
    for (const auto &c : cases) {
        QueueEmpty(&player.out.Outq);
        const std::string sample = Pattern(c.nBytes, 1);
        EXPECT_EQ((c.nBytes + 159) / 160, player.Pack(Pack2RtpG711Block, sample, c.nTimeMs));
        std::string whole;
        for (const auto &packet : player.Packets()) {
            EXPECT_EQ(c.nStamp + whole.size(), GetBe(packet.data.data() + 4, 4)) << c.nTimeMs;
            whole += packet.Payload();
        }
        EXPECT_EQ(sample, whole);
    }
}

// What a file's samples break ends their packetising.
TEST(RtpHelp, BrokenSamples)
{
    const std::tuple<const char *, PackProc, std::string, uint32_t> cases[] = {
        // what is said of the sample, at a clock rate
        {"nTimeScale % 1000)==0", Pack2RtpUserBlock, "x", 11025},
        {"len==0", Pack2Rtp264Block, Prefixed(Nal(1, 20, 1)) + Be(2, 2), 1000},
        {"(nLenIn % nBytesPerFrame) == 0", Pack2RtpG711Block, std::string(161, 'x'), 1000},
        {"nLenIn <= 1460", Pack2RtpUserBlock, std::string(1461, 'x'), 1000},
        {"lqt != ((void *)0)", Pack2RtpJpegBlock, "nothing", 1000},
        {"scanLines != ((void *)0)", Pack2RtpJpegBlock, "\xFF\xD8\xFF\xDB" + Be(67, 2) + std::string(65, 0), 1000},
    };
    for (const auto &[szText, pfn, sample, nTimeScale] : cases) {
        Player player(nTimeScale);
        auto pack = [&, pfnPack = pfn, &text = sample] { EXPECT_EQ(0, player.Pack(pfnPack, text)); };
        EXPECT_THAT(PeerFaults(pack), testing::HasSubstr(szText));
        EXPECT_TRUE(player.Packets().empty());
    }
}

}  // namespace orx
