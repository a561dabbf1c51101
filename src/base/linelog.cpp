#include "base/linelog.h"

#include <cstdlib>
#include <cstring>

#include <utility>

namespace orx {

constexpr int kLinesAtOnce = 32;  // some milliseconds, where a file is opened and closed for each

// A line that waits, with its text behind it; from malloc.
struct HeldLine {
    HeldLine *pNext;
    time_t tSaid;
    size_t nBytes;        // of memory
    unsigned nLostAhead;  // lines between the one before and this one
};

// Queues a line when others are to write it. Returns 0 when the caller has to.
static int QueueLine(LineLog *pLog, time_t tSaid, const char *szLine)
{
    OutputLock lock(&pLog->mutex);
    size_t nText = strlen(szLine) + 1, nBytes = sizeof(HeldLine) + nText;
    if (!pLog->pfnCall)
        return 0;
    auto *pLine =
        pLog->nBytes + nBytes <= kLinesHeldBytes ? static_cast<HeldLine *>(malloc(nBytes)) : nullptr;
    if (!pLine) {
        pLog->nLost++;
        return 1;
    }
    *pLine = {nullptr, tSaid, nBytes, std::exchange(pLog->nLost, 0)};
    memcpy(pLine + 1, szLine, nText);
    pLog->nBytes += nBytes;
    if (pLog->pFirst)
        pLog->pLast->pNext = pLine;
    else
        pLog->pFirst = pLine;
    pLog->pLast = pLine;
    return 1;
}

// The first line, the caller's; null when none is left, with those that were lost at the end.
static HeldLine *TakeLine(LineLog *pLog, unsigned *pnLost)
{
    OutputLock lock(&pLog->mutex);
    HeldLine *pLine = pLog->pFirst;
    *pnLost = pLine ? pLine->nLostAhead : std::exchange(pLog->nLost, 0);
    if (!pLine)
        return nullptr;
    pLog->nBytes -= pLine->nBytes;
    pLog->pFirst = pLine->pNext;
    return pLine;
}

// The first line of the queue into the file. Returns 0 when there was none.
static int WriteQueuedLine(LineLog *pLog)
{
    unsigned nLost = 0;
    HeldLine *pLine = TakeLine(pLog, &nLost);
    if (nLost > 0)
        pLog->pfnWriteLost(pLine ? pLine->tSaid : time(nullptr), nLost);
    if (pLine)
        pLog->pfnWrite(pLine->tSaid, reinterpret_cast<const char *>(pLine + 1));
    free(pLine);
    return pLine != nullptr;
}

int LineLogWriteSome(LineLog *pLog)
{
    for (int i = 0; i < kLinesAtOnce && WriteQueuedLine(pLog); i++) {
    }
    OutputLock lock(&pLog->mutex);
    pLog->bCalled = pLog->pFirst || pLog->nLost > 0;
    return !pLog->bCalled;
}

void LineLogDivert(LineLog *pLog, void (*pfnCall)())
{
    {
        OutputLock lock(&pLog->mutex);
        pLog->pfnCall = pfnCall;
        pLog->bCalled = 0;
    }
    while (!pfnCall && WriteQueuedLine(pLog)) {
    }
}

// Has the queue written, unless that is under way.
static void CallWriter(LineLog *pLog)
{
    void (*pfnCall)() = nullptr;
    {
        OutputLock lock(&pLog->mutex);
        if (!std::exchange(pLog->bCalled, 1))
            pfnCall = pLog->pfnCall;
    }
    if (pfnCall)
        pfnCall();
}

void LineLogSay(LineLog *pLog, time_t tSaid, const char *szLine)
{
    if (QueueLine(pLog, tSaid, szLine))
        CallWriter(pLog);
    else
        pLog->pfnWrite(tSaid, szLine);
}

}  // namespace orx
