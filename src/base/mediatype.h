// The kind and codec of a track, as one code: the low byte a video codec, the second an audio codec, the
// third text and what is only carried, the fourth data.
#pragma once

#include <cstdint>

namespace orx {

enum : uint32_t {
    MEDIA_H264 = 0x1,
    MEDIA_JPEG = 0x2,
    MEDIA_VIDEO3 = 0x3,  // a third video codec; no encoding name yields it
    MEDIA_H265 = 0x4,
    MEDIA_VIDEO_OTHER = 0xFF,
    MEDIA_VIDEO_MASK = 0xFF,
    MEDIA_AMR_NB = 0x100,
    MEDIA_G711 = 0x200,
    MEDIA_AMR_WB = 0x400,
    MEDIA_AAC = 0x800,
    MEDIA_AUDIO_OTHER = 0xFF00,
    MEDIA_AUDIO_MASK = 0xFF00,
    MEDIA_CARRIED = 0x10000,  // a section of any other kind
    MEDIA_TEXT = 0xFF0000,
    MEDIA_DATA = 0xFF000000,
};

}  // namespace orx
