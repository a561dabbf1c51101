// What a recording holds, as far as the layout of its clip depends on it: every picture and every block of
// sound with its size and time. One thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "orxweb/clipbox.h"
#include "orxweb/clipsource.h"
#include "orxzmf/soundpiece.h"
#include "orxzmf/timeline.h"

namespace orx {

constexpr size_t kClipMostItems =
    6000000;  // two and a half days at 25 pictures a second, and a bound on memory
constexpr uint32_t kClipMostUnit = 0xFFFF;  // of AAC; none is longer

enum ClipItemKind : uint8_t {
    CLIP_LEFT_OUT,  // damaged, or of no use
    CLIP_PICTURE,
    CLIP_KEY,  // a picture that playing may begin with
    CLIP_SOUND,
};

struct ClipSetBytes {
    uint32_t nItem = 0;
    uint32_t nBytes = 0;
};

// An item is a record of video or sound. Other records lie between them.
struct ClipSurvey {
    ClipDescription description;
    ClipTracks tracks;  // free with ClipSurveyFree
    SoundForm sound;    // without codec when there is none that can be used
    Timeline timeline;  // ms, by item
    std::vector<ClipItemKind> kinds;
    std::vector<uint32_t> sizes;  // of pictures in the .mp4; of blocks in bytes, of AAC in units
    std::vector<uint32_t>
        spans;  // from the record of the item before; of the first one from the first record
    std::vector<ClipSetBytes> sets;  // what of the sizes are parameter sets
    std::vector<uint16_t> units;     // sizes of AAC, in order
    uint64_t nEnd = 0;               // behind the last item's record
    // By picture, ms from the start: when it is shown; when it is decoded, which rises.
    std::vector<uint32_t> shown;
    std::vector<uint32_t> decoded;
};

// Reads the recording. Returns 1; 0 when it is none, or holds nothing that can be shown or heard, or *pbStop
// was set.
int ClipSurveyRead(ClipSurvey *pSurvey, int fd, uint64_t nFileBytes, const std::atomic<int> *pbStop);
void ClipSurveyFree(ClipSurvey *pSurvey);

// The next unit of a block of AAC; null at the end and when it is broken.
const uint8_t *ClipNextUnit(ByteReader *pBlock, uint32_t *pnBytes);

}  // namespace orx
