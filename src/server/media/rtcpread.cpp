#include "server/media/rtcpread.h"

#include <algorithm>

#include "base/bytes.h"

namespace orx {

constexpr size_t kHeadBytes = 4;
constexpr unsigned kVersion = 2;

int RtcpNextPart(const uint8_t *pData, size_t nBytes, size_t *pnAt, RtcpPart *pPart)
{
    ByteReader in{pData + *pnAt, nBytes - *pnAt};
    const uint8_t *pWhole = in.p;
    uint32_t nFlags = ReadBe(&in, 1);
    uint32_t nType = ReadBe(&in, 1);
    size_t nBody = size_t{4} * ReadBe(&in, 2);
    const uint8_t *pBody = ReadBytes(&in, nBody);
    if (in.bFailed || nFlags >> 6 != kVersion)
        return 0;
    *pPart = {nType, nFlags & 0x1F, pBody, nBody, pWhole, kHeadBytes + nBody};
    *pnAt += pPart->nWhole;
    return 1;
}

// The first packet of the type that has nLeast bytes of body. 1 or 0.
static int FindPart(const uint8_t *pData, size_t nBytes, unsigned nType, size_t nLeast, RtcpPart *pPart)
{
    for (size_t nAt = 0; RtcpNextPart(pData, nBytes, &nAt, pPart);)
        if (pPart->nType == nType && pPart->nBytes >= nLeast)
            return 1;
    return 0;
}

int RtcpReadSender(const uint8_t *pData, size_t nBytes, SenderReport *pReport)
{
    RtcpPart part;
    if (!FindPart(pData, nBytes, RTCP_SR, kSenderBytes, &part))
        return 0;
    ByteReader in{part.pBody, part.nBytes};
    pReport->nSsrc = ReadBe(&in, 4);
    pReport->nNtpSec = ReadBe(&in, 4);
    pReport->nNtpFrac = ReadBe(&in, 4);
    pReport->nRtpTime = ReadBe(&in, 4);
    return 1;
}

int RtcpReadReceiver(const uint8_t *pData, size_t nBytes, ReceiverReport *pReport)
{
    RtcpPart part;
    for (size_t nAt = 0; RtcpNextPart(pData, nBytes, &nAt, &part);) {
        if ((part.nType != RTCP_SR && part.nType != RTCP_RR) || part.nCount == 0)
            continue;
        ByteReader in{part.pBody, part.nBytes};
        ReadBytes(&in, (part.nType == RTCP_SR ? kSenderBytes : 4) + 4);
        uint32_t nFraction = ReadBe(&in, 1);
        ReadBytes(&in, 7);
        uint32_t nJitter = ReadBe(&in, 4);
        uint32_t nLsr = ReadBe(&in, 4);
        uint32_t nDlsr = ReadBe(&in, 4);
        if (in.bFailed)
            continue;
        *pReport = {static_cast<uint8_t>(nFraction), nJitter, nLsr, nDlsr};
        return 1;
    }
    return 0;
}

size_t RtcpCopySender(const uint8_t *pData, size_t nBytes, uint8_t *pOut, size_t nRoom)
{
    RtcpPart part;
    if (nRoom < kHeadBytes + kSenderBytes || !FindPart(pData, nBytes, RTCP_SR, kSenderBytes, &part))
        return 0;
    size_t n = kHeadBytes + kSenderBytes;
    std::copy_n(part.pWhole, n, pOut);
    if (part.nWhole != n) {
        PutBe(pOut, 1, kVersion << 6);
        PutBe(pOut + 2, 2, kSenderBytes / 4);
    }
    if (FindPart(pData, nBytes, RTCP_SDES, 0, &part) && part.nWhole <= nRoom - n) {
        std::copy_n(part.pWhole, part.nWhole, pOut + n);
        n += part.nWhole;
    }
    return n;
}

}  // namespace orx
