#include "base/assertion.h"

#include <atomic>
#include <cstdlib>

#include "base/console.h"
#include "base/textbuf.h"

namespace orx {

static std::atomic<int> g_bSurvivePeerFaults{0};  // written once at start-up, read by any thread

static void Report(const char *szText, const char *szFunction, const char *szFile, int nLine)
{
    char room[1024];  // our own texts, which are short
    TextBuf text{room, sizeof(room)};
    TextAdd(&text, "%s:%d: %s: Assertion `%s' failed.\n", szFile, nLine, szFunction, szText);
    ConsoleError(room, text.nLen);
}

void AssertFailed(const char *szText, const char *szFunction, const char *szFile, int nLine)
{
    Report(szText, szFunction, szFile, nLine);
    ConsoleFlush(1);
    abort();
}

int PeerAssertFailed(const char *szText, const char *szFunction, const char *szFile, int nLine)
{
    Report(szText, szFunction, szFile, nLine);
    if (AssertPeerFaultsSurvived())
        return 0;
    ConsoleFlush(1);
    abort();
}

int AssertPeerFaultsSurvived()
{
    return g_bSurvivePeerFaults.load(std::memory_order_relaxed);
}

void AssertSurvivePeerFaults(int bSurvive)
{
    g_bSurvivePeerFaults.store(bSurvive, std::memory_order_relaxed);
}

}  // namespace orx
