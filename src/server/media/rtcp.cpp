#include "server/media/rtcp.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include <sys/socket.h>
#include <sys/time.h>

#include "base/bytes.h"
#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "record/playline.h"
#include "runtime/clock.h"
#include "server/core/program.h"
#include "server/core/settings.h"
#include "server/media/outqueue.h"
#include "server/media/pace.h"
#include "server/media/rtcpread.h"

namespace orx {

static constexpr uint32_t kNtpOffset = 2208988800U;  // seconds from 1900 to 1970
static constexpr uint32_t kReportPeriod = 10;        // seconds
static constexpr uint32_t kStandardPeriod = 5;
static constexpr size_t kSrBytes = 28;
static constexpr size_t kMaxReport = 256;  // prefix, SR, SDES and BYE with room to spare

// The common first word (RFC 3550, section 6.4.1); nBytes is the packet's whole size.
static void PutHead(uint8_t *pOut, unsigned nCount, unsigned nType, size_t nBytes)
{
    PutBe(pOut, 1, 0x80 | nCount);
    PutBe(pOut + 1, 1, nType);
    PutBe(pOut + 2, 2, static_cast<uint32_t>(nBytes / 4 - 1));
}

size_t RtcpMakeSR(uint8_t *pOut, uint32_t nSsrc, uint32_t nNtpSec, uint32_t nNtpFrac, uint32_t nRtpTime,
                  uint32_t nPackets, uint32_t nOctets)
{
    PutHead(pOut, 0, RTCP_SR, kSrBytes);
    PutBe(pOut + 4, 4, nSsrc);
    PutBe(pOut + 8, 4, nNtpSec);
    PutBe(pOut + 12, 4, nNtpFrac);
    PutBe(pOut + 16, 4, nRtpTime);
    PutBe(pOut + 20, 4, nPackets);
    PutBe(pOut + 24, 4, nOctets);
    return kSrBytes;
}

size_t RtcpMakeSDES(uint8_t *pOut, size_t nRoom, uint32_t nSsrc, const char *szCname)
{
    size_t nLen = strlen(szCname);
    size_t nBytes = ((nLen + 11) & ~size_t{3}) + 4;
    if (nLen > 255 || nBytes > nRoom)
        return 0;
    memset(pOut, 0, nBytes);
    PutHead(pOut, 1, RTCP_SDES, nBytes);
    PutBe(pOut + 4, 4, nSsrc);
    PutBe(pOut + 8, 1, 1);  // CNAME
    // the item's length is the room behind it but for its last four bytes, which may be shorter than the
    // text: part of this protocol, though RFC 3550 has the text's own length here
    PutBe(pOut + 9, 1, static_cast<uint32_t>(nBytes - 13));
    std::copy_n(szCname, nLen, pOut + 10);
    return nBytes;
}

size_t RtcpMakeCname(uint8_t *pOut, size_t nRoom, uint32_t nSsrc, const char *szCname)
{
    size_t nBytes = RtcpMakeSDES(pOut, nRoom, nSsrc, szCname);
    if (nBytes)
        PutBe(pOut + 9, 1, static_cast<uint32_t>(strlen(szCname)));
    return nBytes;
}

size_t RtcpMakeRR(uint8_t *pOut, uint32_t nSsrc, unsigned nBlocks)
{
    PutHead(pOut, nBlocks, RTCP_RR, 8 + size_t{24} * nBlocks);
    PutBe(pOut + 4, 4, nSsrc);
    return 8;
}

size_t RtcpMakeReportBlock(uint8_t *pOut, const RtcpBlock *pBlock)
{
    uint32_t nMs = pBlock->nSinceSrMs;
    uint32_t nDelay = pBlock->bSrKnown ? (nMs / 1000) << 16 | ((nMs % 1000) << 13) / 125 : 0;
    PutBe(pOut, 4, pBlock->nSsrc);
    PutBe(pOut + 4, 1, pBlock->nFraction);
    PutBe(pOut + 5, 3, pBlock->nLost);
    PutBe(pOut + 8, 4, pBlock->nLastSeq);
    PutBe(pOut + 12, 4, pBlock->nJitter);
    PutBe(pOut + 16, 4, pBlock->nLsr);
    PutBe(pOut + 20, 4, nDelay);
    return 24;
}

size_t RtcpMakeBYE(uint8_t *pOut, size_t nRoom, uint32_t nSsrc, const char *szReason)
{
    size_t nLen = szReason ? strlen(szReason) : 0;
    size_t nBytes = ((nLen + 8 + 3) & ~size_t{3}) + 4;
    if (nBytes > nRoom)
        return 0;
    memset(pOut, 0, nBytes);
    PutHead(pOut, 1, RTCP_BYE, nBytes);
    PutBe(pOut + 4, 4, nSsrc);
    std::copy_n(szReason, nLen, pOut + 8);
    return nBytes;
}

void NtpFromTime(uint32_t nSec, uint32_t nMicros, uint32_t *pNtpSec, uint32_t *pNtpFrac)
{
    *pNtpSec = nSec + kNtpOffset;
    *pNtpFrac = nMicros * 4294 + (nMicros * 1981) / 2048;
}

void NtpTimeToString(uint32_t nNtpSec, uint32_t nNtpFrac, char *szOut, size_t nSize)
{
    TextBuf text{szOut, nSize};
    time_t nTime = static_cast<uint32_t>(nNtpSec - kNtpOffset);
    struct tm t {};
    if (!gmtime_r(&nTime, &t)) {
        TextAdd(&text, "ntp_sec=%u, ntp_frac=%u", nNtpSec, nNtpFrac);
        return;
    }
    TextAdd(&text, "%4d-%02d-%02d-%02d:%02d:%02d.%u", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
            t.tm_min, t.tm_sec, nNtpFrac / 4295 / 1000);
}

static void DumpBlocks(ByteReader *pIn, unsigned nCount)
{
    for (unsigned i = 0; i < nCount; i++) {
        uint32_t nSsrc = ReadBe(pIn, 4);
        uint32_t nFraction = ReadBe(pIn, 1);
        uint32_t nLost = ReadBe(pIn, 3);
        uint32_t nLastSeq = ReadBe(pIn, 4);
        uint32_t nJitter = ReadBe(pIn, 4);
        uint32_t nLsr = ReadBe(pIn, 4);
        uint32_t nDlsr = ReadBe(pIn, 4);
        if (pIn->bFailed)
            return;
        print("RR[%u] ssrc=%u, fraction=%u, lost=%u, last_seq=%u, jitter=%u, lsr=%u, dlsr=%u\r\n", i, nSsrc,
              nFraction, nLost, nLastSeq, nJitter, nLsr, nDlsr);
    }
}

static void DumpSR(ByteReader *pIn, unsigned nCount, uint32_t nClockRate)
{
    uint32_t nSsrc = ReadBe(pIn, 4);
    uint32_t nNtpSec = ReadBe(pIn, 4);
    uint32_t nNtpFrac = ReadBe(pIn, 4);
    uint32_t nRtpTime = ReadBe(pIn, 4);
    uint32_t nPackets = ReadBe(pIn, 4);
    uint32_t nOctets = ReadBe(pIn, 4);
    if (pIn->bFailed)
        return;
    char szTime[64];
    NtpTimeToString(nNtpSec, nNtpFrac, szTime, sizeof(szTime));
    if (nClockRate < 1000)
        print("SR ssrc=%u, ntpTime=%s, rtp_ts=%u, psent=%u, osent=%u\r\n", nSsrc, szTime, nRtpTime, nPackets,
              nOctets);
    else
        print("SR ssrc=%u, ntpTime=%s, rtp_ts=%ums, psent=%u, osent=%u\r\n", nSsrc, szTime,
              nRtpTime / (nClockRate / 1000), nPackets, nOctets);
    DumpBlocks(pIn, nCount);
}

static void DumpRR(ByteReader *pIn, unsigned nCount)
{
    uint32_t nSsrc = ReadBe(pIn, 4);
    if (pIn->bFailed)
        return;
    print("RR sender's ssrc=%u:\r\n", nSsrc);
    DumpBlocks(pIn, nCount);
}

// The bytes of an item's text: as many as its length says, and on to the end of the text where our own
// formula says too few. The next item begins with its type, the end of the items with a 0: both below a
// blank.
static uint32_t ItemTextBytes(const ByteReader *pIn, uint32_t nLen)
{
    uint32_t nShown = nLen < pIn->nLeft ? nLen : static_cast<uint32_t>(pIn->nLeft);
    while (nShown < pIn->nLeft && pIn->p[nShown] >= ' ')
        nShown++;
    return nShown;
}

// Only the first item of the first chunk.
static void DumpSDES(ByteReader *pIn)
{
    uint32_t nSsrc = ReadBe(pIn, 4);
    uint32_t nType = ReadBe(pIn, 1);
    uint32_t nLen = ReadBe(pIn, 1);
    if (pIn->bFailed)
        return;
    print("SDes ssrc=%u, type=%u, length=%u, data=%s\r\n", nSsrc, nType, nLen,
          PrintableText(reinterpret_cast<const char *>(pIn->p), ItemTextBytes(pIn, nLen)).sz);
}

void RtcpDump(const uint8_t *pPacket, size_t nLen, uint32_t nClockRate)
{
    static const char *const g_names[] = {"SR", "RR", "SDES", "BYE", "APP"};
    ByteReader in{pPacket, nLen};
    while (in.nLeft >= 4) {
        uint32_t nFlags = ReadBe(&in, 1);
        uint32_t nType = ReadBe(&in, 1);
        size_t nBody = size_t{4} * ReadBe(&in, 2);
        unsigned nCount = nFlags & 0x1F;
        print("RTCP head: version=%u, padding=%u, count=%u, type=%u, length=%u\r\n", nFlags >> 6,
              nFlags >> 5 & 1, nCount, nType, static_cast<unsigned>(nBody + 4));
        if (nType < RTCP_SR || nType > RTCP_APP) {
            print("Invalid RTCP packet!\r\n");
            return;
        }
        print("RTCP packet type is %s\r\n", g_names[nType - RTCP_SR]);
        size_t nHere = nBody < in.nLeft ? nBody : in.nLeft;
        ByteReader body{ReadBytes(&in, nHere), nHere};
        if (nType == RTCP_SR)
            DumpSR(&body, nCount, nClockRate);
        else if (nType == RTCP_RR)
            DumpRR(&body, nCount);
        else if (nType == RTCP_SDES)
            DumpSDES(&body);
    }
    print("\r\n");
}

// The RTP clock of a rate at a wall time; reports count from its value at the track's first packet.
static uint32_t RtpClock(uint32_t nRate, const timeval *pTime)
{
    return nRate * static_cast<uint32_t>(pTime->tv_sec) +
           (nRate / 1000) * static_cast<uint32_t>(pTime->tv_usec / 1000);
}

// The time stamp that stands for now. Where the tracks of a recording share a time line, it is that on which
// playing has gone on in real time since PLAY, whenever their packets were sent, and however fast.
static uint32_t ReportedTime(const Session *pSession, const SessionTrack *pTrack, const timeval *pNow)
{
    if (!PlaysStandard(pSession))
        return RtpClock(pTrack->nTimeScale, pNow) - pTrack->nClockBase + pTrack->nFirstSentRtpTime;
    int64_t nSince = pNow->tv_sec * int64_t{1000000} + pNow->tv_usec - pSession->play.nPlayWallUs;
    int64_t nUs = int64_t{pSession->play.nPlayStart} * 1000 + nSince;
    return PlayStampBase(pSession) + PlayStamp(pTrack->nTimeScale, nUs);
}

enum class ReportKind { First, Cycle, Bye };

// Of which moment a report tells. The first one to a standard player of a recording tells where it began, as
// RTP-Info does: players that count from their first report see no step then.
static timeval ReportedMoment(const Session *pSession, ReportKind eKind)
{
    timeval moment{};
    gettimeofday(&moment, nullptr);
    if (eKind == ReportKind::First && PlaysStandard(pSession))
        moment = {static_cast<time_t>(pSession->play.nPlayWallUs / 1000000),
                  static_cast<suseconds_t>(pSession->play.nPlayWallUs % 1000000)};
    return moment;
}

// A compound report of a track for now, with the '$' prefix on an interleaved session. Returns its bytes.
static size_t MakeReport(Session *pSession, int nTrack, ReportKind eKind, uint8_t *pOut, size_t nRoom)
{
    SessionTrack *pTrack = &pSession->tracks[nTrack];
    size_t nPrefix = pSession->out.bInterleaved ? kInterleaveBytes : 0;
    timeval now = ReportedMoment(pSession, eKind);
    uint32_t nNtpSec, nNtpFrac;
    NtpFromTime(static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec), &nNtpSec, &nNtpFrac);
    uint32_t nRtpTime = ReportedTime(pSession, pTrack, &now);
    const char *szName = pSession->pProg ? pSession->pProg->szName : "";

