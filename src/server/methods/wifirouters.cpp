#include "server/methods/wifirouters.h"

#include <atomic>
#include <cstdlib>
#include <utility>

#include "base/textbuf.h"
#include "net/wifiscan.h"
#include "runtime/clock.h"

namespace orx {

struct WifiList {
    char *sz = nullptr;  // owned, from malloc; null when the scan failed
    size_t nLen = 0;
};

static struct WifiScanState {
    Thread thread;
    int bRuns = 0;         // the thread was created and not yet joined
    uint32_t nNumber = 0;  // of the scan that runs or ran last; never 0 once there was one
    char szInterface[64] = "";
    std::atomic<int> bDone{0};  // set by the thread at its end; until then the next one is its own
    WifiList found;             // by the scan that runs
    WifiList last;              // by the one that ended last
    uint32_t nLastMs = 0;       // ClockMs at which that was noticed
} g_scan;

static void ScanEntry(Thread *pThread)
{
    g_scan.found.sz = WifiScan(g_scan.szInterface, &g_scan.found.nLen, pThread);
    g_scan.bDone.store(1, std::memory_order_release);
}

static void KeepResult(WifiList list)
{
    free(g_scan.last.sz);
    g_scan.last = list;
    g_scan.nLastMs = ClockMs();
}

// Takes over what a scan that has ended found.
static void Harvest()
{
    if (!g_scan.bRuns || !g_scan.bDone.load(std::memory_order_acquire))
        return;
    ThreadJoin(&g_scan.thread);  // which returns just now
    g_scan.bRuns = 0;
    KeepResult(std::exchange(g_scan.found, {}));
}

static void Begin(const char *szInterface)
{
    if (++g_scan.nNumber == 0)
        g_scan.nNumber = 1;
    TextCopy(g_scan.szInterface, sizeof(g_scan.szInterface), szInterface);
    g_scan.bDone = 0;
    g_scan.bRuns = ThreadCreate(&g_scan.thread, ScanEntry, nullptr);
    if (!g_scan.bRuns)
        KeepResult({});
}

WifiResult WifiRoutersAsk(const char *szInterface, uint32_t nFreshMs, uint32_t *pTicket, const char **ppList,
                          size_t *pnList)
{
    Harvest();
    int bFresh = g_scan.last.sz && ClockMs() - g_scan.nLastMs < nFreshMs;
    if (*pTicket == 0 && !bFresh) {
        if (!g_scan.bRuns)
            Begin(szInterface);
        *pTicket = g_scan.nNumber;
    }
    if (*pTicket != 0 && *pTicket == g_scan.nNumber && g_scan.bRuns)
        return WifiResult::Running;
    *ppList = g_scan.last.sz;
    *pnList = g_scan.last.nLen;
    return g_scan.last.sz ? WifiResult::Ready : WifiResult::Failed;
}

void WifiRoutersStop()
{
    ThreadJoin(&g_scan.thread);
    free(g_scan.found.sz);
    free(g_scan.last.sz);
    g_scan.bRuns = 0;
    g_scan.found = {};
    g_scan.last = {};
}

}  // namespace orx
