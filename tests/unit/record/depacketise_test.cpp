#include "record/depacketise.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {
namespace {

struct Track {
    Depacketiser track;
    std::vector<Sample> samples;
    DepacketProc pfn;
    uint16_t nSeq = 65534;

    explicit Track(DepacketProc pfnWrite) : pfn(pfnWrite)
    {
        track.pContext = this;
        track.pfnSample = [](void *pContext, const uint8_t *p, uint32_t n, uint32_t nTimeMs, uint32_t nType) {
            auto *pThis = static_cast<Track *>(pContext);
            EXPECT_EQ(0U, pThis->track.nBytes) << "nothing may be held while a sample is written";
            pThis->samples.push_back({static_cast<char>(nType >> 8), static_cast<uint8_t>(nType), nTimeMs,
                                      std::string(Bytes(p), n)});
            return 1;
        };
    }
    ~Track() { DepacketiserReset(&track); }
    Track(const Track &) = delete;
    Track &operator=(const Track &) = delete;

    int Put(const std::string &packet, uint32_t nTimeMs)
    {
        std::vector<uint8_t> exact(packet.begin(), packet.end());  // so that a step past its end is seen
        return pfn(&track, exact.data(), static_cast<uint32_t>(exact.size()), nTimeMs);
    }
    // One packet of the frame number nFrame.
    int Put(uint32_t nFrame, bool bMarker, const std::string &payload)
    {
        return Put(Rtp(nSeq++, nFrame * 3600, bMarker, payload), nFrame * 40);
    }
    void Lose(int nPackets = 1) { nSeq = static_cast<uint16_t>(nSeq + nPackets); }
    // The times of the samples as frame numbers.
    std::vector<uint32_t> Frames() const
    {
        std::vector<uint32_t> out;
        for (const auto &sample : samples)
            out.push_back(sample.nTimeMs / 40);
        return out;
    }
};

using ::testing::ElementsAre;

// Frames 1 and 2 are whole, then something is lost in or around frames 3 to 5. Which frames are left?
TEST(H264, AFrameWithALostPartIsDroppedWholeAndNoOther)
{
    struct Step {
        uint32_t nFrame;
        bool bMarker;
        std::string payload;
        int nLostBefore;
    };
    const std::string a = Nal(1, 100, 1), b = Nal(1, 50, 2);
    std::vector<std::string> cut = Fragments(Nal(1, 300, 3), 100);
    std::string second = Nal(1, 80, 4);  // not the first slice of its picture
    second[1] = static_cast<char>(second[1] & 0x7F);
    std::string sps = Nal(7, 20, 5), pps = Nal(8, 6, 6), idr = Nal(5, 90, 7);
    const struct {
        const char *szWhat;
        std::vector<Step> steps;
        std::vector<uint32_t> left;
    } cases[] = {
        {"a whole frame of one packet", {{4, true, a, 1}, {5, true, b, 0}}, {1, 2, 4, 5}},
        {"the first fragment", {{3, false, cut[1], 1}, {3, true, cut[2], 0}, {4, true, a, 0}}, {1, 2, 4}},
        {"a fragment in the middle",
         {{3, false, cut[0], 0}, {3, true, cut[2], 1}, {4, true, a, 0}},
         {1, 2, 4}},
        {"the last fragment",
         {{3, false, cut[0], 0}, {3, false, cut[1], 0}, {4, true, a, 1}, {5, true, b, 0}},
         {1, 2, 4, 5}},
        {"the last slice", {{3, false, a, 0}, {4, true, a, 1}}, {1, 2, 4}},
        {"the first slice", {{3, true, second, 1}, {4, true, a, 0}}, {1, 2, 4}},
        {"parameter sets that no frame began without",
         {{3, false, pps, 1}, {3, true, idr, 0}, {4, true, a, 0}},
         {1, 2, 4}},
    };
    for (const auto &c : cases) {
        Track t(WriteH264RtpData);
        t.Put(1, false, sps);
        t.Put(1, false, pps);
        t.Put(1, true, idr);
        t.Put(2, true, a);
        for (const auto &step : c.steps) {
            t.Lose(step.nLostBefore);
            EXPECT_EQ(1, t.Put(step.nFrame, step.bMarker, step.payload)) << c.szWhat;
        }
        EXPECT_EQ(c.left, t.Frames()) << c.szWhat;
        for (const auto &sample : t.samples)
            EXPECT_TRUE(sample.nTimeMs < 120 || sample.data == Prefixed(a) || sample.data == Prefixed(b))
                << c.szWhat << ": glued";
    }
}

// A cache that was trimmed holds whole key frames with gaps between them, and some encoders begin pictures
// with any slice.
TEST(H264, WholeFramesBehindAGapAreKept)
{
    Track t(WriteH264RtpData);
    std::string any = Nal(1, 80, 4);
    any[1] = static_cast<char>(any[1] & 0x7F);
    for (uint32_t nFrame = 1; nFrame <= 3; nFrame++, t.Lose(9)) {
        t.Put(nFrame, false, Nal(7, 20, 5));
        t.Put(nFrame, true, Nal(5, 90, 7));
    }
    t.Put(4, true, Nal(7, 20, 5));
    t.Put(5, true, any);
    t.Lose();
    t.Put(7, true, any);
    EXPECT_THAT(t.Frames(), ElementsAre(1, 2, 3, 4, 5, 7));
}

TEST(H264, PacketsThatCannotBeUsed)
{
    Track t(WriteH264RtpData);
    std::string good = Nal(1, 40, 1);
    EXPECT_EQ(1, t.Put("short", 0));
    EXPECT_EQ(1, t.Put(1, true, ""));
    EXPECT_EQ(1, t.Put(1, true, std::string("\x78\x00\x05\x01", 4)));  // an aggregate whose unit is cut off
    EXPECT_EQ(1, t.Put(2, true, std::string("\x78\x00\x00\x00\x01\x61", 6)));  // and one of an empty unit
    EXPECT_EQ(1, t.Put(3, false, "\x7C"));                                     // half a fragment header
    EXPECT_EQ(1, t.Put(4, true, good));
    EXPECT_EQ(1, t.Put(5, false, good));
    EXPECT_EQ(1, t.Put(5, false, ""));  // padding in between is no loss
    EXPECT_EQ(1, t.Put(5, true, good));
    ASSERT_FALSE(t.samples.empty());
    EXPECT_EQ(Prefixed(good) + Prefixed(good), t.samples.back().data);
    for (int nType : {0, 25, 27, 29, 31})
        EXPECT_EQ(-1, t.Put(5, true, std::string(1, static_cast<char>(nType)) + "xyz")) << nType;
}

TEST(H264, RtpHeaderExtrasAreNotMedia)
{
    std::string unit = Nal(1, 40, 1);
    std::string packet = Rtp(7, 3600, true, "");
    packet[0] = static_cast<char>(0x80 | 0x20 | 0x10 | 2);  // padding, extension, two sources
    packet += std::string(8, 'c') + std::string("\0\0\0\1", 4) + "extn" + unit + std::string("\0\0\3", 3);
    Track t(WriteH264RtpData);
    EXPECT_EQ(1, t.Put(packet, 40));
    ASSERT_EQ(1U, t.samples.size());
    EXPECT_EQ(Prefixed(unit), t.samples[0].data);
    packet[packet.size() - 1] = '\xFF';  // more padding than there is packet
    EXPECT_EQ(1, t.Put(packet, 40));
    EXPECT_EQ(1U, t.samples.size());
}

// What a peer's packet breaks: fatal by default, the end of the recording when that was asked for.
TEST(DepacketiserDeathTest, FaultsOfThePusher)
{
    std::string big = Nal(5, 2000, 1);
    std::vector<std::string> cut = Fragments(Nal(5, 70000, 1), 2000);
    const struct {
        const char *szText;
        DepacketProc pfn;
        std::vector<std::string> payloads;
        bool bMarker;
    } cases[] = {
        {"len < sizeof\\(backup\\)", WriteH264RtpData, {Nal(1, 2036, 1)}, true},
        {"!bMask", WriteH264RtpData, {cut[0]}, true},
        {"n<=0xffff", WriteH264RtpData, cut, false},
        {"pWriter->nBytes\\+len<pWriter->nTotal", WriteH264RtpData, std::vector<std::string>(66, big), false},
        {"pWriter->nBytes\\+len<pWriter->nTotal", WriteJpegRtpData,
         std::vector<std::string>(66, std::string(8, 0) + big), false},
        {"pRtpHdr->misc & 0x8000", WriteG711RtpData, {std::string(160, 'x')}, false},
        {"nLen<=len\\+1", WriteAmrRtpData, {"\xF0\x3C" + std::string(30, 'x')}, true},
        {"nLen<=len\\+1", WriteAmrRtpData, {"\xF0\xBC\xBC"}, true},
        {"nLen<=len", WriteAmrRtpData, {"\x70\x3C" + std::string(30, 'x')}, true},
    };
    for (const auto &c : cases) {
        auto run = [&c] {
            Track t(c.pfn);
            int nResult = 1;
            for (const auto &payload : c.payloads)
                if (nResult == 1)
                    nResult = t.Put(1, c.bMarker, payload);
            return nResult;
        };
        EXPECT_DEATH(run(), c.szText);
        SurviveFaults survive;
        EXPECT_EQ(-1, run()) << c.szText;
    }
}

TEST(Jpeg, PayloadsAreJoinedAndDamagedImagesDropped)
{
    auto payload = [](uint32_t nOffset, char chFill) {
        return std::string(1, '\0') + Be(nOffset, 3) + std::string("\x01\x20\x28\x1E") +
               std::string(100, chFill);
    };
    Track t(WriteJpegRtpData);
    t.Put(1, false, payload(100, 'b'));  // joined in the middle of an image
    t.Put(1, true, payload(200, 'c'));
    t.Put(2, false, payload(0, 'a'));
    t.Put(2, true, payload(100, 'b'));
    t.Put(3, false, payload(0, 'a'));
    t.Lose();
    t.Put(4, true, payload(0, 'd'));  // the last of image 3 was lost
    t.Lose();
    t.Put(5, true, payload(100, 'e'));  // the first of image 5
    t.Put(6, true, payload(0, 'f'));
    EXPECT_THAT(t.Frames(), ElementsAre(2, 4, 6));
    EXPECT_EQ(payload(0, 'a') + payload(100, 'b'), t.samples[0].data);
    EXPECT_EQ(ZMF_KEY, t.samples[0].nFlags);
}

}  // namespace
}  // namespace orx
