// The parts of an image that RFC 2435 sends: from a JFIF file, or from the recorded payloads of its packets.
// Bytes come from a file; nothing outside them is read. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

constexpr uint32_t kJpegHeadBytes = 8;       // main header of every payload
constexpr uint32_t kJpegRestartBytes = 4;    // restart-marker header, types 64-127
constexpr uint32_t kJpegQuantHeadBytes = 4;  // quantisation-table header, Q of 128 and more

struct JpegImage {
    uint32_t nWidth = 0;
    uint32_t nHeight = 0;
    const uint8_t *pLuma = nullptr;  // quantisation tables of nTable bytes each, null when missing
    const uint8_t *pChroma = nullptr;
    uint32_t nTable = 0;
    const uint8_t *pScan = nullptr;  // entropy-coded data to the end of the image, null when missing
    size_t nScan = 0;
};
// Finds the parts of a JFIF image; what is missing stays null.
void JpegImageParse(const uint8_t *pData, size_t nBytes, JpegImage *pOut);

// One recorded payload.
struct JpegFragment {
    const uint8_t *pData = nullptr;  // with its headers
    size_t nBytes = 0;
    size_t nHead = 0;  // bytes of headers in front of the image data
    int bLast = 0;
};
// Walks through the joined payloads of one image.
struct JpegFragments {
    const uint8_t *pData = nullptr;  // what is left
    size_t nLeft = 0;
    uint32_t nOffset = 0;  // image data passed
};
// Takes the next payload. Returns 1, or 0 at the end and when the bytes are no payloads of an image.
int JpegNextFragment(JpegFragments *pIn, JpegFragment *pOut);

}  // namespace orx
