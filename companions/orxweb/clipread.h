// Bytes of an .mp4 by its layout, made from the recording. One thread at a time.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "orxweb/clipfile.h"

namespace orx {

struct ClipReader {
    int fd = -1;                          // of the recording, not owned
    const ClipLayout *pLayout = nullptr;  // not owned
    size_t nPiece = SIZE_MAX;             // the one that is held
    std::string bytes;                    // of it
};

// See ClipRead.
ssize_t ClipReaderRead(ClipReader *pReader, uint64_t nOffset, char *pOut, size_t nSize);

}  // namespace orx
