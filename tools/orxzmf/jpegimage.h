// JPEG images out of a recording: the recorded RTP payloads of one image get the headers back that RTP leaves
// out.
#pragma once

#include <cstdint>
#include <string>

namespace orx {

// The image of one recorded sample as a JFIF file in *pOut. A sample that is such a file already is copied.
// Returns 1, or 0 when the bytes are neither.
int JpegImageRebuild(const uint8_t *pData, uint32_t nBytes, std::string *pOut);

// Size of a JFIF image in pixels. Returns 1, or 0 when it names none.
int JpegImageSize(const std::string &image, uint32_t *pnWidth, uint32_t *pnHeight);

}  // namespace orx
