// The relays of the web port when it is to be fast ([INTEROP] FastWebPort): one thread connects them all to
// the web server and carries bytes both ways as soon as they come. Either side may end its direction before
// the other, and one that does not read costs what one read brought, no more. Start to stop: the proxy's
// owner; adding and counting: the proxy thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "remote/httprelay.h"

namespace orx {

struct FastRelays;

// Starts the thread. What is common has to outlive it. Returns null without memory, descriptor or thread.
FastRelays *FastRelaysStart(const HttpRelayCommon *pCommon);
// Ends thread and relays and closes their connections. Accepts null.
void FastRelaysStop(FastRelays *pRelays);
// Takes over the client's socket and relays it, beginning with the nFirst bytes given (copied). Without
// memory it is closed.
void FastRelaysAdd(FastRelays *pRelays, int fdClient, uint64_t nClientIp, const void *pFirst, size_t nFirst);
// Adds how many relays there are, and how many of a client's address (AddrCounted).
void FastRelaysCount(FastRelays *pRelays, uint64_t nClientIp, unsigned *pnAll, unsigned *pnSame);

}  // namespace orx
