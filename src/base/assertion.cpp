#include "base/assertion.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace orx {

static std::atomic<int> g_bSurvivePeerFaults{0};  // written once at start-up, read by any thread

static void Report(const char *szText, const char *szFunction, const char *szFile, int nLine)
{
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", szFile, nLine, szFunction, szText);
    fflush(stderr);
}

void AssertFailed(const char *szText, const char *szFunction, const char *szFile, int nLine)
{
    Report(szText, szFunction, szFile, nLine);
    abort();
}

int PeerAssertFailed(const char *szText, const char *szFunction, const char *szFile, int nLine)
{
    Report(szText, szFunction, szFile, nLine);
    if (!g_bSurvivePeerFaults.load(std::memory_order_relaxed))
        abort();
    return 0;
}

void AssertSurvivePeerFaults(int bSurvive)
{
    g_bSurvivePeerFaults.store(bSurvive, std::memory_order_relaxed);
}

}  // namespace orx
