// What arrives on an RTSP connection, taken apart: replies, requests of the server, interleaved frames (RFC
// 2326, sections 6, 7 and 10.12). Any thread.
// Written apart from the server's own, which it helps to test (see rtspclient.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orx {

enum RtspKind {
    RTSP_REPLY,    // "RTSP/1.0 200 OK" or "HTTP/1.1 200 OK"
    RTSP_REQUEST,  // "SLEEP RTSP/1.0", "OPTIONS rtsp://host/x RTSP/1.0"
    RTSP_FRAME,    // '$', channel, 16-bit length, packet
    RTSP_OTHER,    // a text whose first line is neither
};

struct RtspHeader {
    std::string name, value;
};

struct RtspMessage {
    RtspKind kind = RTSP_OTHER;
    std::string raw;          // all of it, byte for byte as it arrived, the body included
    int nStatus = 0;          // replies: the code
    std::string reason;       // replies: what stands behind the code, blanks and all
    std::string method, uri;  // requests; the URI is empty when the server sends none
    std::vector<RtspHeader> headers;
    std::string body;         // of a text; or the packet of a frame
    int nChannel = -1;        // frames: even RTP, odd RTCP
    uint64_t nArrivalUs = 0;  // monotonic clock when it had arrived whole
};

// The value of a header, its name compared without regard to case; null when there is none.
const char *RtspFindHeader(const RtspMessage *pMessage, const char *szName);
// How many headers have that name.
int RtspCountHeaders(const RtspMessage *pMessage, const char *szName);
// The number in a header, or nDefault when there is none.
int64_t RtspHeaderNumber(const RtspMessage *pMessage, const char *szName, int64_t nDefault);

// Takes the first message out of what was received. Returns the bytes that it covers, 0 when it is not
// complete yet, -1 when it can never be one (a body length that is no number).
long RtspParse(const char *pData, size_t nBytes, RtspMessage *pOut);

}  // namespace orx
