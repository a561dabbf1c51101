#include "orxpull/pushline.h"

#include <algorithm>

#include "base/bytes.h"

namespace orx {

constexpr size_t kRtpHead = 12;
constexpr size_t kReportHead = 8;     // of every packet of a compound, the source included
constexpr size_t kSenderReport = 28;  // up to its blocks
constexpr unsigned kTypeSender = 200, kTypeBye = 203, kFirstType = 192, kLastType = 223;
constexpr uint64_t kMaxGapMs = 24ULL * 3600 * 1000 * 365;

static int IsVersion2(const uint8_t *pPacket)
{
    return pPacket[0] >> 6 == 2;
}

void LineJoin(PushLine *pLine)
{
    for (LineTrack &track : pLine->tracks)
        track.bJoins |= track.bKnown;
    pLine->bClockJoins =
        std::any_of(pLine->tracks.begin(), pLine->tracks.end(), [](auto &track) { return track.bTold != 0; });
}

static uint32_t Ticks(const LineTrack *pTrack, uint64_t nMs)
{
    return static_cast<uint32_t>(std::min(nMs, kMaxGapMs) * static_cast<uint64_t>(pTrack->nRate) / 1000);
}

// The first packet of another source: behind the last one, later by what went by.
static void Join(LineTrack *pTrack, const uint8_t *pPacket, uint64_t nNowMs)
{
    uint64_t nGapMs = std::max<uint64_t>(nNowMs - pTrack->nLastMs, 1);
    uint32_t nStamp = pTrack->nLastStamp + std::max(Ticks(pTrack, nGapMs), uint32_t{1});
    pTrack->nSeqShift = static_cast<uint16_t>(pTrack->nLastSeq + 1 - GetBe(pPacket + 2, 2));
    pTrack->nStampShift = nStamp - GetBe(pPacket + 4, 4);
    pTrack->bJoins = 0;
    pTrack->nGoneSsrc = pTrack->nOwnSsrc;
}

int LineRtp(PushLine *pLine, size_t nTrack, uint8_t *pPacket, size_t nBytes, uint64_t nNowMs)
{
    LineTrack *pTrack = &pLine->tracks[nTrack];
    if (nBytes < kRtpHead || !IsVersion2(pPacket))
        return 0;
    uint32_t nOwnSsrc = GetBe(pPacket + 8, 4);
    if (!pTrack->bKnown)
        pTrack->nSsrc = pTrack->nGoneSsrc = nOwnSsrc;
    else if (pTrack->bJoins || nOwnSsrc != pTrack->nOwnSsrc)  // cameras change their source on the way, too
        Join(pTrack, pPacket, nNowMs);
    pTrack->nOwnSsrc = nOwnSsrc;
    auto nSeq = static_cast<uint16_t>(GetBe(pPacket + 2, 2) + pTrack->nSeqShift);
    uint32_t nStamp = GetBe(pPacket + 4, 4) + pTrack->nStampShift;
    if (!pTrack->bKnown || static_cast<int32_t>(nStamp - pTrack->nLastStamp) > 0) {
        pTrack->nLastStamp = nStamp;
        pTrack->nLastMs = nNowMs;
    }
    pTrack->bKnown = 1;
    pTrack->nLastSeq = nSeq;
    PutBe(pPacket + 2, 2, nSeq);
    PutBe(pPacket + 4, 4, nStamp);
    PutBe(pPacket + 8, 4, pTrack->nSsrc);
    return 1;
}

// --- Reports ---

static uint64_t NtpOfMs(uint64_t nMs)
{
    return (nMs / 1000 << 32) + (nMs % 1000 << 32) / 1000;
}

// The wall clock that was told, at a stamp of the track.
static uint64_t ToldAt(const LineTrack *pTrack, uint32_t nStamp)
{
    int64_t nTicks = static_cast<int32_t>(nStamp - pTrack->nToldStamp);
    int64_t nRate = pTrack->nRate;
    return pTrack->nToldNtp + static_cast<uint64_t>((nTicks / nRate) * (int64_t{1} << 32) +
                                                    (nTicks % nRate) * (int64_t{1} << 32) / nRate);
}

// The first report of another session: the wall clock that players know goes on, by the track's own stamps,
// or where it told nothing by the time since another did.
static void JoinClock(PushLine *pLine, const LineTrack *pTrack, uint32_t nStamp, uint64_t nNtp,
                      uint64_t nNowMs)
{
    const LineTrack *pTold = pTrack->bTold ? pTrack : nullptr;
    for (const LineTrack &track : pLine->tracks)
        if (!pTold && track.bTold)
            pTold = &track;
    pLine->bClockJoins = 0;
    if (!pTold)
        return;
    uint64_t nDue =
        pTold == pTrack ? ToldAt(pTrack, nStamp) : pTold->nToldNtp + NtpOfMs(nNowMs - pTold->nToldMs);
    pLine->nNtpShift = nDue - nNtp;
}

// A sender report, kSenderReport bytes of it at least.
static void TakeReport(PushLine *pLine, LineTrack *pTrack, uint8_t *pReport, uint64_t nNowMs)
{
    uint64_t nNtp = uint64_t{GetBe(pReport + 8, 4)} << 32 | GetBe(pReport + 12, 4);
    uint32_t nStamp = GetBe(pReport + 16, 4) + pTrack->nStampShift;
    PutBe(pReport + 16, 4, nStamp);
    if (nNtp == 0)  // it knows no wall clock
        return;
    if (pLine->bClockJoins)
        JoinClock(pLine, pTrack, nStamp, nNtp, nNowMs);
    nNtp += pLine->nNtpShift;
    PutBe(pReport + 8, 4, static_cast<uint32_t>(nNtp >> 32));
    PutBe(pReport + 12, 4, static_cast<uint32_t>(nNtp));
    pTrack->bTold = 1;
    pTrack->nToldNtp = nNtp;
    pTrack->nToldStamp = nStamp;
    pTrack->nToldMs = nNowMs;
}

// A report that is late. One of any other source is the camera's, too: some name another than in their
// packets.
static int IsGone(const LineTrack *pTrack, uint32_t nSsrc)
{
    return pTrack->bKnown && nSsrc != pTrack->nOwnSsrc && nSsrc == pTrack->nGoneSsrc;
}

size_t LineRtcp(PushLine *pLine, size_t nTrack, uint8_t *pPacket, size_t nBytes, uint64_t nNowMs)
{
    LineTrack *pTrack = &pLine->tracks[nTrack];
    size_t nAt = 0;
    // before the first packet of a session nobody knows where its stamps go
    if (pTrack->bJoins)
        return 0;
    while (nBytes - nAt >= kReportHead && IsVersion2(pPacket + nAt)) {
        uint8_t *pPart = pPacket + nAt;
        size_t nPart = 4 * (size_t{GetBe(pPart + 2, 2)} + 1);
        unsigned nType = pPart[1];
        if (nPart < kReportHead || nPart > nBytes - nAt || nType < kFirstType || nType > kLastType ||
            nType == kTypeBye)
            break;
        if (IsGone(pTrack, GetBe(pPart + 4, 4)))
            break;
        if (nType == kTypeSender && nPart >= kSenderReport)
            TakeReport(pLine, pTrack, pPart, nNowMs);
        if (pTrack->bKnown)
            PutBe(pPart + 4, 4, pTrack->nSsrc);
        nAt += nPart;
    }
    return nAt;
}

}  // namespace orx
