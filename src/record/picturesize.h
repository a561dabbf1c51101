// How large the pictures of a video track are, by what their stream says: the sequence parameter set of H.264
// (ITU-T H.264, 7.3.2.1.1) and H.265 (7.3.2.2), the header of RFC 2435. Bytes come from peers; nothing
// outside them is read. Any thread.
#pragma once

#include <cstdint>

#include "record/nalunit.h"

namespace orx {

// Of a sequence parameter set with its unit header. Returns 1, or 0 when it cannot be read; both then stay.
int PictureSizeOfSequence(const NalForm *pForm, const uint8_t *pUnit, uint32_t nBytes, uint32_t *pnWidth,
                          uint32_t *pnHeight);

// Of an RTP payload of JPEG. Results as above.
int PictureSizeOfJpeg(const uint8_t *pPayload, uint32_t nBytes, uint32_t *pnWidth, uint32_t *pnHeight);

}  // namespace orx
