// How many sessions one address may hold without doing anything, and for how long: the [GUARD] keys
// MaxSessionsPerAddress and StateTimeout. And how long a player's socket may take nothing. Scheduler thread
// only.
#pragma once

#include "base/netaddr.h"

namespace orx {

// Forgets what an earlier server left. Before the server's threads start.
void LimitsInit();

// Whether the address of a new connection has so many sessions that neither play, push nor were admitted that
// it gets no further one (see AddrCounted). The box itself (127.0.0.0/8, ::1) is exempt, unless the
// connection came through a front; each bridge of the relay counts by itself.
int AddressIsFull(const NetAddr *pAddr, int bFronted);

// A session was made: sees to it that those which do nothing for too long are looked for.
void LimitsWatch();

}  // namespace orx
