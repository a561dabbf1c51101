// RTCP (RFC 3550, section 6): sender reports to players, builders, and the dump of what peers send.
// Scheduler thread only; the builders and the dump: any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "server/core/session.h"

namespace orx {

// Builders. Each writes into pOut, which has the room named, and returns the bytes written.
size_t RtcpMakeSR(uint8_t *pOut, uint32_t nSsrc, uint32_t nNtpSec, uint32_t nNtpFrac, uint32_t nRtpTime,
                  uint32_t nPackets, uint32_t nOctets);  // 28 bytes
size_t RtcpMakeSDES(uint8_t *pOut, size_t nRoom, uint32_t nSsrc,
                    const char *szCname);  // 0 when there is no room
// The same for standard peers, whose item has the text's own length (RFC 3550, section 6.5).
size_t RtcpMakeCname(uint8_t *pOut, size_t nRoom, uint32_t nSsrc, const char *szCname);
size_t RtcpMakeRR(uint8_t *pOut, uint32_t nSsrc, unsigned nBlocks);  // 8 bytes; blocks follow
struct RtcpBlock {
    uint32_t nSsrc;
    uint8_t nFraction;
    uint32_t nLost;  // 24 bits
    uint32_t nLastSeq;
    uint32_t nJitter;
    uint32_t nLsr;
    uint32_t nSinceSrMs;  // milliseconds since the last SR
    int bSrKnown;         // 0: DLSR is 0
};
size_t RtcpMakeReportBlock(uint8_t *pOut, const RtcpBlock *pBlock);                     // 24 bytes
size_t RtcpMakeBYE(uint8_t *pOut, size_t nRoom, uint32_t nSsrc, const char *szReason);  // reason may be null

// NTP form of a wall time (RFC 5905, section 6), and its text for the dump (nSize at least 64).
void NtpFromTime(uint32_t nSec, uint32_t nMicros, uint32_t *pNtpSec, uint32_t *pNtpFrac);
void NtpTimeToString(uint32_t nNtpSec, uint32_t nNtpFrac, char *szOut, size_t nSize);

// Prints a compound packet; never looks outside its nLen bytes. nClockRate 0: RTP times are printed as they
// are.
void RtcpDump(const uint8_t *pPacket, size_t nLen, uint32_t nClockRate);

// Notes that a media packet (RTP header at pRtp, nLen bytes) of track i was written completely: counters, and
// on the first one the clock base and the first report, on one whose stamp jumps (bJump) the base anew. The
// packet is still the first of the queue, and its report is put behind it.
void RtcpNotePacketSent(Session *pSession, int nTrack, const uint8_t *pRtp, size_t nLen, int bJump);

// Playing begins, or begins anew elsewhere: notes when, from where on the time line counts (nPlayStart is
// set). A standard player of a recording gets a first report on each track again, because what was told holds
// no more.
void RtcpPlayBegins(Session *pSession);

// Whether sender reports are made for the session at all: with EnableRtcp, and for standard players of
// recordings.
inline int RtcpMakesReports(const Session *pSession)
{
    return (pSession->nFlags & SESSION_RTCP) || PlaysStandard(pSession);
}

// The report cycle, at most every 10 seconds, for standard players of recordings every 5. Returns 1 when
// reports were made, else 0. Over TCP the reports are queued, not sent.
int SendRtcpReport(Session *pSession);

// The last words to a player whose recording has ended: a report with BYE "completed" for every track; at
// once to a standard player, else when the last report is at least 10 seconds old. Returns 1 when it was
// made, else 0.
int SendRtcpBye(Session *pSession);

// Whether the sender reports of a player's track are its own: of recordings; and of live tracks
// with EnableRtcp, when neither their pusher sends any nor the player is a standard one.
int ReportsAreOwn(const Session *pPlayer, int nTrack);

// A sender report was passed on to a player of the track: its receiver report will name it.
void ReportNoteTold(SessionTrack *pTrack, const uint8_t *pReport);

}  // namespace orx
