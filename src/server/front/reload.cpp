#include "server/front/reload.h"

#include <atomic>
#include <cstring>
#include <new>
#include <utility>

#include "base/assertion.h"
#include "base/console.h"
#include "base/eventlog.h"
#include "base/inifile.h"
#include "base/textbuf.h"
#include "record/storage.h"
#include "runtime/mutexguard.h"
#include "runtime/task.h"
#include "runtime/thread.h"
#include "server/core/configcheck.h"
#include "server/core/doubts.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/front/follow.h"
#include "server/front/logs.h"
#include "server/front/startdoubts.h"
#include "server/methods/accountfile.h"

namespace orx {

static constexpr size_t kKeysSize = 1024;  // all keys that count from the next start

// One reading of the file: a thread of its own fills it in, which may wait for a name to be looked up; the
// scheduler thread takes it over.
struct Reading {
    ListNode node;  // first
    ReloadDone pfnDone = nullptr;
    void *pContext = nullptr;
    char szPath[sizeof(Settings::szConfigPath)] = "";
    Settings read;
    SettingLists lists;
    DoubtList doubts;
    AccountTable *pAccounts = nullptr;  // owned
    char szWhyNot[768] = "";            // empty: it is taken
};

static std::atomic<int> g_bSignals{0};  // a signal asks for a reading, too
static time_t g_tRead = 0;              // scheduler thread

static struct Readings {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the next two
    List waiting;                                       // one follows another; owned
    int bDetached = 0;                                  // the scheduler is about to end
    // The scheduler thread's.
    Reading *pRuns = nullptr;  // under way; owned
    Thread thread;             // of the last one
} g_readings;

// --- Reading: on its thread ---

static void Refuse(Reading *p, const char *szWhy)
{
    TextCopy(p->szWhyNot, sizeof(p->szWhyNot), szWhy);
}

// A long file is a fault of peers unless that is survived, as the file itself says.
static int IsTooLong(const Reading *p)
{
    return ProfileIsLong(p->szPath) && !p->read.bSurvivePeerFaults;
}

static void RefuseFault(Reading *p)
{
    char szFault[80] = "";
    if (p->read.szRecordPath && SettingsUdpRangeFault(&p->read, szFault, sizeof(szFault)))
        Refuse(p, szFault);
    else
        Refuse(p, "the server would not start with it");
}

// What keeps a server that is started strictly from starting keeps the values from being taken.
static void RefuseDoubts(Reading *p)
{
    for (size_t i = 0; i < p->doubts.nDoubts && !p->szWhyNot[0]; i++)
        if (p->doubts.pDoubts[i].bRefuses)
            Refuse(p, p->doubts.pDoubts[i].szText);
}

static void Read(Reading *p)
{
    ConfigState eState = ConfigCheck(p->szPath, &p->read, &p->doubts);
    if (eState == ConfigState::Missing)
        Refuse(p, "it is missing, empty or cannot be read");
    else if (eState == ConfigState::Fails)
        RefuseFault(p);
    else if (IsTooLong(p))
        Refuse(p, "it has 8192 bytes or more and SurvivePeerFaults is not 1");
    else if (DoubtsStrict(p->read.bStrictConfig))
        RefuseDoubts(p);
    if (p->szWhyNot[0])
        return;
    DoubtsSay(&p->doubts, 0);
    ListenerDoubts(&p->doubts);  // said at start, and true still
    ListsParse(&p->lists, &p->read);
    StorageMakeDir(p->read.szRecordPath);
    p->pAccounts = AccountFileRead(p->szPath);
}

// --- Taking over: the scheduler thread's ---

static void Say(const char *szLine)
{
    char szText[2048];
    TextBuf text{szText, sizeof(szText)};
    TextAdd(&text, "%s\n", szLine);
    ConsoleError(szText, text.nLen);
}

static void NoteSettings()
{
    g_tRead = time(nullptr);
    g_bSignals = g_settings.szLogLevel[0] || g_settings.szLogFile[0] || g_settings.szStatusSocket[0];
}

static void TellTaken(const char *szPath, const char *szRestart)
{
    char szLine[kKeysSize + 512];
    TextBuf text{szLine, sizeof(szLine)};
    TextAdd(&text, "The configuration was read again: %s.", szPath);
    if (szRestart[0])
        TextAdd(&text, " From the next start only count: %s.", szRestart);
    Say(szLine);
    EventSay(EventLevel::Info, "config.read", {EventText("file", szPath), EventText("restart", szRestart)});
}

static void TellRefused(const char *szPath, const char *szWhyNot)
{
    char szLine[1024 + 512];
    TextBuf text{szLine, sizeof(szLine)};
    TextAdd(&text, "The configuration was not read again and stays as it was: %s: %s.", szPath, szWhyNot);
    Say(szLine);
    EventSay(EventLevel::Warn, "config.refused", {EventText("file", szPath), EventText("reason", szWhyNot)});
}

static void Take(Reading *p, TextBuf *pRestart)
{
    SettingsTake(&g_settings, &p->read, pRestart);
    std::swap(g_doubts, p->doubts);
    FollowSettings(&p->lists);
    AccountFileTake(std::exchange(p->pAccounts, nullptr));
    EventsOpen();
    NoteSettings();
}

static void FreeReading(void * /*pUser*/, void *pItem)
{
    auto *p = static_cast<Reading *>(pItem);
    SettingsFree(&p->read);
    DoubtsFree(&p->doubts);
    AccountTableFree(p->pAccounts);
    delete p;
}

static void TakeOver(Reading *p)
{
    char szRestart[kKeysSize] = "";
    TextBuf restart{szRestart, sizeof(szRestart)};
    int bTaken = p->szWhyNot[0] == '\0';
    if (bTaken) {
        Take(p, &restart);
        TellTaken(p->szPath, szRestart);
    } else {
        AccountFileKeep();
        TellRefused(p->szPath, p->szWhyNot);
    }
    const ReloadResult result{bTaken, p->szWhyNot, szRestart};
    if (p->pfnDone)
        p->pfnDone(p->pContext, &result);
    FreeReading(nullptr, p);
}

// --- Asking ---

static int OnAsked(Task *, uint32_t, uint32_t, uint32_t);

static int OnRead(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    g_readings.pRuns = nullptr;
    TakeOver(static_cast<Reading *>(TaskArgument(pTask)));
    return OnAsked(pTask, 0, 0, 0);
}

static void ReadingEntry(Thread *pThread)
{
    auto *p = static_cast<Reading *>(pThread->pArgument);
    Read(p);
    MutexGuard lock(&g_readings.mutex);
    if (!g_readings.bDetached)
        TaskSchedule(&g_server.scheduler, OnRead, 0, 0, p);
}

// Begins with the next one, unless one is under way.
static int OnAsked(Task *, uint32_t, uint32_t, uint32_t)
{
    if (g_readings.pRuns)
        return -1;
    {
        MutexGuard lock(&g_readings.mutex);
        g_readings.pRuns = static_cast<Reading *>(ListFirst(&g_readings.waiting, LIST_DETACH));
    }
    if (!g_readings.pRuns)
        return -1;
    ThreadJoin(&g_readings.thread);  // its last act was to tell of its end
    if (!ThreadCreate(&g_readings.thread, ReadingEntry, g_readings.pRuns)) {
        ThreadJoin(&g_readings.thread);
        Refuse(g_readings.pRuns, "there is no thread to read it");
        TakeOver(std::exchange(g_readings.pRuns, nullptr));
    }
    return -1;
}

void ReloadInit()
{
    NoteSettings();
    g_readings.bDetached = 0;
    ListInit(&g_readings.waiting, nullptr);
    ListUsedDefMap(&g_readings.waiting, 0);
    ListDataProc(&g_readings.waiting, FreeReading, nullptr);
}

void ReloadDetach()
{
    MutexGuard lock(&g_readings.mutex);
    g_readings.bDetached = 1;
}

void ReloadEnd()
{
    ThreadJoin(&g_readings.thread);
    if (g_readings.pRuns)
        FreeReading(nullptr, std::exchange(g_readings.pRuns, nullptr));
    ListDestroy(&g_readings.waiting);
}

void ReloadAsk(ReloadDone pfnDone, void *pContext)
{
    auto *p = new (std::nothrow) Reading;
    ORX_ASSERT(p, "p");
    p->pfnDone = pfnDone;
    p->pContext = pContext;
    TextCopy(p->szPath, sizeof(p->szPath), g_settings.szConfigPath);
    MutexGuard lock(&g_readings.mutex);
    if (g_readings.bDetached) {
        FreeReading(nullptr, p);
        return;
    }
    ListAppend(&g_readings.waiting, p);
    TaskSchedule(&g_server.scheduler, OnAsked, 0, 0, nullptr);
}

int ReloadSignal(ReloadDone pfnDone)
{
    if (!g_bSignals)
        return 0;
    EventLogReopen();
    ReloadAsk(pfnDone, nullptr);
    return 1;
}

time_t ReloadTime()
{
    return g_tRead;
}

}  // namespace orx
