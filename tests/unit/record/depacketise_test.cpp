#include "record/depacketise.h"

#include <map>
#include <sstream>
#include <tuple>

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

// Packets by the number of their frame; ~ stands for one that is lost before, ! for the marker. Which frames
// are left, and is all of them there?
TEST(H264, AFrameWithALostPartIsDroppedWholeAndNoOther)
{
    const std::string cut = Nal(1, 300, 3), good = "1:sps 1:pps 1:idr! 2:slice! ";
    const std::vector<std::string> parts = Fragments(cut, 100);
    std::string later = Nal(1, 80, 4);  // not the first slice of its picture
    later[1] = static_cast<char>(later[1] & 0x7F);
    const std::map<std::string, std::string> payloads = {
        {"sps", Nal(7, 20, 5)}, {"pps", Nal(8, 6, 6)}, {"idr", Nal(5, 90, 7)}, {"slice", Nal(1, 100, 1)},
        {"later", later},       {"begin", parts[0]},   {"middle", parts[1]},   {"end", parts[2]}};
    const std::tuple<const char *, std::string, std::vector<uint32_t>> cases[] = {
        {"a frame before fragments", good + "~4:begin 4:middle 4:end!", {1, 2, 4}},
        {"a whole frame", good + "~4:slice! 5:slice!", {1, 2, 4, 5}},
        {"the first fragment", good + "~3:middle 3:end! 4:slice!", {1, 2, 4}},
        {"one in the middle", good + "3:begin ~3:end! 4:slice!", {1, 2, 4}},
        {"the last fragment", good + "3:begin ~4:slice! 5:slice!", {1, 2, 4, 5}},
        {"the last slice", good + "3:slice ~4:slice!", {1, 2, 4}},
        {"the first slice", good + "~3:later! 4:slice!", {1, 2, 4}},
        {"the parameter sets", good + "~3:pps 3:idr! 4:slice!", {1, 2, 4}},
        {"all but key frames, as in a trimmed cache", "~1:sps 1:idr! ~2:sps 2:idr! ~3:sps 3:idr!", {1, 2, 3}},
        {"a frame of an encoder that begins with any slice", "1:sps! 2:later! ~4:later!", {1, 2, 4}},
    };
    for (const auto &[szLost, packets, left] : cases) {
        Track t(WriteH264RtpData);
        std::map<uint32_t, std::string> frames;
        std::istringstream words(packets);
        for (std::string word; words >> word;) {
            const int bLost = word[0] == '~';
            const auto nFrame = static_cast<uint32_t>(word[bLost ? 1 : 0] - '0');
            const std::string name = word.substr(word.find(':') + 1, word.find('!') - word.find(':') - 1);
            EXPECT_EQ(1, t.Put(nFrame, word.back() == '!', payloads.at(name), bLost)) << szLost;
            frames[nFrame] +=
                name == "middle" || name == "end" ? "" : Prefixed(name == "begin" ? cut : payloads.at(name));
        }
        EXPECT_EQ(left, t.Frames()) << szLost;
        for (const MediaSample &sample : t.samples)
            EXPECT_EQ(frames[sample.nTimeMs], sample.data) << szLost;
    }
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
    const RtpFields head{.bMarker = true, .nFlags = 0x80 | 0x20 | 0x10 | 2};  // padding, extension, two sources
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
    const std::tuple<const char *, DepacketProc, std::vector<std::string>, bool> cases[] = {
        // what is said of the codec's payloads, which have the marker or not
        {"len < sizeof(backup)", WriteH264RtpData, {Nal(1, 2036, 1)}, true},
        {"!bMask", WriteH264RtpData, {cut[0]}, true},
        {"n<=0xffff", WriteH264RtpData, cut, false},
        {"pWriter->nBytes+len<pWriter->nTotal", WriteJpegRtpData, many, false},
        {"pRtpHdr->misc & 0x8000", WriteG711RtpData, {std::string(160, 'x')}, false},
        {"nLen<=len+1", WriteAmrRtpData, {"\xF0\x3C" + std::string(30, 'x')}, true},
        {"nLen<=len+1", WriteAmrRtpData, {"\xF0\xBC\xBC"}, true},
        {"nLen<=len", WriteAmrRtpData, {"\x70\x3C" + std::string(30, 'x')}, true},
    };
    for (const auto &[szText, pfn, payloads, bMarker] : cases) {
        Track t(pfn);
        int nResult = 1;
        auto put = [&, &all = payloads, bLast = bMarker] {
            for (size_t i = 0; i < all.size() && nResult == 1; i++)
                nResult = t.Put(1, bLast, all[i]);
        };
        EXPECT_THAT(PeerFaults(put), testing::HasSubstr(szText));
        EXPECT_EQ(-1, nResult) << szText;
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
