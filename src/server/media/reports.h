// RTCP of live programs with standard peers: the pusher's sender reports on their way to the players, those
// that the server makes where a pusher sends none, and what players report. Scheduler thread only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "server/core/program.h"
#include "server/core/session.h"

namespace orx {

// A compound RTCP packet of a peer, on a track by index. With StandardPushers a pusher's sender report, if
// there is one in it, corrects the times of the track and goes to every player that plays it; with
// StandardPlayers a player's receiver report is kept in the session. Anything else is left alone.
void ReportReceived(Session *pSession, unsigned nTrack, const uint8_t *pRtcp, size_t nBytes);

// Notes a packet of a track, as players get it. Per packet.
inline void ReportNotePacket(TrackReport *pReport, uint32_t nMs, uint32_t nSsrc, uint32_t nRtpTime,
                             uint32_t nOctets)
{
    pReport->nPackets++;
    pReport->nOctets += nOctets;
    pReport->nMs = nMs;
    pReport->nSsrc = nSsrc;
    pReport->nRtpTime = nRtpTime;
}

// StandardPlayers: the first packet of a track of the pusher's program has come. If no report has followed
// within ten seconds, the server makes one every five, until one comes.
void ReportsExpect(Session *pPusher, TrackReport *pReport);

// Puts the last report of each track that a player has set up ahead of what it starts with.
void ReportsAhead(Session *pPlayer);

}  // namespace orx