    uint8_t *pPacket = pOut + nPrefix;
    size_t n =
        RtcpMakeSR(pPacket, pTrack->nSsrc, nNtpSec, nNtpFrac, nRtpTime, pTrack->nPackets, pTrack->nOctets);
    auto pfnMakeName = PlaysStandard(pSession) ? RtcpMakeCname : RtcpMakeSDES;
    n += pfnMakeName(pPacket + n, nRoom - nPrefix - n, pTrack->nSsrc, szName);
    if (eKind == ReportKind::Bye)
        n += RtcpMakeBYE(pPacket + n, nRoom - nPrefix - n, pTrack->nSsrc, "completed");
    if (nPrefix) {
        PutBe(pOut, 1, '$');
        PutBe(pOut + 1, 1, pTrack->nRtcpChannel);
        PutBe(pOut + 2, 2, static_cast<uint32_t>(n));
    }
    ReportNoteTold(pTrack, pPacket);
    if (pSession->nFlags & SESSION_RTCP)
        RtcpDump(pPacket, n, pTrack->nTimeScale);
    return n + nPrefix;
}

void ReportNoteTold(SessionTrack *pTrack, const uint8_t *pReport)
{
    pTrack->nToldNtp[1] = pTrack->nToldNtp[0];
    pTrack->nToldMs[1] = pTrack->nToldMs[0];
    pTrack->nToldNtp[0] = GetBe(pReport + 10, 4);
    pTrack->nToldMs[0] = ClockMs();
}

