// What of a camera's description goes to Orx: which tracks, and the description that it is announced with.
// Any thread.
#pragma once

#include <string>
#include <vector>

#include "record/codec.h"
#include "shared/rtspplay.h"

namespace orx {

struct AnnouncedTrack {
    int nSource = 0;                // index into the camera's tracks
    int nRate = 0;                  // Hz
    const Codec *pVideo = nullptr;  // null for sound
};

struct Announcement {
    std::string sdp;  // made of tracks and program alone: where it is the same, a push can go on
    std::vector<AnnouncedTrack> tracks;
};

struct AnnounceRules {
    int bAudio = 1;
    int bAnyRate = 1;  // Orx takes clock rates that are no multiples of 1000 Hz
};

// Chooses the first picture track and the first sound track that Orx knows (bWanted); all else stays out.
// Returns how many.
int ChooseTracks(PlayDescription *pDescription, const AnnounceRules *pRules);

// The announcement of the tracks that are wanted. program: the path without its first slash.
Announcement MakeAnnouncement(const PlayDescription *pDescription, const std::string &program);

// The codec of a picture or sound track; null for one that is not known.
const Codec *TrackCodec(const PlayTrack *pTrack);

// The size of the pictures by the parameter sets of a track's format line. Returns 1 or 0.
int FormatPictureSize(const PlayTrack *pTrack, uint32_t *pnWidth, uint32_t *pnHeight);

}  // namespace orx
