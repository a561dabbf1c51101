#include "record/codec.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace orx {
namespace {

using Bytes = std::vector<uint8_t>;

struct Packet {
    uint32_t nTime;
    int bMarker;
    Bytes payload;
    int bKey;  // what is expected
};

// One track's test and what it remembers.
struct Video {
    KeyFrameProc pfnIsKey;
    KeyWatch watch;

    explicit Video(KeyFrameProc pfn) : pfnIsKey(pfn) {}
    int IsKey(const Packet &packet)
    {
        RtpPacket rtp;
        rtp.bMarker = packet.bMarker;
        rtp.nRtpTime = packet.nTime;
        rtp.pPayload = packet.payload.data();
        rtp.nPayload = static_cast<uint32_t>(packet.payload.size());
        return pfnIsKey(&watch, &rtp);
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
        KeyFrameProc pfn;
        std::vector<Packet> packets;
    } cases[] = {
        {"sets as single units",
         IsKeyH264,
         {{0, 0, delimiter, 0}, {0, 0, sps, 1}, {0, 0, pps, 0}, {0, 1, idr, 0}, {3000, 1, slice, 0}}},
        {"sets in the description only",
         IsKeyH264,
         {{0, 0, sei, 0},
          {0, 0, fuIdrStart, 1},
          {0, 0, fuIdrRest, 0},
          {0, 1, fuIdrEnd, 0},
          {9, 1, fuSlice, 0}}},
        {"sets behind SEI and delimiter",
         IsKeyH264,
         {{0, 0, StapA({9, 7, 8, 6}), 1},
          {0, 1, fuIdrStart, 0},
          {9, 0, StapA({6, 7, 8}), 1},
          {9, 1, idr, 0}}},
        {"two slices of one picture", IsKeyH264, {{0, 0, idr, 1}, {0, 1, idr, 0}, {3000, 1, idr, 1}}},
        {"sets again at the next picture", IsKeyH264, {{0, 1, sps, 1}, {0, 1, sps, 1}}},
        {"fragmented parameter set", IsKeyH264, {{0, 0, fuSps, 1}, {0, 1, fuIdrStart, 0}}},
        {"one aggregate", IsKeyH264, {{0, 1, StapA({6, 5}), 1}, {3000, 1, StapA({6, 1}), 0}}},
        {"time stamp 0 comes again", IsKeyH264, {{0, 1, slice, 0}, {0xFFFFFFFF, 1, idr, 1}, {0, 1, idr, 1}}},
        {"jpeg",
         IsKeyJpeg,
         {{0, 0, jpegStart, 1}, {0, 1, jpegRest, 0}, {9, 1, jpegStart, 1}, {9, 1, {0}, 0}}},
        {"others start behind a marker",
         IsKeyGeneric,
         {{0, 0, {1}, 1}, {0, 1, {1}, 0}, {3000, 1, {1}, 1}, {6000, 0, {}, 1}, {6000, 0, {}, 0}}},
    };
    for (const auto &c : cases) {
        Video video(c.pfn);
        for (size_t i = 0; i < c.packets.size(); i++)
            EXPECT_EQ(c.packets[i].bKey, video.IsKey(c.packets[i])) << c.szName << ", packet " << i;
    }
}

TEST(KeyFrame, SurvivesEveryCut)
{
    const Bytes payloads[] = {StapA({9, 7, 8}), {0x7C, 0x85, 1}, {24, 0xFF, 0xFF, 7}, {24, 0, 0, 0, 0}};
    for (KeyFrameProc pfn : {IsKeyH264, IsKeyJpeg, IsKeyGeneric})
        for (const Bytes &payload : payloads)
            for (size_t n = 0; n <= payload.size(); n++)  // copies of their very size, for the sanitizers
                Video(pfn).IsKey({0, 0, Bytes(payload.begin(), payload.begin() + static_cast<long>(n)), 0});
}

}  // namespace
}  // namespace orx
