// What was received of one source of RTP, and the receiver reports about it (RFC 3550, sections 6.4.2 and
// A.3). One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orx {

struct RtpSource {
    int bSeen = 0;
    uint32_t nSsrc = 0;
    uint32_t nFirst = 0, nHighest = 0;  // sequence numbers, with the cycles in the upper half
    uint32_t nReceived = 0;
    uint32_t nToldExpected = 0, nToldReceived = 0;  // as of the last report
    uint32_t nTransit = 0, nJitter16 = 0;           // on the clock of the media; the jitter times 16
    uint32_t nReportStamp = 0;                      // the middle of the last sender report's time; 0: none
    uint64_t nReportMs = 0;                         // when that came
};

// A packet of RTP that came at nNowMs. nClockRate in Hz; 0: not known, the jitter stays 0.
void RtpSourceTake(RtpSource *pSource, const uint8_t *pData, size_t nBytes, int nClockRate, uint64_t nNowMs);
// A packet of RTCP.
void RtpSourceTakeRtcp(RtpSource *pSource, const uint8_t *pData, size_t nBytes, uint64_t nNowMs);
// A receiver report about what came until now, and a description with the given name. Without a block while
// nothing has come.
std::string RtpSourceReport(RtpSource *pSource, uint32_t nOwnSsrc, const std::string &name, uint64_t nNowMs);

}  // namespace orx
