// The "Transport" and "Session" headers of a server's reply (RFC 2326, sections 12.37 and 12.39). Any thread.
#pragma once

#include <string>

namespace orx {

struct RtspTransportReply {
    int nRtpChannel = -1, nRtcpChannel = -1;  // "interleaved="; -1: not told
    int nRtpPort = 0, nRtcpPort = 0;          // "server_port="; 0: not told
};
void RtspReadTransport(const char *szValue, RtspTransportReply *pOut);

// The session's name, and its timeout in seconds where it is told; *pnTimeoutS stays otherwise.
std::string RtspReadSession(const char *szValue, int *pnTimeoutS);

// Whether a list such as that of "Public" holds a word.
int RtspListHas(const char *szValue, const char *szWord);

}  // namespace orx