int ReportsAreOwn(const Session *pPlayer, int nTrack)
{
    const Program *pProg = pPlayer->pProg;
    if (PlaysStandard(pPlayer))
        return 1;
    if (!(pPlayer->nFlags & SESSION_RTCP))
        return 0;
    if (!pProg || !pProg->bLive)
        return 1;
    return !pProg->standards.bPlayers && !pProg->desc.mediaInfos[nTrack].report.bPushed;
}

// Makes a track's report and sends it: over UDP at once, interleaved through the queue.
static void SendTrackReport(Session *pSession, int nTrack, ReportKind eKind, int bBehindFirst)
{
    uint8_t report[kMaxReport];
    size_t nLen = MakeReport(pSession, nTrack, eKind, report, sizeof(report));
    if (!pSession->out.bInterleaved) {
        const Port *pPort = pSession->tracks[nTrack].Control;
        if (pPort)
            sendto(pPort->fd, report, nLen, MSG_NOSIGNAL, &pPort->remote.any, AddrSize(&pPort->remote));
        return;
    }
    DataBlock *pBlock = MakeDataBlock(report, nLen, 0, 0, 1);
    if (!pBlock)
        print("MakeDataBlock() failed!\r\n");
    else if (bBehindFirst)
        QueueInsert(&pSession->out.Outq, 1, {pBlock});
    else  // one that waited behind media that is ahead of its time would tell of a long way to the player
        QueueBefore(
            pSession, pBlock,
            eKind == ReportKind::Cycle && PlaysStandard(pSession) ? PaceFirstHeld(pSession) : kQueueEnd);
}

