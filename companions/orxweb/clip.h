// A recording as an .mp4 that is never written whole: its layout is worked out once, in the background, and
// kept in the cache directory; bytes are then made from the recording as they are asked for, the same at
// every request. One fragment a key frame, with an index in front (ISO 14496-12, "sidx"); within one, sound
// and pictures take turns. Sound that browsers cannot play is turned to AAC while the layout is made and kept
// beside it. Any thread; one clip by one thread at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace orx {

struct ClipSettings {
    std::string recordPath;             // the recordings
    std::string cachePath;              // layouts; made when it is not there
    uint64_t nMostCached = 256U << 20;  // bytes of layouts; the least recently used go
    int64_t nFreshMs = 10000;           // so old a layout of a recording that goes on may be
};

// Starts the thread that works layouts out. Returns 1, or 0 with the reason on standard error. From then on
// broken files end nothing but their own reading (AssertSurvivePeerFaults).
int ClipsStart(const ClipSettings *pSettings);
void ClipsStop();  // when no clip is open; does nothing when it was not started

enum class ClipState {
    Ready,
    Making,  // its layout is being worked out: ask again in a second
    None,    // no such recording
    Broken,  // it cannot be read, or holds nothing that an .mp4 can
};

struct Clip;

// Opens recording szFile of a program (with its first slash or without): "DAY/NAME.zmf", or with the program
// in front, as the status socket names it; one that is being written under its final name as well. *ppClip is
// set when it is ready, and closed with ClipClose. Of a recording that goes on, what there was when its
// layout was made; one that is older than nFreshMs is made anew. szTag, which may be null, asks for the
// bytes of that tag for as long as they are known: who plays a recording that grows goes on with what was
// begun.
ClipState ClipOpen(const char *szProgram, const char *szFile, Clip **ppClip, const char *szTag = nullptr);
void ClipClose(Clip *pClip);  // ignores null

uint64_t ClipSize(const Clip *pClip);
// Names these bytes: the same text, the same bytes (for ETag).
std::string ClipTag(const Clip *pClip);
// The "codecs" parameter (RFC 6381). Browsers do not show "mp4v.6C", which is MJPEG: such a clip is for
// programs that do.
std::string ClipCodecs(const Clip *pClip);
// Up to nSize bytes from nOffset on. Returns how many, 0 at the end, -1 when the recording cannot be read any
// more. About a second is held in memory: some MB.
ssize_t ClipRead(Clip *pClip, uint64_t nOffset, char *pOut, size_t nSize);

}  // namespace orx
