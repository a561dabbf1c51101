#include "server/media/recordcontrol.h"

#include <strings.h>

#include <cstring>
#include <utility>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/core/settings.h"

namespace orx {

static constexpr uint32_t kAlwaysAgainMs = 5000;  // after the end of a recording that is to run always

// Takes a recorder out and moves the last one into its place.
static Recorder *TakeRecorder(Program *pProg, int i)
{
    Recorder *pRecorder = pProg->recorders[i];
    pProg->recorders[i] = pProg->recorders[--pProg->nRecorders];
    pProg->recorders[pProg->nRecorders] = nullptr;
    return pRecorder;
}

static void DropOver(Program *pProg, int i)
{
    if (pProg->recorders[i]->bOver)
        RecorderClose(TakeRecorder(pProg, i));
}

// Whether a name is another's, which stands for any rest when it ends with '*'.
static int Matches(const char *szName, const char *szPattern, size_t nPattern)
{
    int bRest = nPattern > 0 && szPattern[nPattern - 1] == '*';
    return bRest ? strncasecmp(szName, szPattern, nPattern - 1) == 0
                 : strlen(szName) == nPattern && strncasecmp(szName, szPattern, nPattern) == 0;
}

int RecordedAlways(const char *szPath)
{
    const char *p = g_settings.szRecordAlways;
    for (size_t nName; g_settings.bRecord && *(p += strspn(p, " \t")); p += nName) {
        nName = strcspn(p, " \t");
        if (Matches(PathName(szPath), p, nName))
            return 1;
    }
    return 0;
}

int RecordersWant(const Program *pProg)
{
    return pProg->always.bWanted || (g_settings.bNeverLose && pProg->nRecorders > 0);
}

// What could not be opened is said once, and again when it was open in between.
static void EndAlways(Program *pProg)
{
    AlwaysRecorded *pAlways = &pProg->always;
    int bFailed = !pAlways->pRecorder->bOpened;
    if (bFailed && !pAlways->bFailed)
        print("Program(%s) cannot be recorded now: this is tried every %u s.\r\n", pProg->Uri,
              kAlwaysAgainMs / 1000);
    pAlways->bFailed = bFailed;
    pAlways->bTried = 1;
    pAlways->nTriedMs = ClockMs();
    RecorderClose(std::exchange(pAlways->pRecorder, nullptr));
}

static void BeginAlways(Program *pProg)
{
    AlwaysRecorded *pAlways = &pProg->always;
    RecordOrder order;
    order.bAgain = pAlways->bFailed;
    RecorderOpening *pOpening = nullptr;
    Recorder *pRecorder = RecorderNew(pProg, &order, 0, &pOpening);
    if (pRecorder)
        RecorderOpen(pRecorder, pOpening);
    pAlways->pRecorder = pRecorder;
}

static void CloseAlways(Program *pProg)
{
    pProg->always.bRenew = 0;
    if (pProg->always.pRecorder)
        RecorderClose(std::exchange(pProg->always.pRecorder, nullptr));
}

// With the packet at hand, the newest of the cache, the next recording begins where this one ends.
static void RenewAlways(Program *pProg)
{
    Recorder *pRecorder = pProg->always.pRecorder;
    if (pRecorder)
        pRecorder->szEndReason = "it goes on under other settings";
    CloseAlways(pProg);
    if (pRecorder)
        BeginAlways(pProg);
}

static void WriteAlways(Program *pProg, const DataBlock *pBlock)
{
    AlwaysRecorded *pAlways = &pProg->always;
    if (pAlways->pRecorder && pAlways->pRecorder->bOver)
        EndAlways(pProg);
    if (pAlways->bRenew && BlockStartsKey(pBlock) && ClockDiff(ClockMs(), pAlways->nRenewMs) >= 0)
        RenewAlways(pProg);
    if (pAlways->pRecorder) {
        RecorderWrite(pAlways->pRecorder, pProg, pBlock);
        return;
    }
    int bWait = pAlways->bTried && ClockMs() - pAlways->nTriedMs < kAlwaysAgainMs;
    if (!bWait && BlockStartsKey(pBlock))
        BeginAlways(pProg);  // with this block, the newest of the cache
}

void RecordersWrite(Program *pProg, const DataBlock *pBlock)
{
    if (pProg->always.bWanted)
        WriteAlways(pProg, pBlock);
    for (int i = pProg->nRecorders - 1; i >= 0; i--) {
        RecorderWrite(pProg->recorders[i], pProg, pBlock);
        DropOver(pProg, i);
    }
}

void RecordersFollowSettings()
{
    for (Program *p = FirstProgram(); p; p = NextProgram(p)) {
        AlwaysRecorded *pAlways = &p->always;
        pAlways->bWanted = p->bLive && RecordedAlways(p->Uri);
        if (!pAlways->bWanted)
            CloseAlways(p);
        int nMs = pAlways->pRecorder ? RecorderRenewMs(pAlways->pRecorder, p) : -1;
        pAlways->bRenew = nMs >= 0;
        pAlways->nRenewMs = ClockMs() + static_cast<uint32_t>(nMs);
    }
}

void RecordersClose(Program *pProg)
{
    CloseAlways(pProg);
    while (pProg->nRecorders > 0)
        RecorderClose(TakeRecorder(pProg, pProg->nRecorders - 1));
}

// Takes the first manual recording out; others end only by their limits.
static Recorder *TakeManual(Program *pProg)
{
    for (int i = 0; i < pProg->nRecorders; i++)
        if (pProg->recorders[i]->nKind == RECORD_MANUAL && !pProg->recorders[i]->bOver)
            return TakeRecorder(pProg, i);
    return nullptr;
}

int StopRecord(Session *pSession)
{
    HeldJob *pHeld = HeldJobTake(pSession);
    if (!pHeld) {
        Recorder *pRecorder = TakeManual(pSession->pProg);
        HeldJob *pClosing = pRecorder ? RecorderClosing(pRecorder, 1) : nullptr;
        if (!pClosing)
            return 1;
        pHeld = HeldJobPost(pSession, &pRecorder->lane, pClosing);
    }
    if (!pHeld)
        return 0;
    pHeld->pfnFree(pHeld);
    return 1;
}

// The cached seconds ahead of an alarm, as far back as the program goes. Uptime counts begun seconds; the age
// of a young program is told by the clock of milliseconds.
static uint32_t PreRecordSeconds(const Program *pProg, int nKind)
{
    if (nKind != RECORD_ALARM)
        return 0;
    uint32_t nAge = ClockUptime() - pProg->tBorn;
    if (nAge <= g_settings.nPreRecordLen)
        nAge = (ClockMs() - pProg->nBornMs) / 1000;
    return nAge < g_settings.nPreRecordLen ? nAge : g_settings.nPreRecordLen;
}

// Adds a recorder to the program, which feeds it from now on, and has its file opened. Returns the opening
// when that is done already; else null with *peResult.
static HeldJob *Begin(Session *pSession, const RecordOrder *pOrder, RecordStart *peResult)
{
    Program *pProg = pSession->pProg;
    *peResult = RecordStart::Runs;
    for (int i = pProg->nRecorders - 1; i >= 0; i--)
        DropOver(pProg, i);
    if (pProg->nRecorders == kMaxRecorders)
        return nullptr;
    RecorderOpening *pOpening = nullptr;
    Recorder *pRecorder = RecorderNew(pProg, pOrder, PreRecordSeconds(pProg, pOrder->nKind), &pOpening);
    *peResult = pRecorder ? RecordStart::Waits : RecordStart::NoSpace;
    if (!pRecorder)
        return nullptr;
    pProg->recorders[pProg->nRecorders++] = pRecorder;
    return HeldJobPost(pSession, &pRecorder->lane, &pOpening->held);
}

RecordStart StartRecord(Session *pSession, const RecordOrder *pOrder)
{
    Program *pProg = pSession->pProg;
    if (!ORX_PEER_ASSERT(pProg->bLive && pProg->desc.szSdp, "pProg->bLive && pProg->szSdp"))
        return RecordStart::Fault;
    RecordStart eResult = RecordStart::Waits;
    HeldJob *pHeld = HeldJobTake(pSession);
    if (!pHeld)
        pHeld = Begin(pSession, pOrder, &eResult);
    if (!pHeld)
        return eResult;
    int bOpen = reinterpret_cast<RecorderOpening *>(pHeld)->bOpen;
    pHeld->pfnFree(pHeld);
    for (int i = pProg->nRecorders - 1; i >= 0 && !bOpen; i--)
        DropOver(pProg, i);
    return bOpen ? RecordStart::Runs : RecordStart::NoSpace;
}

}  // namespace orx
