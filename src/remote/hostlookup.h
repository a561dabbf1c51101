// A host-name look-up that nobody has to wait for: the resolver may take many seconds when the network is
// down, and a thread that is to stop cannot interrupt it. It runs on a thread of its own, which keeps its
// share of the record when the asker has lost interest. Used by one thread.
#pragma once

#include <cstdint>

namespace orx {

struct HostLookup;

// Starts looking up a dotted address (known at once) or a name. Returns the look-up, which HostLookupFree
// ends, or null for an empty or too long (over 255 characters) text or without memory or thread.
HostLookup *HostLookupStart(const char *szHost);
// Returns 1 with the IPv4 address (host order) in *pIp, 0 for an unknown host, -1 as long as it is not known.
int HostLookupResult(const HostLookup *pLookup, uint32_t *pIp);
// Gives the look-up up, whether it has ended or not. Ignores null.
void HostLookupFree(HostLookup *pLookup);

}  // namespace orx
