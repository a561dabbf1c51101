// What waits to be sent to a session: replies, media and reports in one queue, and the limits by which it is
// filled, flushed and given up. Scheduler thread only.
#pragma once

#include "base/blockqueue.h"
#include "server/core/program.h"
#include "server/core/session.h"
#include "server/core/settings.h"

namespace orx {

// A queue leaves, through SendDataEx,
// - after a read of the pusher that is an odd one in number, when more than kFlushAfterReadAbove wait
//   (FlushPlayers), and after another that is long soon (FlushLater); with [INTEROP] LowDelay after each that
//   ends a picture or brings sound, and soon after one that does neither (FlushWhole),
// - with a packet that finds more than kFlushAtOnceAbove, or the queue full (CachePacketEx),
// - with every reply (SendReply2),
// - by a timer: what a full socket left after 200 ms (OnSessionDelaySendTimer), a start over UDP every 20 ms
//   (OnCatchUpTimer), a recording every 200 or 20 ms (OnFileSend).
// The first two limits count blocks.
//
// How much of a live player's media may wait is one table:
//                        [INTEROP] StandardPlayers 1                  0
//   what a start brought  apart until it has left: one group, which   within kGiveUpAbove
//                         the cache holds ([GUARD] CacheMegabytes)
//   behind it             kQueueBytes, and kQueueMs from being        kGiveUpAbove blocks, CacheMegabytes
//                         queued to leaving
//   beyond, AutoDropDataWhenCrowded 1: groups that have not begun     all that waits
//     to leave are dropped; one that has begun is queued to its end,
//     up to CacheMegabytes, else kGroupMegabytes
//   with 0                the player is ended                         the same
//   a socket that blocks  ends it when it took nothing for 30 s       20 times in a row: loses what waits
//   of all queues together, CacheMegabytesTotal: the largest loses    as if it were full
//                         all media that waits, or ends
constexpr uint32_t kFlushAfterReadAbove = 5;  // about a picture's packets, so that small pictures gather
constexpr uint32_t kFlushAtOnceAbove = 50;    // a key picture is longer than one read of the pusher
constexpr uint32_t kGiveUpAbove = 1000;       // though flushed: some seconds of media; the player is ended
constexpr int64_t kQueueBytes = 8 << 20;
constexpr int32_t kQueueMs = 10000;
constexpr uint32_t kGroupMegabytes = 32;
constexpr uint32_t kRepliesAbove = 1000;  // that wait: a peer that asks and does not read is ended

// A live player whose socket was full so many times in a row loses the media that waits, and gets video alone
// until something leaves again ([SERVER] AutoDropDataWhenCrowded).
constexpr uint32_t kBlockedSends = 20;

// Which track is meant where a program has two of one payload type, of which the player set the second up.
enum class TrackChoice {
    First,  // the first: what a pusher sends counts as its, and is not for this player
    SetUp,  // the second: the queue holds packets of no other
};

// The track of the session that carries the payload type, when it is set up; else -1.
inline int TrackOfPayload(const Session *pSession, uint8_t nPayloadType, TrackChoice eChoice)
{
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const SessionTrack *pTrack = &pSession->tracks[i];
        if (pTrack->nPayloadType == nPayloadType && (pTrack->bSetUp || eChoice == TrackChoice::First))
            return pTrack->bSetUp ? i : -1;
    }
    return -1;
}

// The track when it is set up; else -1.
inline int TrackIfSetUp(const Session *pSession, int nTrack)
{
    return nTrack < pSession->out.nTracks && pSession->tracks[nTrack].bSetUp ? nTrack : -1;
}

// The track set up that media of the session's queue belongs to; -1 when none does.
inline int TrackOfRef(const Session *pSession, const BlockRef *pRef)
{
    if (pRef->nTrack >= 0)
        return TrackIfSetUp(pSession, pRef->nTrack);
    uint32_t nAt = pSession->out.bInterleaved ? kInterleaveBytes + 1 : 1;
    if (RefLen(pRef) <= nAt)
        return -1;
    return TrackOfPayload(pSession, RefData(pRef)[nAt] & 0x7F, TrackChoice::SetUp);
}

// Whether it leaves by a media socket.
inline int IsDatagram(const Session *pSession, const BlockRef *pRef)
{
    return (RefFlags(pRef) & DB_MEDIA) && !pSession->out.bInterleaved;
}

// Queues a cached packet for a player. nClock: ClockMs, from when on it waits; 0 of a start, which does not
// count. Returns the track it is for, or -1 when it was left out.
int QueuePacket(Session *pSession, DataBlock *pBlock, uint32_t nClock);

// Puts a block that the queue holds from here on at a place (kQueueEnd: the end); one place up when part of
// what is there has left already, so that the stream stays whole. Returns where it is, or -1 without memory.
int64_t QueueBefore(Session *pSession, DataBlock *pBlock, uint32_t nBefore);

// Whether more bytes wait than may, and what a live player loses for it. QueueRelieve returns 0 when nothing
// may be dropped, or that did not help: the player is to be ended.
inline int QueueIsFull(const Session *pSession)
{
    return g_settings.nCacheMegabytes &&
           pSession->out.Outq.sum.nBytes - pSession->flow.nStartHeld > Megabytes(g_settings.nCacheMegabytes);
}
int QueueRelieve(Session *pSession);

// Whether the session is a live player whose bounds are bytes and time, and who loses whole groups.
inline int QueueKeepsGroups(const Session *pSession)
{
    return pSession->standards.bPlayers && pSession->pProg && pSession->pProg->bLive &&
           !(pSession->nFlags & SESSION_PUSHER);
}

// Whether its socket was full a moment ago, at nNow (ClockMs): it is not tried again with every packet.
constexpr uint32_t kBlockedRetryMs = 5;
inline int QueueIsBlocked(const Session *pSession, uint32_t nNow)
{
    return pSession->flow.bBlocked && nNow - pSession->flow.nTriedClock < kBlockedRetryMs;
}

// Keeps the queue of such a player in its bounds, once it has left as far as it could. Returns 0 when nothing
// may be dropped: the player is to be ended.
int QueueKeepBounds(Session *pSession);

// Prints that a queue is crowded, of such a player once in a while.
void QueueTellCrowded(Session *pSession, uint32_t nNow);

// Prints and logs of a live player how far it is behind, and what is done about it.
void QueueTell(const Session *pSession, const char *szWhat);

// Whether a peer lets replies, or the server's requests to it, wait without end because it does not read.
// What players ask a pusher does not count: it is bounded by who asks, not at the cost of the pusher.
int RepliesPileUp(const Session *pSession);

// Drop what waits; of what is partly written the rest stays, so that the stream remains whole. Packets of a
// recording give their RTP sequence numbers back.
void QueueDropAll(Session *pSession);
void QueueDropMedia(Session *pSession);    // replies and reports stay
void QueueDropCrowded(Session *pSession);  // the media, and the head of whatever kind

}  // namespace orx
