#include "server/keyframe.h"

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

// A '$' frame as a pusher sends it.
Bytes Frame(const Packet &packet, uint8_t nChannel = 0, const Bytes &extra = {}, uint8_t nFlags = 0x80)
{
    Bytes rtp(12);
    rtp[0] = nFlags;
    rtp[1] = static_cast<uint8_t>((packet.bMarker ? 0x80 : 0) | 96);
    PutBe(&rtp[4], 4, packet.nTime);
    rtp.insert(rtp.end(), extra.begin(), extra.end());
    rtp.insert(rtp.end(), packet.payload.begin(), packet.payload.end());
    Bytes frame{'$', nChannel, 0, 0};
    PutBe(&frame[2], 2, static_cast<uint32_t>(rtp.size()));
    frame.insert(frame.end(), rtp.begin(), rtp.end());
    return frame;
}

void MakeVideoProgram(Program *pProg, uint32_t nMediaType)
{
    pProg->nTrackCount = 1;
    pProg->bHasVideo = 1;
    pProg->mediaInfos[0].nMediaType = nMediaType;
    pProg->pfnIsKeyFrame = KeyFrameSelect(pProg);
}

int IsKey(Program *pProg, const Bytes &frame)
{
    return pProg->pfnIsKeyFrame(pProg, frame.data(), static_cast<uint32_t>(frame.size()));
}

void Check(const char *szName, uint32_t nMediaType, const std::vector<Packet> &packets)
{
    Program prog;
    MakeVideoProgram(&prog, nMediaType);
    for (size_t i = 0; i < packets.size(); i++)
        EXPECT_EQ(packets[i].bKey, IsKey(&prog, Frame(packets[i]))) << szName << ", packet " << i;
}

// An aggregate of units of two bytes each.
Bytes StapA(const Bytes &types)
{
    Bytes out{24};
    for (uint8_t nType : types)
        out.insert(out.end(), {0, 2, nType, 0xAA});
    return out;
}

// The opening pictures as real encoders packetise them.
TEST(KeyFrame, H264FlagsEachKeyPictureOnce)
{
    const Bytes sps{0x67, 1}, pps{0x68, 1}, sei{0x06, 1}, delimiter{0x09, 1}, idr{0x65, 1}, slice{0x41, 1};
    const Bytes fuIdrStart{0x7C, 0x85, 1}, fuIdrRest{0x7C, 0x05, 1}, fuIdrEnd{0x7C, 0x45, 1};
    const Bytes fuSpsStart{0x7C, 0x87, 1}, fuSliceStart{0x5C, 0x81, 1};
    Check("sets as single units", MEDIA_H264,
          {{0, 0, delimiter, 0},
           {0, 0, sps, 1},
           {0, 0, pps, 0},
           {0, 0, sei, 0},
           {0, 1, idr, 0},
           {3000, 1, slice, 0}});
    Check("sets in the description only", MEDIA_H264,
          {{0, 0, sei, 0},
           {0, 0, fuIdrStart, 1},
           {0, 0, fuIdrRest, 0},
           {0, 1, fuIdrEnd, 0},
           {3000, 1, fuSliceStart, 0}});
    Check("aggregate, then slice", MEDIA_H264, {{0, 0, StapA({7, 8, 6}), 1}, {0, 1, fuIdrStart, 0}});
    Check("sets behind SEI and delimiter", MEDIA_H264,
          {{0, 0, StapA({9, 7, 8, 6}), 1},
           {0, 1, fuIdrStart, 0},
           {9000, 0, StapA({6, 7, 8}), 1},
           {9000, 1, idr, 0}});
    Check("two slices of one picture", MEDIA_H264, {{0, 0, idr, 1}, {0, 1, idr, 0}, {3000, 1, idr, 1}});
    Check("two parameter sets of one picture", MEDIA_H264, {{0, 0, sps, 1}, {0, 0, sps, 0}, {0, 1, idr, 0}});
    Check("parameter sets again at the next picture", MEDIA_H264, {{0, 1, sps, 1}, {0, 1, sps, 1}});
    Check("fragmented parameter set", MEDIA_H264, {{0, 0, fuSpsStart, 1}, {0, 1, fuIdrStart, 0}});
    Check("whole picture in one aggregate", MEDIA_H264,
          {{0, 1, StapA({6, 5}), 1}, {3000, 1, StapA({6, 1}), 0}});
    Check("time stamp 0 comes again", MEDIA_H264,
          {{0, 1, slice, 0}, {0xFFFFFFFF, 1, idr, 1}, {0, 1, idr, 1}});
}

