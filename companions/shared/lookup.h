// Names looked up without anybody waiting: each by a detached thread of its own, so that one name server that
// never answers holds up nobody else. The loop's thread.
#pragma once

#include <string>
#include <vector>

#include "base/netaddr.h"
#include "shared/loop.h"

namespace orx {

struct Lookup;

struct LookupResult {
    std::vector<NetAddr> addresses;  // in the order in which to try them; empty: none is known
    std::string why;                 // then: a few words
};

// Begins; an address is given back as it is. pfnDone comes once from the loop, never from inside of this
// call. Returns null without threads or memory.
Lookup *LookupStart(Loop *pLoop, const std::string &host, int nPort,
                    void (*pfnDone)(void *pUser, const LookupResult *pResult), void *pUser);
// Gives it up before pfnDone has come; it does not come any more. The thread ends when the name server has
// answered it. Ignores null.
void LookupDrop(Lookup *pLookup);

}  // namespace orx
