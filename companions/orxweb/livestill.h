// A key frame as a small JPEG picture, by libavcodec and libswscale. Any thread; takes tens of milliseconds.
#pragma once

#include <string>

#include "record/codec.h"

namespace orx {

// picture: of H.264 and H.265 a stream with start codes that begins with its parameter sets, of MJPEG an
// image, which is passed on where it is no wider. Returns 1, or 0 for one that cannot be decoded.
int LiveStillMake(const Codec *pCodec, const std::string &picture, int nMostWidth, std::string *pJpeg);

}  // namespace orx
