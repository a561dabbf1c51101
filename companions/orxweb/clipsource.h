// A recording as clips are made from it: its description, and its records one after the other from anywhere
// on. Files come from anywhere, too: nothing in one is trusted. One thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "record/sdpscan.h"
#include "record/zmfile.h"

namespace orx {

struct ClipDescription {
    std::string sdp;  // the codecs are views of it: neither moved nor copied
    SdpCodecs codecs;
    uint64_t nDataPos = 0;  // of the first record
};

// Reads it. Returns 1, or 0 when the file is no recording.
int ClipDescriptionRead(int fd, ClipDescription *pOut);

struct ClipSource {
    int fd = -1;          // not owned
    uint64_t nNext = 0;   // position of the next record
    uint64_t nEnd = 0;    // there is none from here on
    uint32_t nAhead = 0;  // bytes that are read at a time
    std::vector<uint8_t> buffer;
    uint64_t nBufferPos = 0;  // of its first byte
};
struct ClipRecord {
    ZMFRecordHead head;
    uint64_t nPos = 0;
    const uint8_t *pData = nullptr;  // behind the head; valid until the next one is read
    uint32_t nBytes = 0;
};

ClipSource ClipSourceFrom(int fd, uint64_t nPos, uint64_t nEnd, uint32_t nAhead);
// Returns 1, or 0 at the end and where no whole record follows.
int ClipSourceNext(ClipSource *pSource, ClipRecord *pOut);

// Appends the picture of a record as it stands in an .mp4: units behind lengths of four bytes, without
// parameter sets unless bSets; or a JFIF image. Returns 1, or 0 with pOut as it was for one that is damaged
// or holds nothing.
int ClipPictureAppend(const Codec *pCodec, int bSets, const uint8_t *pData, uint32_t nBytes,
                      std::string *pOut);

}  // namespace orx
