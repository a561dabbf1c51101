// Works out the layout of a clip from its recording. One thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "orxweb/clipfile.h"

namespace orx {

struct ClipLayoutJob {
    int fd = -1;        // of the recording, not owned
    ClipOrigin origin;  // of which so many bytes are used
    std::string tag;
    std::string path;                          // of the cache file that is made
    const std::atomic<int> *pbStop = nullptr;  // ends the work
    void (*pfnMeanwhile)() = nullptr;          // called again and again by work that takes long
};

enum class ClipMade {
    Done,
    Nothing,    // it is no recording, or holds nothing that an .mp4 can
    Unwritten,  // the cache file cannot be
};
ClipMade ClipLayoutMake(const ClipLayoutJob *pJob);

}  // namespace orx
