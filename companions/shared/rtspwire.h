// What arrives on an RTSP connection, taken apart as it comes: frames (RFC 2326, section 10.12) are handed on
// where they lie, and only what a read has cut in two is copied. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/rtspmessage.h"

namespace orx {

constexpr size_t kMostRtspHead = 16 << 10;
constexpr size_t kMostRtspBody = 64 << 10;

struct RtspWire {
    std::string rest;   // the beginning of what has not come whole
    int bHttpHead = 0;  // the next text is the answer to a tunnel's GET: no body follows, whatever it says
};

struct RtspWireProcs {
    // Each returns 1 to go on, 0 to stop there: then the wire may have gone.
    int (*pfnFrame)(void *pUser, int nChannel, const uint8_t *pData, size_t nBytes);
    int (*pfnText)(void *pUser, const RtspMessage *pMessage);
};

// Takes what was read. Returns 1; 0 when a procedure stopped it; -1 for what can be no RTSP.
int RtspWireFeed(RtspWire *pWire, const uint8_t *pData, size_t nBytes, const RtspWireProcs *pProcs,
                 void *pUser);

}  // namespace orx
