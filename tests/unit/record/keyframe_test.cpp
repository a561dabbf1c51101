#include "record/keyframe.h"

#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace orx {

// Single units, fragments (FU-A) and aggregates (STAP-A), these of units of two bytes each.
static const std::map<std::string, std::vector<uint8_t>> kPayloads = {
    {"sps", {0x67, 1}},
    {"pps", {0x68, 1}},
    {"sei", {0x06, 1}},
    {"delimiter", {0x09, 1}},
    {"idr", {0x65, 1}},
    {"slice", {0x41, 1}},
    {"idr-start", {0x7C, 0x85, 1}},
    {"idr-rest", {0x7C, 0x05, 1}},
    {"idr-end", {0x7C, 0x45, 1}},
    {"sps-start", {0x7C, 0x87, 1}},
    {"slice-start", {0x5C, 0x81, 1}},
    {"fragment-cut", {0x7C}},
    {"delimiter+sps+pps+sei", {24, 0, 2, 9, 0xAA, 0, 2, 7, 0xAA, 0, 2, 8, 0xAA, 0, 2, 6, 0xAA}},
    {"sei+sps", {24, 0, 2, 6, 0xAA, 0, 2, 7, 0xAA}},
    {"sei+idr", {24, 0, 2, 6, 0xAA, 0, 2, 5, 0xAA}},
    {"sei+slice", {24, 0, 2, 6, 0xAA, 0, 2, 1, 0xAA}},
    {"aggregate-cut", {24, 0}},
    {"aggregate-long", {24, 0xFF, 0xFF, 7}},
    {"aggregate-empty", {24, 0, 0, 0, 0}},
    {"jpeg-start", {0, 0, 0, 0, 1, 255, 40, 30}},
    {"jpeg-rest", {0, 0, 5, 0xB4, 1, 255, 40, 30}},
    {"byte", {0}},
    {"nothing", {}}};

// The opening pictures as real encoders packetise them, each packet by its time stamp and payload; * marks
// where a key picture is to be seen, ! the marker.
TEST(KeyFrame, FlagsEachKeyPictureOnce)
{
    static const std::tuple<const char *, KeyFrameProc, const char *> cases[] = {
        {"sets as single units", IsKeyH264, "0:delimiter 0:sps* 0:pps 0:idr! 3000:slice!"},
        {"sets in the description only", IsKeyH264, "0:sei 0:idr-start* 0:idr-rest 0:idr-end! 9:slice-start!"},
        {"sets behind others", IsKeyH264, "0:delimiter+sps+pps+sei* 0:idr-start! 9:sei+sps* 9:idr!"},
        {"two slices of one picture", IsKeyH264, "0:idr* 0:idr! 3000:idr*!"},
        {"sets again at the next picture", IsKeyH264, "0:sps*! 0:sps*!"},
        {"fragmented parameter set", IsKeyH264, "0:sps-start* 0:idr-start!"},
        {"one aggregate", IsKeyH264, "0:sei+idr*! 3000:sei+slice!"},
        {"time stamp 0 comes again", IsKeyH264, "0:slice! 4294967295:idr*! 0:idr*!"},
        {"cut short", IsKeyH264, "0:nothing 0:fragment-cut 0:aggregate-cut 0:aggregate-long 0:aggregate-empty"},
        {"images", IsKeyJpeg, "0:jpeg-start* 0:jpeg-rest! 9:jpeg-start*! 9:byte! 9:nothing"},
        {"others start behind a marker", IsKeyGeneric, "0:byte* 0:byte! 3000:byte*! 6000:nothing* 6000:nothing"},
    };
    for (const auto &[szName, pfnIsKey, szPackets] : cases) {
        KeyWatch watch;
        std::istringstream words(szPackets);
        for (std::string word; words >> word;) {
            size_t nName = word.find(':') + 1;
            const auto &payload = kPayloads.at(word.substr(nName, word.find_first_of("*!") - nName));
            RtpPacket rtp;
            rtp.nRtpTime = static_cast<uint32_t>(std::stoul(word));
            rtp.bMarker = word.back() == '!';
            rtp.pPayload = payload.data();
            rtp.nPayload = static_cast<uint32_t>(payload.size());
            EXPECT_EQ(word.find('*') != std::string::npos, pfnIsKey(&watch, &rtp)) << szName << ", " << word;
        }
    }
}

}  // namespace orx
