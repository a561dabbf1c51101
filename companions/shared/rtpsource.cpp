#include "shared/rtpsource.h"

#include <algorithm>

#include "base/bytes.h"
#include "client/rtppacket.h"

namespace orx {

constexpr int kMostGap = 3000;  // packets; a longer one, or one back past kMostBack, is a new start
constexpr int kMostBack = 100;

static void Restart(RtpSource *pSource, const RtpHead *pHead)
{
    *pSource = RtpSource();
    pSource->bSeen = 1;
    pSource->nSsrc = pHead->nSsrc;
    // as if a cycle had passed, so that one late packet from before the first does not go below 0
    pSource->nFirst = pSource->nHighest = 0x10000U | pHead->nSequence;
}

static void TakeJitter(RtpSource *pSource, uint32_t nTimestamp, int nClockRate, uint64_t nNowMs)
{
    uint32_t nArrival = static_cast<uint32_t>(nNowMs * static_cast<uint64_t>(nClockRate) / 1000);
    uint32_t nTransit = nArrival - nTimestamp;
    auto nStep = static_cast<int32_t>(nTransit - pSource->nTransit);
    if (pSource->nReceived > 1) {
        uint32_t nSize = nStep < 0 ? 0U - static_cast<uint32_t>(nStep) : static_cast<uint32_t>(nStep);
        pSource->nJitter16 += nSize - ((pSource->nJitter16 + 8) >> 4);
    }
    pSource->nTransit = nTransit;
}

void RtpSourceTake(RtpSource *pSource, const uint8_t *pData, size_t nBytes, int nClockRate, uint64_t nNowMs)
{
    RtpHead head;
    if (!RtpParseHead(pData, nBytes, &head))
        return;
    int nStep = static_cast<int16_t>(head.nSequence - pSource->nHighest);
    if (!pSource->bSeen || head.nSsrc != pSource->nSsrc || nStep > kMostGap || nStep < -kMostBack)
        Restart(pSource, &head);
    else if (nStep > 0)
        pSource->nHighest += static_cast<uint32_t>(nStep);
    pSource->nReceived++;
    if (nClockRate > 0)
        TakeJitter(pSource, head.nTimestamp, nClockRate, nNowMs);
}

void RtpSourceTakeRtcp(RtpSource *pSource, const uint8_t *pData, size_t nBytes, uint64_t nNowMs)
{
    constexpr uint32_t kSenderReport = 200;
    ByteReader in{pData, nBytes};
    uint32_t nVersion = ReadBe(&in, 1) >> 6, nType = ReadBe(&in, 1);
    ReadBe(&in, 2);
    uint32_t nSsrc = ReadBe(&in, 4), nSeconds = ReadBe(&in, 4), nFraction = ReadBe(&in, 4);
    if (in.bFailed || nVersion != 2 || nType != kSenderReport || !pSource->bSeen || nSsrc != pSource->nSsrc)
        return;
    pSource->nReportStamp = nSeconds << 16 | nFraction >> 16;
    pSource->nReportMs = nNowMs;
}

static void Add(std::string *pOut, size_t nBytes, uint32_t nValue)
{
    char bytes[4];
    PutBe(bytes, nBytes, nValue);
    pOut->append(bytes, nBytes);
}

// The lost since the last report as a fraction of 256, and all that were, in 24 bits with a sign.
static uint32_t Losses(RtpSource *pSource)
{
    uint32_t nExpected = pSource->nHighest - pSource->nFirst + 1;
    auto nLost = static_cast<int32_t>(nExpected - pSource->nReceived);
    auto nExpectedNow = static_cast<int32_t>(nExpected - pSource->nToldExpected);
    int32_t nLostNow = nExpectedNow - static_cast<int32_t>(pSource->nReceived - pSource->nToldReceived);
    pSource->nToldExpected = nExpected;
    pSource->nToldReceived = pSource->nReceived;
    int64_t nFraction = nExpectedNow <= 0 || nLostNow <= 0 ? 0 : int64_t{nLostNow} * 256 / nExpectedNow;
    return static_cast<uint32_t>(std::min<int64_t>(nFraction, 255)) << 24 |
           (static_cast<uint32_t>(std::clamp(nLost, -0x800000, 0x7FFFFF)) & 0xFFFFFF);
}

static void AddBlock(std::string *pOut, RtpSource *pSource, uint64_t nNowMs)
{
    Add(pOut, 4, pSource->nSsrc);
    Add(pOut, 4, Losses(pSource));
    Add(pOut, 4, pSource->nHighest - 0x10000U);
    Add(pOut, 4, pSource->nJitter16 >> 4);
    Add(pOut, 4, pSource->nReportStamp);
    uint64_t nDelay = (nNowMs - pSource->nReportMs) * 65536 / 1000;
    Add(pOut, 4, pSource->nReportStamp ? static_cast<uint32_t>(nDelay) : 0);
}

std::string RtpSourceReport(RtpSource *pSource, uint32_t nOwnSsrc, const std::string &name, uint64_t nNowMs)
{
    std::string out;
    uint32_t nBlocks = pSource->bSeen ? 1 : 0;
    Add(&out, 2, 0x80C9 | nBlocks << 8);
    Add(&out, 2, 1 + 6 * nBlocks);
    Add(&out, 4, nOwnSsrc);
    if (nBlocks)
        AddBlock(&out, pSource, nNowMs);
    size_t nItem = 4 + 2 + std::min<size_t>(name.size(), 255);  // the source, CNAME and its length
    size_t nWords = nItem / 4 + 1;                              // at least one zero ends the items
    Add(&out, 2, 0x81CA);
    Add(&out, 2, static_cast<uint32_t>(nWords));
    Add(&out, 4, nOwnSsrc);
    Add(&out, 1, 1);
    Add(&out, 1, static_cast<uint32_t>(nItem - 6));
    out.append(name, 0, nItem - 6);
    out.append(nWords * 4 - nItem, '\0');
    return out;
}

}  // namespace orx
