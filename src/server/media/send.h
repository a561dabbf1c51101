// The way out of a session: from the head of its queue through the pace to the sockets, and the timers that
// come again for what could not leave. Scheduler thread only.
#pragma once

#include <cstddef>

#include "base/datablock.h"
#include "server/core/session.h"

namespace orx {

// Sends from the head of the queue; pPort null: the socket is chosen per block. bPush: a call that comes
// again by itself, from the fan-out, the file sender or a start. Returns 1 when the queue was drained or the
// rest deferred, 0 on a socket error or for a block that has no socket: the caller ends the session.
int SendDataEx(Session *pSession, Port *pPort, int bPush);

// Tells how much media a start from the cache has put into the queue. With [INTEROP] StandardPlayers it gets
// the time that a player needs to take it: over UDP it leaves at four times real time, over TCP it may wait
// without counting against the bounds of the queue.
void SendStartBurst(Session *pSession, uint32_t nBlocks);
// The same of what the start has put behind that since.
void SendStartMore(Session *pSession, uint32_t nBlocks);

// Queues a text and sends. A reply is put before the packets of a recording that are not yet due. Result of
// SendDataEx; 0 as well for a peer that lets more than a thousand such texts wait.
int SendReply(Session *pSession, Port *pPort, const void *pText, size_t nLen);

// Queues a request that the session with the handle nAsker makes of a pusher, and sends. Result of
// SendDataEx.
int SendQuestion(Session *pPusher, Port *pPort, const void *pText, size_t nLen, uint32_t nAsker);

// One operation: the reply, an optional body behind it, and the place of the queue that both stand before
// (kQueueEnd: none).
int SendReply2(Session *pSession, Port *pPort, const void *pText, size_t nLen, const void *pBody,
               size_t nBody, uint32_t nBefore);

}  // namespace orx
