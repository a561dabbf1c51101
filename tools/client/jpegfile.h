// A baseline JPEG picture taken apart into what RTP carries of it (RFC 2435). Any thread.
#pragma once

#include <string>
#include <string_view>

namespace orx {

struct JpegPicture {
    int nType = 0;  // 0: 4:2:2, 1: 4:2:0; 64 is added when there are restart markers
    int nWidth = 0, nHeight = 0;
    int nRestart = 0;       // macroblocks between restart markers, 0: none
    std::string tables;     // the quantisation tables, 64 bytes each, luminance first
    std::string_view scan;  // the entropy-coded data, into what was parsed
};

// Returns null with *pOut filled, or a text that says why RTP cannot carry the picture.
const char *JpegParse(std::string_view data, JpegPicture *pOut);

}  // namespace orx
