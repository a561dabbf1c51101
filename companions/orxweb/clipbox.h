// The boxes of a fragmented .mp4 (ISO 14496-12): its head, the index over its fragments, and the head of one
// fragment. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orxweb/clipconfig.h"

namespace orx {

constexpr uint32_t kClipVideoRate = 1000;  // ticks a second of the video track
constexpr uint32_t kClipVideoTrack = 1;
constexpr uint32_t kClipAudioTrack = 2;
constexpr size_t kClipMostIndexed = 65535;  // entries of the index
constexpr uint32_t kClipDataHead = 8;       // before the media of a fragment

struct ClipTracks {
    ClipVideo video;
    ClipAudio audio;
};

// File type and movie box, for a movie of so many ms; 0: nobody knows how many.
std::string ClipHead(const ClipTracks *pTracks, uint64_t nDurationMs);

struct ClipIndexEntry {
    uint64_t nBytes = 0;
    uint64_t nVideoFrom = 0;  // ticks of the tracks
    uint64_t nAudioFrom = 0;
    int bKey = 0;  // playing may begin there
};
// The index, which stands before the first fragment: a box for each track, without which players search for
// its place from the front. At most kClipMostIndexed entries, and behind them one that tells where they end.
std::string ClipIndex(const ClipTracks *pTracks, const std::vector<ClipIndexEntry> &entries);

struct ClipSample {
    uint32_t nTicks = 0;
    uint32_t nBytes = 0;
    uint32_t nLater = 0;  // shown so much after it is decoded
    int bKey = 0;
};
struct ClipRun {
    uint64_t nFrom = 0;  // ticks of the first sample
    std::vector<ClipSample> samples;
};
// Media that follow each other in a fragment: sound, which is small, and then pictures.
struct ClipPart {
    ClipRun video;
    ClipRun audio;
};
// The head of a fragment, up to its media. In each track a part goes on where the one before ends. nNumber: 1
// for the first.
std::string ClipFragmentHead(uint32_t nNumber, const ClipTracks *pTracks, const std::vector<ClipPart> &parts);

}  // namespace orx
