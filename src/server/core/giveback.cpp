#include "server/core/giveback.h"

#include <malloc.h>

#include <algorithm>
#include <cstdint>

#include "runtime/clock.h"
#include "server/core/registry.h"

namespace orx {

// Walking the heap takes 30 us a megabyte: so seldom that a flood that comes and goes costs nothing.
constexpr int64_t kWorthIt = 16 << 20;
constexpr int64_t kBetweenNs = 10000000000;

static int64_t g_nPeakBytes = 0;  // most that was held since memory was given back
static int64_t g_nNextNs = 0;

void GiveMemoryBack()
{
    int64_t nHeld = g_server.nCachedBytes + g_server.nQueuedBytes;
    g_nPeakBytes = std::max(g_nPeakBytes, nHeld);
    if (g_nPeakBytes - nHeld < kWorthIt)
        return;
    int64_t nNow = ClockNs();
    if (nNow < g_nNextNs)
        return;
    g_nNextNs = nNow + kBetweenNs;
    g_nPeakBytes = nHeld;
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

}  // namespace orx
