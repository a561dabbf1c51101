#include "server/media/mediatime.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "base/assertion.h"
#include "base/console.h"
#include "base/datablock.h"
#include "base/eventlog.h"
#include "runtime/clock.h"
#include "server/core/settings.h"

namespace orx {

constexpr int32_t kAheadMs = 10000;  // by which stamps may run ahead of the time that goes by between packets
constexpr int32_t kBackMs = 1000;    // and go back, as they do where pictures are shown in another order
// The tracks of a camera whose clock is set jump one after the other within this, and often by the same.
constexpr uint32_t kOneJumpMs = 5000;
constexpr int32_t kSameJumpMs = 1000;

// Reports that put a track further away than this from where its packets come in are on a clock of its own.
constexpr int32_t kAgreeMs = 8000;
constexpr int32_t kSteadyMs = 500;  // between two reports of a track both clocks go on alike
constexpr int32_t kJitterMs = 20;   // of reports that are made when they are sent
constexpr int32_t kLargeMs = 1000;  // an error that is not to stay for long
constexpr int32_t kGentle = 8;      // of the time gone by, the part that is corrected
constexpr int32_t kHasty = 2;

// Whether a jump of the stamps does not show in the times: where nothing is to be lost, and of standard
// pushers, whose players and recordings go on.
static int KeepsLine(const Program *pProg)
{
    return g_settings.bNeverLose || pProg->standards.bPushers;
}

// How far the clock has gone on since the last packet. Half a turn of it and more is told by the time that
// went by, on a line that is kept.
static int64_t ClockStep(const MediaClock *pClock, uint32_t nTimeScale, uint32_t nRtpTime)
{
    uint32_t nStep = nRtpTime - pClock->nLastRtpTime;
    if (!pClock->bKept)
        return static_cast<int32_t>(nStep);
    int64_t nDue = int64_t{ClockMs() - pClock->nArrivedMs} * nTimeScale / 1000;
    return nDue + static_cast<int32_t>(nStep - static_cast<uint32_t>(nDue));
}

// The RTP clock extended to 64 bits, so that its wrap after some hours does not show. One that a peer makes
// run away is brought back by 2^29 seconds, which are 125 turns of the 32-bit clock of milliseconds.
static int64_t ExtendTime(MediaClock *pClock, uint32_t nTimeScale, uint32_t nRtpTime)
{
    int64_t nFar = int64_t{nTimeScale} << 29;
    pClock->nExtTime =
        pClock->bTimeKnown ? pClock->nExtTime + ClockStep(pClock, nTimeScale, nRtpTime) : int64_t{nRtpTime};
    if (pClock->nExtTime >= nFar || pClock->nExtTime <= -nFar)
        pClock->nExtTime %= nFar;
    pClock->nLastRtpTime = nRtpTime;
    pClock->bTimeKnown = 1;
    return pClock->nExtTime;
}

static uint32_t ScaleMs(int64_t nTime, uint32_t nTimeScale)
{
    return static_cast<uint32_t>(nTime / nTimeScale * 1000 + nTime % nTimeScale * 1000 / nTimeScale);
}

// --- The pusher's wall clock ---

// The ms of an RTP time behind another one; negative before it.
static int32_t RtpDistance(const MediaInfo *pInfo, uint32_t nRtpTime, uint32_t nFrom)
{
    int64_t nTicks = static_cast<int32_t>(nRtpTime - nFrom);
    return static_cast<int32_t>(nTicks * 1000 / pInfo->nTimeScale);
}

static int Agrees(int32_t nError)
{
    return nError <= kAgreeMs && nError >= -kAgreeMs;
}

// The line's place on the pusher's wall clock is where this track has it.
static void AnchorLine(MediaLine *pLine, unsigned nTrack, uint32_t nOffset)
{
    pLine->bNtpKnown = 1;
    pLine->nNtpTrack = nTrack;
    pLine->nNtpOffset = nOffset;
}

// The time of a track's first packet: that of its arrival, unless reports tell already.
static uint32_t FirstTime(Program *pProg, unsigned nTrack, uint32_t nRtpTime)
{
    const MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    const ReportClock *pReport = &pInfo->clock.report;
    MediaLine *pLine = &pProg->line;
    uint32_t nNow = ClockMs();
    if (!pReport->bKnown)
        return nNow;
    auto nAfter = static_cast<uint32_t>(RtpDistance(pInfo, nRtpTime, pReport->nRtpTime));
    uint32_t nNtpMs = pReport->nNtpMs + nAfter;
    if (!pLine->bNtpKnown)
        AnchorLine(pLine, nTrack, nNow - nNtpMs);
    uint32_t nTold = nNtpMs + pLine->nNtpOffset;
    return Agrees(ClockDiff(nTold, nNow)) ? nTold : nNow;
}

// What of the error is corrected now, with a stamp that lies nStep ms behind the one before it. Only what is
// large and ahead goes at once; of all else a part of the time that goes by, so that times rise on.
static int32_t CorrectTime(ReportClock *pReport, int32_t nStep)
{
    if (pReport->nErrorMs > kLargeMs)
        return std::exchange(pReport->nErrorMs, 0);
    int32_t nPart = std::abs(pReport->nErrorMs) > kLargeMs ? kHasty : kGentle;
    nStep = std::clamp(nStep, 0, kAheadMs);
    pReport->nGoneMs += nStep;
    int32_t nMost = std::clamp(pReport->nGoneMs / nPart, 0, std::max(nStep - 1, 0));
    pReport->nGoneMs %= nPart;
    int32_t nMove = std::clamp(pReport->nErrorMs, -nMost, nMost);
    pReport->nErrorMs -= nMove;
    return nMove;
}

// Standard encoders start every track's clock at a random value (RFC 3550, section 5.1), and have rates such
// as 44100. What they send is put on one time line: a track's first packet has the time of its arrival, until
// the pusher's reports tell better.
static uint32_t AlignedTime(Program *pProg, unsigned nTrack, uint32_t nRtpTime)
{
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    MediaClock *pClock = &pInfo->clock;
    int bFirst = !pClock->bTimeKnown;
    int64_t nBefore = pClock->nExtTime;
    int64_t nTime = ExtendTime(pClock, pInfo->nTimeScale, nRtpTime);
    uint32_t nMs = ScaleMs(nTime, pInfo->nTimeScale);
    if (bFirst) {
        pClock->nTimeShift = FirstTime(pProg, nTrack, nRtpTime) - nMs;
    } else if (pClock->report.nErrorMs != 0 && nTime != nBefore) {  // all packets of a picture have one time
        int32_t nStep = ClockDiff(nMs, ScaleMs(nBefore, pInfo->nTimeScale));
        pClock->nTimeShift += static_cast<uint32_t>(CorrectTime(&pClock->report, nStep));
    }
    return nMs + pClock->nTimeShift;
}

// The place on the line of a stamp near the last one.
static uint32_t TimeOfStamp(const MediaInfo *pInfo, uint32_t nRtpTime)
{
    const MediaClock *pClock = &pInfo->clock;
    int64_t nTime = pClock->nExtTime + static_cast<int32_t>(nRtpTime - pClock->nLastRtpTime);
    return ScaleMs(nTime, pInfo->nTimeScale) + pClock->nTimeShift;
}

// Takes the report in. Returns whether both of its clocks have gone on alike since the one before; where
// there is none, they have.
static int TakeReport(const MediaInfo *pInfo, ReportClock *pClock, const SenderReport *pReport,
                      uint32_t nNtpMs)
{
    auto nRtpMs = static_cast<uint32_t>(RtpDistance(pInfo, pReport->nRtpTime, pClock->nRtpTime));
    int32_t nOff = ClockDiff(nNtpMs - pClock->nNtpMs, nRtpMs);
    int bSteady = !pClock->bKnown || (nOff <= kSteadyMs && nOff >= -kSteadyMs);
    pClock->bKnown = 1;
    pClock->nRtpTime = pReport->nRtpTime;
    pClock->nNtpMs = nNtpMs;
    return bSteady;
}

// How far the track has to go, by a report that puts one of its stamps at nTime of the line, nNtpMs of the
// pusher's clock.
static int32_t ErrorOf(MediaLine *pLine, ReportClock *pClock, unsigned nTrack, uint32_t nTime,
                       uint32_t nNtpMs)
{
    int32_t nError = ClockDiff(nNtpMs + pLine->nNtpOffset, nTime);
    if (Agrees(nError)) {
        pClock->bOwn = 0;
    } else if (pLine->nNtpTrack == nTrack) {
        AnchorLine(pLine, nTrack, nTime - nNtpMs);
        nError = 0;
    } else {
        nError = ClockDiff(nNtpMs + pClock->nOwnOffset, nTime);
        if (!pClock->bOwn || !Agrees(nError)) {
            pClock->nOwnOffset = nTime - nNtpMs;
            nError = 0;
        }
        pClock->bOwn = 1;
    }
    return std::abs(nError) < kJitterMs ? nError / 4 : nError;
}

// The pusher's wall clock was set, as the track shows that the line was anchored by: the line goes on, and so
// do the others, which show it before or after.
static void ClockWasSet(Program *pProg, unsigned nTrack, uint32_t nTime, uint32_t nNtpMs)
{
    if (pProg->line.nNtpTrack == nTrack)
        AnchorLine(&pProg->line, nTrack, nTime - nNtpMs);
    else
        pProg->desc.mediaInfos[nTrack].clock.report.bWaits = 1;
}

void TimeNoteReport(Program *pProg, unsigned nTrack, const SenderReport *pReport)
{
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    ReportClock *pClock = &pInfo->clock.report;
    MediaLine *pLine = &pProg->line;
    if (!pProg->standards.bPushers || pInfo->nTimeScale == 0 ||
        (pReport->nNtpSec == 0 && pReport->nNtpFrac == 0))
        return;
    uint32_t nNtpMs =
        pReport->nNtpSec * 1000 + static_cast<uint32_t>(pReport->nNtpFrac * uint64_t{1000} >> 32);
    int bSteady = TakeReport(pInfo, pClock, pReport, nNtpMs);
    if (!pInfo->clock.bTimeKnown)
        return;
    uint32_t nTime = TimeOfStamp(pInfo, pReport->nRtpTime);
    if (!pLine->bNtpKnown)
        AnchorLine(pLine, nTrack, nTime - nNtpMs);
    pClock->nErrorMs = 0;
    if (!bSteady)
        ClockWasSet(pProg, nTrack, nTime, nNtpMs);
    if (pLine->nNtpTrack == nTrack)
        for (MediaInfo &info : pProg->desc.mediaInfos)
            info.clock.report.bWaits = 0;
    if (bSteady && !pClock->bWaits)
        pClock->nErrorMs = ErrorOf(pLine, pClock, nTrack, nTime, nNtpMs);
}

// --- The time of a packet ---

// The packet's media time in milliseconds. Returns 1, or 0 when the track's clock rate cannot be scaled.
static int MediaTime(Program *pProg, unsigned nTrack, uint32_t nRtpTime, uint32_t *pMs)
{
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    if (pProg->standards.bPushers) {
        *pMs = AlignedTime(pProg, nTrack, nRtpTime);
        return 1;
    }
    int64_t nTime = ExtendTime(&pInfo->clock, pInfo->nTimeScale, nRtpTime);
    if (pInfo->nTimeScale != 1000) {
        if (!ORX_PEER_ASSERT(pInfo->nTimeScale >= 1000 && (pInfo->nTimeScale % 1000) == 0,
                             "(pProg->mediaInfos[nTrackId].nTimeScale % 1000) == 0"))
            return 0;
        nTime /= pInfo->nTimeScale / 1000;
    }
    *pMs = static_cast<uint32_t>(nTime) + pInfo->clock.nTimeShift;
    return 1;
}

// The time that goes on from a packet's (of nMs, which came at nArrivedMs) until now.
static uint32_t TimeNow(uint32_t nMs, uint32_t nArrivedMs)
{
    return nMs + ClockMs() - nArrivedMs;
}

// A track's first packet. Returns what is to be added, so that it lies near what the others send.
static uint32_t JoinLine(const MediaLine *pLine, uint32_t nMs)
{
    uint32_t nDue = pLine->bKnown ? TimeNow(pLine->nMs, pLine->nArrivedMs) : nMs;
    int32_t nOff = ClockDiff(nMs, nDue);
    return nOff > kAheadMs || nOff < -kAheadMs ? nDue - nMs : 0;
}

// A jump of a track by nJump ms. Where another's was the same shortly before, sets it to that, so that they
// stay together. Returns the block's flags.
static uint32_t NoteJump(Program *pProg, unsigned nTrack, uint32_t *pnJump)
{
    MediaLine *pLine = &pProg->line;
    int32_t nOff = ClockDiff(*pnJump, pLine->nJump);
    if (pLine->bJumped && pLine->nJumpTrack != nTrack && ClockMs() - pLine->nJumpedMs < kOneJumpMs) {
        if (nOff < kSameJumpMs && nOff > -kSameJumpMs)
            *pnJump = pLine->nJump;
        return DB_JUMP;
    }
    if (pProg->standards.bPushers && (!pLine->bJumped || ClockMs() - pLine->nJumpedMs >= kOneJumpMs))
        print("Program(%s): the clock of its track %u jumped by %d ms.\r\n", pProg->szName, nTrack,
              ClockDiff(0, *pnJump));
    EventSay(EventLevel::Warn, "pusher.jump",
             {EventText("program", pProg->Uri), EventNumber("track", nTrack),
              EventNumber("jump_ms", ClockDiff(0, *pnJump))});
    pLine->bJumped = 1;
    pLine->nJumpTrack = nTrack;
    pLine->nJumpedMs = ClockMs();
    pLine->nJump = *pnJump;
    return DB_JUMP | DB_SPLIT;
}

// Keeps a track on one time line: where its stamps jump, that goes on with the time of arrival. A peer that
// was held up and then sends what it has does not jump, as its stamps say. Returns DB_JUMP and DB_SPLIT as
// they are due.
static uint32_t FollowLine(Program *pProg, unsigned nTrack, int bFirst, uint32_t *pMs)
{
    MediaClock *pClock = &pProg->desc.mediaInfos[nTrack].clock;
    MediaLine *pLine = &pProg->line;
    uint32_t nFlags = 0;
    uint32_t nJump = 0;
    if (bFirst) {
        nJump = JoinLine(pLine, *pMs);
    } else if (ClockDiff(*pMs, TimeNow(pClock->nMs, pClock->nArrivedMs)) > kAheadMs ||
               ClockDiff(*pMs, pClock->nMs) < -kBackMs) {
        uint32_t nDue = TimeNow(pClock->nMs, pClock->nArrivedMs) + 1;  // behind one that came with it
        nJump = nDue - *pMs;
        int bAside = static_cast<int>(nTrack) == pProg->desc.nDataTrack ||
                     pProg->desc.mediaInfos[nTrack].nMediaType == MEDIA_CARRIED;
        nFlags = bAside ? DB_JUMP : NoteJump(pProg, nTrack, &nJump);
    }
    if (nFlags)
        pClock->report = ReportClock();  // what was told of the stamps before the jump holds no more
    pClock->nTimeShift += nJump;
    *pMs += nJump;
    pClock->nMs = pLine->nMs = *pMs;
    pClock->nArrivedMs = pLine->nArrivedMs = ClockMs();
    pLine->bKnown = 1;
    return nFlags;
}

int PacketTime(Program *pProg, unsigned nTrack, uint32_t nRtpTime, uint32_t *pMs, uint32_t *pnFlags)
{
    MediaClock *pClock = &pProg->desc.mediaInfos[nTrack].clock;
    int bFirst = !pClock->bTimeKnown;
    if (bFirst)
        pClock->bKept = KeepsLine(pProg);
    if (!MediaTime(pProg, nTrack, nRtpTime, pMs))
        return 0;
    *pnFlags = pClock->bKept ? FollowLine(pProg, nTrack, bFirst, pMs) : 0;
    return 1;
}

}  // namespace orx
