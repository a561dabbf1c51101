#include "record/depacketise.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recordkit.h"

namespace orx {

using testing::ElementsAre;

// Packets of one track, and the samples that they become.
struct Track {
    Depacketiser track;
    std::vector<MediaSample> samples;
    DepacketProc pfn;
    uint16_t nSeq = 65534;  // wraps on the way

    explicit Track(DepacketProc pfnWrite) : pfn(pfnWrite)
    {
        track.pContext = &samples;
        track.pfnSample = KeepSample;
    }
    ~Track() { DepacketiserReset(&track); }
    Track &operator=(Track &&) = delete;

    int PutPacket(const std::string &packet, uint32_t nTimeMs)
    {
        std::vector<uint8_t> exact(packet.begin(), packet.end());  // so that a step past its end is seen
        return pfn(&track, exact.data(), static_cast<uint32_t>(exact.size()), nTimeMs);
    }
    // A packet of the frame number nFrame, some before it being lost.
    int Put(uint32_t nFrame, bool bMarker, const std::string &payload, int nLostBefore = 0)
    {
        nSeq = static_cast<uint16_t>(nSeq + nLostBefore + 1);
        return PutPacket(MakeRtp({96, nSeq, nFrame * 3600, bMarker}, payload), nFrame);
    }
    std::vector<uint32_t> Frames() const
    {
        std::vector<uint32_t> out;
        for (const auto &sample : samples)
            out.push_back(sample.nTimeMs);
        return out;
    }
};

// Not the first slice of its picture.
static std::string LaterSlice()
{
    std::string unit = Nal(1, 80, 4);
    unit[1] = static_cast<char>(unit[1] & 0x7F);
    return unit;
}

// Frames 1 and 2 are whole, then something is lost in or around frames 3 to 5. Which frames are left?
TEST(H264, AFrameWithALostPartIsDroppedWholeAndNoOther)
{
    struct Step {
        uint32_t nFrame;
        bool bMarker;
        std::string payload;
        int nLostBefore = 0;
    };
    const std::string a = Nal(1, 100, 1), sps = Nal(7, 20, 5), pps = Nal(8, 6, 6), idr = Nal(5, 90, 7);
    const std::string whole = Nal(1, 300, 3), second = LaterSlice();
    const std::vector<std::string> cut = Fragments(whole, 100);
    const std::tuple<const char *, std::vector<Step>, std::vector<uint32_t>> cases[] = {
        {"one before fragments", {{4, false, cut[0], 1}, {4, false, cut[1]}, {4, true, cut[2]}}, {1, 2, 4}},
        {"a whole frame", {{4, true, a, 1}, {5, true, a}}, {1, 2, 4, 5}},
        {"the first fragment", {{3, false, cut[1], 1}, {3, true, cut[2]}, {4, true, a}}, {1, 2, 4}},
        {"one in the middle", {{3, false, cut[0]}, {3, true, cut[2], 1}, {4, true, a}}, {1, 2, 4}},
        {"the last fragment", {{3, false, cut[0]}, {4, true, a, 1}, {5, true, a}}, {1, 2, 4, 5}},
        {"the last slice", {{3, false, a}, {4, true, a, 1}}, {1, 2, 4}},
        {"the first slice", {{3, true, second, 1}, {4, true, a}}, {1, 2, 4}},
        {"the parameter sets", {{3, false, pps, 1}, {3, true, idr}, {4, true, a}}, {1, 2, 4}},
    };
    for (const auto &[szLost, lossy, left] : cases) {
        Track t(WriteH264RtpData);
        std::vector<Step> steps = {{1, false, sps}, {1, false, pps}, {1, true, idr}, {2, true, a}};
        steps.insert(steps.end(), lossy.begin(), lossy.end());
        for (const Step &step : steps)
            EXPECT_EQ(1, t.Put(step.nFrame, step.bMarker, step.payload, step.nLostBefore)) << szLost;
        EXPECT_EQ(left, t.Frames()) << szLost;
        for (size_t i = 1; i < t.samples.size(); i++)
            EXPECT_THAT(t.samples[i].data, testing::AnyOf(Prefixed(a), Prefixed(whole))) << szLost;
    }
}

// A cache that was trimmed holds whole key frames with gaps between them, and some encoders begin pictures
// with any slice.
TEST(H264, WholeFramesBehindAGapAreKept)
{
    Track t(WriteH264RtpData);
    for (uint32_t nFrame = 1; nFrame <= 3; nFrame++) {
        t.Put(nFrame, false, Nal(7, 20, 5), 9);
        t.Put(nFrame, true, Nal(5, 90, 7));
    }
    t.Put(4, true, Nal(7, 20, 5), 9);
    t.Put(5, true, LaterSlice());
    t.Put(7, true, LaterSlice(), 1);
    EXPECT_THAT(t.Frames(), ElementsAre(1, 2, 3, 4, 5, 7));
}

TEST(H264, PacketsThatCannotBeUsedChangeNothing)
{
    Track t(WriteH264RtpData);
    const std::string good = Nal(1, 40, 1);
    const std::string useless[] = {
        "", std::string("\x78\x00\x05\x01", 4),      // an aggregate whose unit is cut off
        std::string("\x78\x00\x00\x00\x01\x61", 6),  // and one of an empty unit
        "\x7C",                                      // half a fragment header
    };
    EXPECT_EQ(1, t.PutPacket("short", 0));
    for (const auto &payload : useless)
        EXPECT_EQ(1, t.Put(1, true, payload));
    EXPECT_EQ(1, t.Put(4, true, good));
    EXPECT_EQ(1, t.Put(5, false, good));
    EXPECT_EQ(1, t.Put(5, false, ""));  // padding in between is no loss
    EXPECT_EQ(1, t.Put(5, true, good));
    ASSERT_FALSE(t.samples.empty());
    EXPECT_EQ(Prefixed(good) + Prefixed(good), t.samples.back().data);
    for (uint32_t nType : {0, 25, 27, 29, 31})  // other ways to packetise end the recording
        EXPECT_EQ(-1, t.Put(5, true, Be(nType, 1) + "xyz")) << nType;
}

TEST(H264, RtpHeaderExtrasAreNotMedia)
{
    const std::string unit = Nal(1, 40, 1);
    const RtpFields head{.bMarker = true,
                         .nFlags = 0x80 | 0x20 | 0x10 | 2};  // padding, extension, two sources
    std::string packet = MakeRtp(head, std::string(8, 'c') + Be(1, 4) + "extn" + unit + Be(3, 3));
    Track t(WriteH264RtpData);
    EXPECT_EQ(1, t.PutPacket(packet, 40));
    packet.back() = '\xFF';  // more padding than there is packet
    EXPECT_EQ(1, t.PutPacket(packet, 40));
    ASSERT_EQ(1U, t.samples.size());
    EXPECT_EQ(Prefixed(unit), t.samples[0].data);
}

// What a peer's packets break ends the recording.
TEST(Depacketiser, FaultsOfThePusher)
{
    const std::vector<std::string> many(66, std::string(8, 0) + Nal(5, 1992, 1));
    const std::vector<std::string> cut = Fragments(Nal(5, 70000, 1), 2000);
    const struct {
        const char *szText;
        DepacketProc pfn;
        std::vector<std::string> payloads;
        bool bMarker;
    } cases[] = {
        {"len < sizeof(backup)", WriteH264RtpData, {Nal(1, 2036, 1)}, true},
        {"!bMask", WriteH264RtpData, {cut[0]}, true},
        {"n<=0xffff", WriteH264RtpData, cut, false},
        {"pWriter->nBytes+len<pWriter->nTotal", WriteJpegRtpData, many, false},
        {"pRtpHdr->misc & 0x8000", WriteG711RtpData, {std::string(160, 'x')}, false},
        {"nLen<=len+1", WriteAmrRtpData, {"\xF0\x3C" + std::string(30, 'x')}, true},
        {"nLen<=len+1", WriteAmrRtpData, {"\xF0\xBC\xBC"}, true},
        {"nLen<=len", WriteAmrRtpData, {"\x70\x3C" + std::string(30, 'x')}, true},
    };
    for (const auto &c : cases) {
        Track t(c.pfn);
        int nResult = 1;
        EXPECT_THAT(PeerFaults([&] {
                        for (const std::string &payload : c.payloads)
                            nResult = nResult == 1 ? t.Put(1, c.bMarker, payload) : nResult;
                    }),
                    testing::HasSubstr(c.szText));
        EXPECT_EQ(-1, nResult) << c.szText;
    }
}

TEST(Jpeg, PayloadsAreJoinedAndDamagedImagesDropped)
{
    auto payload = [](uint32_t nOffset, char chFill) {
        return Be(nOffset, 4) + "\x01\x20\x28\x1E" + std::string(100, chFill);
    };
    Track t(WriteJpegRtpData);
    t.Put(1, true, payload(200, 'c'));  // joined in the middle of an image
    t.Put(2, false, payload(0, 'a'));
    t.Put(2, true, payload(100, 'b'));
    t.Put(3, false, payload(0, 'a'));
    t.Put(4, true, payload(0, 'd'), 1);    // the last of image 3 was lost
    t.Put(5, true, payload(100, 'e'), 1);  // the first of image 5
    t.Put(6, true, payload(0, 'f'));
    EXPECT_THAT(t.Frames(), ElementsAre(2, 4, 6));
    EXPECT_EQ(payload(0, 'a') + payload(100, 'b'), t.samples[0].data);
}

}  // namespace orx
