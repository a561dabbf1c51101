// What waits to be sent to a session: replies, media and reports in one queue, and the limits by which it is
// filled, flushed and given up. Scheduler thread only.
#pragma once

#include "base/datablock.h"
#include "server/core/session.h"

namespace orx {

// When what waits leaves, and when the one it waits for has lost it. All of them in blocks of a queue, but
// for the blocked sends.
constexpr uint32_t kFlushAfterRead = 5;  // above: leaves after a read of the pusher; about a picture's
                                         // packets, so that small pictures gather
constexpr uint32_t kFlushAtOnce = 50;  // above: leaves with the next packet; a key picture is longer than the
                                       // pusher's read, and a socket should begin to take it
constexpr uint32_t kGiveUp = 1000;     // above, though flushed: the player is given up; some seconds of media
constexpr uint32_t kBlockedSends = 20;  // from here on a live player gets video alone, and at exactly this
                                        // one loses what waits ([SERVER] AutoDropDataWhenCrowded)
constexpr uint32_t kWaitingReplies = 1000;  // above: a peer that asks and does not read is given up

// Which of the tracks with a payload type is meant, if two of a program share one.
enum class TrackChoice {
    Described,  // the first of the description: what a pusher sends is its, whether a player set it up or not
    SetUp,      // the first that the player set up: a queue holds packets of no other
};

// The track of the session that carries the payload type, when it is set up; else -1.
inline int TrackOfPayload(const Session *pSession, uint8_t nPayloadType, TrackChoice eChoice)
{
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const SessionTrack *pTrack = &pSession->tracks[i];
        if (pTrack->nPayloadType == nPayloadType && (pTrack->bSetUp || eChoice == TrackChoice::Described))
            return pTrack->bSetUp ? i : -1;
    }
    return -1;
}

// The track set up that a media block of the session's queue belongs to; -1 when none does.
inline int TrackOfBlock(const Session *pSession, const DataBlock *pBlock)
{
    uint32_t nAt = pSession->out.bInterleaved ? kInterleaveBytes + 1 : 1;
    if (pBlock->len <= nAt)
        return -1;
    return TrackOfPayload(pSession, BlockData(pBlock)[nAt] & 0x7F, TrackChoice::SetUp);
}

// Whether a block leaves by a media socket.
inline int IsDatagram(const Session *pSession, const DataBlock *pBlock)
{
    return (pBlock->nFlags & DB_MEDIA) && !pSession->out.bInterleaved;
}

// Queues a player's own copy of a cached packet. Returns the track it is for, or -1 when it was left out.
int QueueCopy(Session *pSession, const DataBlock *pBlock);

// Puts a block before another one (null: at the end); behind it when part of that has left already, so that
// the stream stays whole. The queue owns it from here on.
void QueueBefore(Session *pSession, DataBlock *pBlock, DataBlock *pBefore);

// Whether a peer lets replies, or requests to it, wait without end because it does not read.
int RepliesPileUp(const Session *pSession);

// Drop what waits; of what is partly written the rest stays, so that the stream remains whole. Packets of a
// recording give their RTP sequence numbers back.
void QueueDropAll(Session *pSession);
void QueueDropMedia(Session *pSession);    // replies and reports stay
void QueueDropCrowded(Session *pSession);  // the media, and the head of whatever kind

}  // namespace orx
