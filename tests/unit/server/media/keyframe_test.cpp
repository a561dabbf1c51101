#include "server/media/keyframe.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/bytes.h"

namespace orx {
namespace {

using Bytes = std::vector<uint8_t>;

struct Packet {
    uint32_t nTime;
    int bMarker;
    Bytes payload;
    int bKey;  // what is expected
};

// A '$' frame as a pusher sends it, with bytes between the fixed RTP header and the payload.
Bytes Frame(const Packet &packet, uint8_t nChannel = 0, uint8_t nFlags = 0x80, const Bytes &between = {})
{
    Bytes frame(16);
    frame[0] = '$';
    frame[1] = nChannel;
    frame[4] = nFlags;
    frame[5] = static_cast<uint8_t>((packet.bMarker ? 0x80 : 0) | 96);
    PutBe(&frame[8], 4, packet.nTime);
    frame.insert(frame.end(), between.begin(), between.end());
    frame.insert(frame.end(), packet.payload.begin(), packet.payload.end());
    PutBe(&frame[2], 2, static_cast<uint32_t>(frame.size() - 4));
    return frame;
}

struct VideoProgram : Program {
    explicit VideoProgram(uint32_t nMediaType)
    {
        nTrackCount = 1;
        nVideoTrack = 0;
        mediaInfos[0].nMediaType = nMediaType;
        pfnIsKeyFrame = KeyFrameSelect(this);
    }
    int IsKey(const Bytes &frame)
    {
        return pfnIsKeyFrame(this, frame.data(), static_cast<uint32_t>(frame.size()));
    }
};

// An aggregate of units of two bytes each.
Bytes StapA(const Bytes &types)
{
    Bytes out{24};
    for (uint8_t nType : types)
        out.insert(out.end(), {0, 2, nType, 0xAA});
    return out;
}

// The opening pictures as real encoders packetise them.
TEST(KeyFrame, FlagsEachKeyPictureOnce)
{
    const Bytes sps{0x67, 1}, pps{0x68, 1}, sei{0x06, 1}, delimiter{0x09, 1}, idr{0x65, 1}, slice{0x41, 1};
    const Bytes fuIdrStart{0x7C, 0x85, 1}, fuIdrRest{0x7C, 0x05, 1}, fuIdrEnd{0x7C, 0x45, 1};
    const Bytes fuSps{0x7C, 0x87, 1}, fuSlice{0x5C, 0x81, 1};
    const Bytes jpegStart{0, 0, 0, 0, 1, 255, 40, 30}, jpegRest{0, 0, 5, 0xB4, 1, 255, 40, 30};
    const struct {
        const char *szName;
        uint32_t nMediaType;
        std::vector<Packet> packets;
    } cases[] = {
        {"sets as single units",
         MEDIA_H264,
         {{0, 0, delimiter, 0}, {0, 0, sps, 1}, {0, 0, pps, 0}, {0, 1, idr, 0}, {3000, 1, slice, 0}}},
        {"sets in the description only",
         MEDIA_H264,
         {{0, 0, sei, 0},
          {0, 0, fuIdrStart, 1},
          {0, 0, fuIdrRest, 0},
          {0, 1, fuIdrEnd, 0},
          {9, 1, fuSlice, 0}}},
        {"sets behind SEI and delimiter",
         MEDIA_H264,
         {{0, 0, StapA({9, 7, 8, 6}), 1},
          {0, 1, fuIdrStart, 0},
          {9, 0, StapA({6, 7, 8}), 1},
          {9, 1, idr, 0}}},
        {"two slices of one picture", MEDIA_H264, {{0, 0, idr, 1}, {0, 1, idr, 0}, {3000, 1, idr, 1}}},
        {"sets again at the next picture", MEDIA_H264, {{0, 1, sps, 1}, {0, 1, sps, 1}}},
        {"fragmented parameter set", MEDIA_H264, {{0, 0, fuSps, 1}, {0, 1, fuIdrStart, 0}}},
        {"one aggregate", MEDIA_H264, {{0, 1, StapA({6, 5}), 1}, {3000, 1, StapA({6, 1}), 0}}},
        {"time stamp 0 comes again", MEDIA_H264, {{0, 1, slice, 0}, {0xFFFFFFFF, 1, idr, 1}, {0, 1, idr, 1}}},
        {"jpeg",
         MEDIA_JPEG,
         {{0, 0, jpegStart, 1}, {0, 1, jpegRest, 0}, {9, 1, jpegStart, 1}, {9, 1, {0}, 0}}},
        {"others start behind a marker",
         MEDIA_VIDEO_OTHER,
         {{0, 0, {1}, 1}, {0, 1, {1}, 0}, {3000, 1, {1}, 1}, {6000, 0, {}, 1}, {6000, 0, {}, 0}}},
    };
    for (const auto &c : cases) {
        VideoProgram prog(c.nMediaType);
        for (size_t i = 0; i < c.packets.size(); i++)
            EXPECT_EQ(c.packets[i].bKey, prog.IsKey(Frame(c.packets[i]))) << c.szName << ", packet " << i;
    }
}

TEST(KeyFrame, LooksBehindTheWholeRtpHeaderOfItsTrack)
{
    VideoProgram prog(MEDIA_H264);
    const Bytes extras{0, 0, 0, 5, 0, 0, 0, 6, 0xBE, 0xDE, 0, 1, 1, 2, 3, 4};  // two sources, an extension
    EXPECT_EQ(0, prog.IsKey(Frame({0, 1, {0x41}, 0}, 0, 0x92, extras)));
    EXPECT_EQ(0, prog.IsKey(Frame({0, 1, {0x67, 1}, 0}, 2, 0x92, extras))) << "another track";
    EXPECT_EQ(1, prog.IsKey(Frame({0, 1, {0x67, 1}, 1}, 0, 0x92, extras)));
}

TEST(KeyFrame, SurvivesEveryCut)
{
    const Bytes payloads[] = {StapA({9, 7, 8}), {0x7C, 0x85, 1}, {24, 0xFF, 0xFF, 7}, {24, 0, 0, 0, 0}, {}};
    for (uint32_t nType : {MEDIA_H264, MEDIA_JPEG, MEDIA_VIDEO_OTHER}) {
        for (const Bytes &payload : payloads) {
            Bytes whole = Frame({0, 0, payload, 0});
            for (size_t n = 0; n <= whole.size(); n++)  // copies of their very size, for the sanitizers
                VideoProgram(nType).IsKey(Bytes(whole.begin(), whole.begin() + static_cast<long>(n)));
        }
    }
}

}  // namespace
}  // namespace orx
