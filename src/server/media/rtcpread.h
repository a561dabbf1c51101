// Reading RTCP from peers (RFC 3550, section 6): never outside the bytes given, whatever their lengths and
// counts say. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orx {

enum : unsigned { RTCP_SR = 200, RTCP_RR = 201, RTCP_SDES = 202, RTCP_BYE = 203, RTCP_APP = 204 };

constexpr size_t kSenderBytes = 24;  // of a sender report's body before its blocks, the SSRC included

// One packet of a compound.
struct RtcpPart {
    unsigned nType = 0;
    unsigned nCount = 0;             // of its blocks or chunks, as it says
    const uint8_t *pBody = nullptr;  // behind the common word; not owned
    size_t nBytes = 0;               // of the body
    const uint8_t *pWhole = nullptr;
    size_t nWhole = 0;
};

// The packet at *pnAt, which is set behind it. 0 at the end and where what is there is none.
int RtcpNextPart(const uint8_t *pData, size_t nBytes, size_t *pnAt, RtcpPart *pPart);

struct SenderReport {
    uint32_t nSsrc = 0;
    uint32_t nNtpSec = 0;
    uint32_t nNtpFrac = 0;
    uint32_t nRtpTime = 0;
};

inline uint64_t NtpOf(const SenderReport *pReport)
{
    return uint64_t{pReport->nNtpSec} << 32 | pReport->nNtpFrac;
}

// The first sender report of a compound. 1, or 0 when there is none.
int RtcpReadSender(const uint8_t *pData, size_t nBytes, SenderReport *pReport);

// What a compound tells of the first source that it has a block of, in a receiver's or a sender's report.
struct ReceiverReport {
    uint8_t nFraction = 0;  // lost since the report before, in 256ths
    uint32_t nJitter = 0;   // of its stamps
    uint32_t nLsr = 0;      // middle of the NTP time of the last sender report; 0: there was none
    uint32_t nDlsr = 0;     // since then, in 65536ths of a second
};
int RtcpReadReceiver(const uint8_t *pData, size_t nBytes, ReceiverReport *pReport);

// Copies what receivers of a source need: its sender report, without blocks on what it receives itself, and
// its description when there is room. Returns the bytes written, 0 without a sender report. nRoom is 28 at
// least.
size_t RtcpCopySender(const uint8_t *pData, size_t nBytes, uint8_t *pOut, size_t nRoom);

}  // namespace orx