TEST(KeyFrame, JpegStartsAtOffsetZero)
{
    Check("jpeg", MEDIA_JPEG,
          {{0, 0, {0, 0, 0, 0, 1, 255, 40, 30}, 1},
           {0, 1, {0, 0, 5, 0xB4, 1, 255, 40, 30}, 0},
           {3000, 1, {9, 0, 0, 0, 1, 255, 40, 30}, 1},
           {6000, 1, {0, 0, 0}, 0}});
}

TEST(KeyFrame, OthersStartBehindAMarker)
{
    static const uint32_t types[] = {MEDIA_VIDEO3, MEDIA_VIDEO_OTHER};
    for (uint32_t nType : types)
        Check("other", nType,
              {{0, 0, {1}, 1}, {0, 1, {1}, 0}, {3000, 1, {1}, 1}, {6000, 0, {}, 1}, {6000, 0, {}, 0}});
}

TEST(KeyFrame, LastVideoTrackDecides)
{
    Program prog;
    EXPECT_EQ(nullptr, KeyFrameSelect(&prog));
    prog.nTrackCount = 2;
    prog.mediaInfos[0].nMediaType = MEDIA_G711;
    prog.mediaInfos[1].nMediaType = MEDIA_DATA;
    EXPECT_EQ(nullptr, KeyFrameSelect(&prog));
    prog.nTrackCount = 4;
    prog.mediaInfos[2].nMediaType = MEDIA_H264;
    prog.mediaInfos[3].nMediaType = MEDIA_JPEG;
    KeyFrameProc pfnJpeg = KeyFrameSelect(&prog);
    prog.nTrackCount = 3;
    KeyFrameProc pfnH264 = KeyFrameSelect(&prog);
    EXPECT_NE(nullptr, pfnJpeg);
    EXPECT_NE(nullptr, pfnH264);
    EXPECT_NE(pfnH264, pfnJpeg);
}

// Contributing sources and an extension stand before the payload.
TEST(KeyFrame, LooksBehindTheWholeRtpHeader)
{
    Program prog;
    MakeVideoProgram(&prog, MEDIA_H264);
    const Bytes before{0, 0, 0, 5, 0, 0, 0, 6, 0xBE, 0xDE, 0, 1, 1, 2, 3, 4};
    Packet key{0, 1, {0x67, 1}, 1};
    EXPECT_EQ(1, IsKey(&prog, Frame(key, 0, before, 0x92)));
    key.payload = {0x41};
    EXPECT_EQ(0, IsKey(&prog, Frame(key, 0, before, 0x92)));
}

TEST(KeyFrame, LeavesOtherTracksAlone)
{
    Program prog;
    MakeVideoProgram(&prog, MEDIA_VIDEO_OTHER);
    EXPECT_EQ(0, IsKey(&prog, Frame({0, 1, {1}, 0}, 2)));
    EXPECT_EQ(1, IsKey(&prog, Frame({0, 0, {1}, 1}))) << "the other track's packet must not have counted";
}

TEST(KeyFrame, SurvivesEveryCut)
{
    static const uint32_t types[] = {MEDIA_H264, MEDIA_JPEG, MEDIA_VIDEO_OTHER};
    const Bytes payloads[] = {StapA({9, 7, 8}), {0x7C, 0x85, 1}, {24, 0xFF, 0xFF, 7}, {24, 0, 0, 0, 0}, {}};
    for (uint32_t nType : types) {
        for (const Bytes &payload : payloads) {
            Bytes whole = Frame({0, 0, payload, 0});
            for (size_t n = 0; n <= whole.size(); n++) {
                Program prog;
                MakeVideoProgram(&prog, nType);
                Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));  // exact, for the sanitizers
                IsKey(&prog, cut);
            }
        }
    }
}

}  // namespace
}  // namespace orx
