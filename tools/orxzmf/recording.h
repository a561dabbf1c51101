// One recording as the tool sees it: opened, its samples read one by one, progress on standard error.
#pragma once

#include <cstdint>
#include <string>

#include "record/sdpscan.h"
#include "record/zmfreader.h"

namespace orx {

struct Sample {
    ZMFRecordHead head;
    uint64_t nPos = 0;               // of the record in the file
    const uint8_t *pData = nullptr;  // without the record's head; valid until the next one is read
    uint32_t nBytes = 0;
};

// Long work shows how far it is, on standard error and a line that it writes over.
struct Progress {
    int64_t nNext = 0;  // monotonic ms at which it is shown next, 0 before the first time
    int bShown = 0;
};
void ProgressShow(Progress *pProgress, const char *szWork, const std::string &path, uint64_t nDone,
                  uint64_t nTotal);
void ProgressEnd(Progress *pProgress, const char *szWork, const std::string &path);

struct Recording {
    std::string path;
    ZMFReader *pReader = nullptr;
    SdpCodecs codecs;
    uint64_t nPos = 0;  // of the next record
    int nEnd = 0;       // after the last sample: 0 the file ends with it, -1 something follows
    Progress progress;
};

// Opens a recording and readies it for its first sample. Returns 1, or 0 with the reason on standard error.
int RecordingOpen(Recording *pRecording, const std::string &path);
void RecordingClose(Recording *pRecording);

// Returns 1 with the next sample, or 0 at the end. Long work shows how far it is, with szWork in front.
int RecordingNext(Recording *pRecording, Sample *pOut, const char *szWork);
// Back to the first sample.
int RecordingRewind(Recording *pRecording);

// How the samples of a medium are made up.
inline SampleForm FormOf(const SdpCodec &codec)
{
    return codec.pCodec ? codec.pCodec->nForm : FORM_NONE;
}

inline int IsKeyFrame(const ZMFRecordHead &head)
{
    return head.chMedia == 'v' && (head.nFlags & ZMF_KEY);
}

}  // namespace orx
