// An H.264 byte stream (ITU-T H.264, Annex B) taken apart into pictures. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orx {

enum {
    H264_SLICE = 1,
    H264_IDR = 5,
    H264_SEI = 6,
    H264_SPS = 7,
    H264_PPS = 8,
    H264_AUD = 9,
    H264_FILLER = 12
};

inline int H264UnitType(std::string_view unit)
{
    return unit.empty() ? 0 : unit[0] & 0x1F;
}

struct H264Picture {
    std::vector<std::string_view> units;  // into H264File::data, without start codes
    int bKey = 0;                         // holds an IDR slice
};

struct H264File {
    std::string data;
    std::vector<H264Picture> pictures;
    std::string_view sps, pps;  // the first of each
    int nWidth = 0, nHeight = 0;
    H264File() = default;
    H264File(const H264File &) = delete;  // the views point into data
    H264File &operator=(const H264File &) = delete;
};

// Takes pFile->data apart. Returns 1, or 0 when it has no pictures or no parameter sets.
int H264Parse(H264File *pFile);
// Reads a file and takes it apart. Results as H264Parse; 0 as well when it cannot be read.
int H264Load(H264File *pFile, const char *szPath);

// The size of the pictures that a sequence parameter set announces. Returns 1, or 0 for a set that ends too
// early.
int H264PictureSize(std::string_view sps, int *pnWidth, int *pnHeight);

// The whole of a file. Returns 1 or 0.
int ReadWholeFile(const char *szPath, std::string *pOut);

}  // namespace orx
