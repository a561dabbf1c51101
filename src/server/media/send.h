// The output side of a session: replies and media share one queue and leave in its order. A reply is put
// before the packets of a recording that are not yet due. Scheduler thread only.
#pragma once

#include <cstddef>

#include "base/datablock.h"
#include "server/core/session.h"

// The lines that nearly every reply has in common.
#define ORX_SERVER_LINE "Server: Orx/2.3.1.2\r\n"
#define ORX_NO_CACHE "Pragma: no-cache\r\nCache-Control: no-cache\r\n"

namespace orx {

// The track set up that a media block of the session's queue belongs to, by its RTP payload type; -1 when
// none does.
int BlockTrack(const Session *pSession, const DataBlock *pBlock);

// Sends from the head of the queue; pPort null: the socket is chosen per block. bPush: a call from the
// fan-out or the file sender, which come again by themselves. Returns 1 when the queue was drained or the
// rest deferred, 0 on a socket error: the caller ends the session.
int SendDataEx(Session *pSession, Port *pPort, int bPush);

// Tells how much media a start from the cache has put into the queue. With [INTEROP] StandardPlayers it gets
// the time that a player needs to take it: over UDP it leaves at four times real time, over TCP it may wait
// without counting as a blocked connection.
void SendStartBurst(Session *pSession, uint32_t nBlocks);

// Queues a text and sends. Result of SendDataEx; 0 as well for a peer that lets more than 1000 such texts
// wait.
int SendReply(Session *pSession, Port *pPort, const void *pText, size_t nLen);

// One operation: the reply, an optional body behind it, and an optional queued block that both stand before.
int SendReply2(Session *pSession, Port *pPort, const void *pText, size_t nLen, const void *pBody,
               size_t nBody, DataBlock *pBefore);

// Formats a reply and sends it; the session's CSeq is not touched. Texts that do not fit 4096 bytes are
// refused (0).
__attribute__((format(printf, 3, 4))) int ReplyFormat(Session *pSession, Port *pPort, const char *szFormat,
                                                      ...);

// "RTSP/1.0 <status>" with Server, CSeq and the two cache lines; advances the session's CSeq. Result of
// sending.
int ReplyStatus(Session *pSession, Port *pPort, const char *szStatus);
// "200 OK" in that form, with the date.
int ReplyDated(Session *pSession, Port *pPort);
// The form of ReplyStatus without the cache lines.
int ReplyShort(Session *pSession, Port *pPort, const char *szStatus);
// Ends a request whose peer assertion failed and was survived: 400, and 0 so that the session is closed.
int ReplyPeerFault(Session *pSession, Port *pPort);

}  // namespace orx
