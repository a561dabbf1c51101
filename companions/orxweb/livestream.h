// One live program from its RTP packets to fragmented MP4: each picture and each packet of sound becomes a
// fragment of its own as soon as it is whole, so that nothing waits for the other track. MJPEG, which
// browsers show as pictures, comes as images. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "record/codec.h"
#include "shared/rtspplay.h"

namespace orx {

struct LiveStreamProcs {
    // The initialisation segment, and the "codecs" parameter (RFC 6381). It comes again where the parameter
    // sets of the pictures have changed: what follows belongs to the new one.
    void (*pfnHead)(void *pUser, std::string head, const std::string &codecs);
    void (*pfnFragment)(void *pUser, std::string fragment, int bKey);  // bKey: playing may begin there
    // A picture that can be shown alone: of H.264 and H.265 as a stream with start codes (Annex B), of MJPEG
    // the image.
    void (*pfnPicture)(void *pUser, const Codec *pCodec, std::string picture);
};

struct LiveStream;

// Chooses tracks (bWanted): at most one of pictures and one of sound. Null when none is of use.
LiveStream *LiveStreamOpen(PlayDescription *pDescription, const LiveStreamProcs *pProcs, void *pUser);
void LiveStreamClose(LiveStream *pStream);  // ignores null
int LiveStreamIsJpeg(const LiveStream *pStream);

// A packet of a track of the description that came at nNowMs.
void LiveStreamPacket(LiveStream *pStream, int nTrack, int bRtcp, const uint8_t *pData, size_t nBytes,
                      uint64_t nNowMs);

}  // namespace orx
