#include "server/media/reports.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cstring>

#include "base/bytes.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/core/settings.h"
#include "server/media/mediatime.h"
#include "server/media/outqueue.h"
#include "server/media/resume.h"
#include "server/media/rewrite.h"
#include "server/media/rtcp.h"
#include "server/media/rtcpread.h"
#include "server/media/send.h"

namespace orx {

constexpr uint32_t kOwnEveryMs = 5000;
constexpr uint32_t kPushedWithinMs = 10000;
constexpr uint32_t kClockSlackMs = 100;

// --- To players ---

// Over UDP at once, interleaved through the queue.
static void TellPlayer(Session *pPlayer, int nTrack, const TrackReport *pReport)
{
    SessionTrack *pTrack = &pPlayer->tracks[nTrack];
    ReportNoteTold(pTrack, pReport->bytes);
    if (!pPlayer->out.bInterleaved) {
        const Port *pPort = pTrack->Control;
        if (pPort)
            sendto(pPort->fd, pReport->bytes, pReport->nBytes, MSG_NOSIGNAL, &pPort->remote.any,
                   AddrSize(&pPort->remote));
        return;
    }
    uint8_t frame[kInterleaveBytes + kMaxReportBytes];
    PutBe(frame, 1, '$');
    PutBe(frame + 1, 1, pTrack->nRtcpChannel);
    PutBe(frame + 2, 2, pReport->nBytes);
    std::copy_n(pReport->bytes, pReport->nBytes, frame + kInterleaveBytes);
    DataBlock *pBlock =
        RepliesPileUp(pPlayer) ? nullptr : MakeDataBlock(frame, kInterleaveBytes + pReport->nBytes, 0, 0, 1);
    if (pBlock)
        QueueAppend(&pPlayer->out.Outq, {pBlock});
}

static int Takes(const Session *pPlayer, int nTrack)
{
    return nTrack < pPlayer->out.nTracks && pPlayer->tracks[nTrack].bSetUp;
}

// Reports are few: they do not wait for more to send.
static void TellPlayers(Program *pProg, int nTrack)
{
    Session *pNext;
    for (Session *p = FirstPlayer(pProg); p; p = pNext) {
        pNext = NextPlayer(p);
        if (p->nState != STATE_PLAYING || !Takes(p, nTrack))
            continue;
        TellPlayer(p, nTrack, &pProg->desc.mediaInfos[nTrack].report);
        if (!SendDataEx(p, nullptr, 1))
            SessionEnd(p);
    }
}

void ReportsAhead(Session *pPlayer)
{
    const Program *pProg = pPlayer->pProg;
    for (int i = 0; i < pProg->desc.nTrackCount; i++)
        if (pProg->desc.mediaInfos[i].report.nBytes > 0 && Takes(pPlayer, i))
            TellPlayer(pPlayer, i, &pProg->desc.mediaInfos[i].report);
}

// --- Those of the server ---

// The wall clock at the time of a packet: one for all tracks of the program, which goes on as their line
// does.
static int64_t WallTime(MediaLine *pLine, uint32_t nMs)
{
    if (pLine->nWallUs == 0) {
        timeval now{};
        gettimeofday(&now, nullptr);
        pLine->nWallUs = now.tv_sec * int64_t{1000000} + now.tv_usec;
        pLine->nWallMs = nMs;
    }
    pLine->nWallUs += int64_t{ClockDiff(nMs, pLine->nWallMs)} * 1000;
    pLine->nWallMs = nMs;
    return pLine->nWallUs;
}

// The pusher's wall clock at nMs of the line, where it tells of it on another track: players put both
// together by it. Returns 0 where it does not.
static int PushedWallTime(const Program *pProg, uint32_t nMs, uint32_t *pNtpSec, uint32_t *pNtpFrac)
{
    for (int i = 0; i < pProg->desc.nTrackCount; i++) {
        const MediaInfo *pInfo = &pProg->desc.mediaInfos[i];
        const TrackReport *pTold = &pInfo->report;
        SenderReport told;
        if (!pTold->bPushed || pTold->nPackets == 0 || pInfo->nTimeScale == 0 ||
            !RtcpReadSender(pTold->bytes, pTold->nBytes, &told) || NtpOf(&told) == 0)
            continue;
        int64_t nTicks = static_cast<int32_t>(told.nRtpTime - pTold->nRtpTime);
        auto nToldMs = static_cast<uint32_t>(pTold->nMs + nTicks * 1000 / pInfo->nTimeScale);
        int64_t nLater = ClockDiff(nMs, nToldMs) * (int64_t{1} << 32) / 1000;
        uint64_t nNtp = NtpOf(&told) + static_cast<uint64_t>(nLater);
        *pNtpSec = static_cast<uint32_t>(nNtp >> 32);
        *pNtpFrac = static_cast<uint32_t>(nNtp);
        return 1;
    }
    return 0;
}

static void MakeOwn(Program *pProg, TrackReport *pReport)
{
    uint32_t nNtpSec, nNtpFrac;
    if (!PushedWallTime(pProg, pReport->nMs, &nNtpSec, &nNtpFrac)) {
        int64_t nUs = WallTime(&pProg->line, pReport->nMs);
        NtpFromTime(static_cast<uint32_t>(nUs / 1000000), static_cast<uint32_t>(nUs % 1000000), &nNtpSec,
                    &nNtpFrac);
    }
    size_t n = RtcpMakeSR(pReport->bytes, pReport->nSsrc, nNtpSec, nNtpFrac, pReport->nRtpTime,
                          pReport->nPackets, pReport->nOctets);
    n += RtcpMakeCname(pReport->bytes + n, kMaxReportBytes - n, pReport->nSsrc, pProg->szName);
    pReport->nBytes = static_cast<uint32_t>(n);
}

static int OnReportTick(Task *pTask, uint32_t, uint32_t nNow, uint32_t)
{
    Session *pPusher = SessionOfTask(pTask);
    if (!pPusher || !FeedsProgram(pPusher))
        return -1;
    Program *pProg = pPusher->pProg;
    for (int i = 0; i < pProg->desc.nTrackCount; i++) {
        TrackReport *pReport = &pProg->desc.mediaInfos[i].report;
        if (pReport->bPushed || pReport->nPackets == 0 ||
            nNow - pReport->nFirstMs + kClockSlackMs < kPushedWithinMs)
            continue;
        MakeOwn(pProg, pReport);
        TellPlayers(pProg, i);
    }
    return kOwnEveryMs;
}

void ReportsExpect(Session *pPusher, TrackReport *pReport)
{
    pReport->bExpected = 1;
    pReport->nFirstMs = ClockMs();
    if (!pPusher->pProg->standards.bPlayers || pPusher->flow.bReportTick)
        return;
    pPusher->flow.bReportTick = 1;
    SessionSchedule(pPusher, OnReportTick, kOwnEveryMs);
}

// --- From peers ---

// A pusher's report as players get it. One that does not name its source (ffmpeg's) gets the program's name:
// players bring only tracks of one name together (RFC 3550, section 6.5.1).
static void KeepPushed(const Program *pProg, TrackReport *pReport, const uint8_t *pRtcp, size_t nBytes)
{
    size_t n = RtcpCopySender(pRtcp, nBytes, pReport->bytes, kMaxReportBytes);
    if (n == 4 + kSenderBytes)
        n += RtcpMakeCname(pReport->bytes + n, kMaxReportBytes - n,
                           static_cast<uint32_t>(GetBe(pReport->bytes + 4, 4)), pProg->szName);
    pReport->nBytes = static_cast<uint32_t>(n);
}

static void PassOn(Program *pProg, unsigned nTrack, const uint8_t *pRtcp, size_t nBytes)
{
    SenderReport report;
    if (!RtcpReadSender(pRtcp, nBytes, &report))
        return;
    MediaInfo *pInfo = &pProg->desc.mediaInfos[nTrack];
    TrackReport *pTold = &pInfo->report;
    pTold->bPushed = 1;
    if (!ResumeReport(pProg, nTrack, &report))
        return;
    report.nRtpTime += pInfo->rewrite.nStampShift;
    TimeNoteReport(pProg, nTrack, &report);
    KeepPushed(pProg, pTold, pRtcp, nBytes);
    RewriteReport(&pInfo->rewrite, pTold->bytes, pTold->nBytes);
    PutBe(pTold->bytes + 8, 4, report.nNtpSec);
    PutBe(pTold->bytes + 12, 4, report.nNtpFrac);
    if (pInfo->rewrite.bChanges) {  // players count more than the pusher, or others before it
        PutBe(pTold->bytes + 20, 4, pTold->nPackets);
        PutBe(pTold->bytes + 24, 4, pTold->nOctets);
    }
    TellPlayers(pProg, static_cast<int>(nTrack));
}

// The way there and back: since the report that the player names was sent, without the time that it had it.
static void NoteRoundTrip(SessionTrack *pTrack, const ReceiverReport *pReport)
{
    for (int i = 0; pReport->nLsr != 0 && i < 2; i++) {
        if (pTrack->nToldNtp[i] != pReport->nLsr)
            continue;
        pTrack->reception.bRoundTrip = 1;
        auto nHeldMs = static_cast<uint32_t>(uint64_t{pReport->nDlsr} * 1000 >> 16);
        pTrack->reception.nRoundTripMs = std::max(ClockDiff(ClockMs() - pTrack->nToldMs[i], nHeldMs), 0);
        return;
    }
}

static void NoteReception(SessionTrack *pTrack, const uint8_t *pRtcp, size_t nBytes)
{
    ReceiverReport report;
    if (!RtcpReadReceiver(pRtcp, nBytes, &report))
        return;
    Reception *pReception = &pTrack->reception;
    pReception->bKnown = 1;
    pReception->nLoss = report.nFraction * 100 / 256;
    uint64_t nJitterMs = pTrack->nTimeScale ? report.nJitter * uint64_t{1000} / pTrack->nTimeScale : 0;
    pReception->nJitterMs = static_cast<int>(std::min(nJitterMs, uint64_t{INT32_MAX}));
    NoteRoundTrip(pTrack, &report);
}

void ReportReceived(Session *pSession, unsigned nTrack, const uint8_t *pRtcp, size_t nBytes)
{
    Program *pProg = pSession->pProg;
    if (!pProg || static_cast<int>(nTrack) >= pProg->desc.nTrackCount)
        return;
    if (!(pSession->nFlags & SESSION_PUSHER)) {
        if (pSession->standards.bPlayers && Takes(pSession, static_cast<int>(nTrack)))
            NoteReception(&pSession->tracks[nTrack], pRtcp, nBytes);
    } else if (pProg->standards.bPushers && FeedsProgram(pSession)) {
        PassOn(pProg, nTrack, pRtcp, nBytes);
    }
}

}  // namespace orx