// Reports count from this packet on.
static void BeginCount(SessionTrack *pTrack, const uint8_t *pRtp)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    pTrack->nFirstSentRtpTime = GetBe(pRtp + 4, 4);
    pTrack->nClockBase = RtpClock(pTrack->nTimeScale, &now);
}

static void SendFirstRtcpReport(Session *pSession, int nTrack, const uint8_t *pRtp)
{
    SessionTrack *pTrack = &pSession->tracks[nTrack];
    BeginCount(pTrack, pRtp);
    pTrack->nSsrc = GetBe(pRtp + 8, 4);
    if (pSession->nFlags & SESSION_RTCP)
        print("SendFirstRtcpReport():\r\n");
    SendTrackReport(pSession, nTrack, ReportKind::First, 1);
    pSession->flow.tLastReport = ClockUptime();
}

void RtcpNotePacketSent(Session *pSession, int nTrack, const uint8_t *pRtp, size_t nLen, int bJump)
{
    SessionTrack *pTrack = &pSession->tracks[nTrack];
    if (nLen < kRtpHeaderBytes)
        return;
    pTrack->nOctets += static_cast<uint32_t>(nLen - kRtpHeaderBytes);
    if (pTrack->nPackets++ > 0 && bJump)
        BeginCount(pTrack, pRtp);
    if (pTrack->bReported || !ReportsAreOwn(pSession, nTrack))
        return;
    pTrack->bReported = 1;
    SendFirstRtcpReport(pSession, nTrack, pRtp);
}

void RtcpPlayBegins(Session *pSession)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    pSession->play.nPlayWallUs = now.tv_sec * int64_t{1000000} + now.tv_usec;
    if (!PlaysStandard(pSession))
        return;
    for (SessionTrack &track : pSession->tracks)
        track.bReported = 0;
    pSession->flow.tLastReport = ClockUptime();  // the disk may take its time for the first packet
}

static int ReportDue(const Session *pSession)
{
    uint32_t nPeriod = PlaysStandard(pSession) ? kStandardPeriod : kReportPeriod;
    return ClockUptime() - pSession->flow.tLastReport >= nPeriod;
}

// The reports of every track set up.
static int SendReports(Session *pSession, int bBye)
{
    for (int i = 0; i < pSession->out.nTracks; i++) {
        if (!pSession->tracks[i].bSetUp || !(bBye || ReportsAreOwn(pSession, i)))
            continue;
        if (pSession->nFlags & SESSION_RTCP)
            print("SendRtcpReport():\r\n");
        SendTrackReport(pSession, i, bBye ? ReportKind::Bye : ReportKind::Cycle, 0);
    }
    pSession->flow.tLastReport = ClockUptime();
    return 1;
}

int SendRtcpReport(Session *pSession)
{
    return ReportDue(pSession) && SendReports(pSession, 0);
}

int SendRtcpBye(Session *pSession)
{
    return (PlaysStandard(pSession) || ReportDue(pSession)) && SendReports(pSession, 1);
}

}  // namespace orx
