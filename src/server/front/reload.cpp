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
#include "runtime/diskthread.h"
#include "server/core/configcheck.h"
#include "server/core/doubts.h"
#include "server/core/registry.h"
#include "server/core/settings.h"
#include "server/front/follow.h"
#include "server/front/logs.h"
#include "server/front/startdoubts.h"

namespace orx {

static constexpr size_t kKeysSize = 1024;  // all keys that count from the next start

// One reading of the file: the disk thread fills it in, the scheduler thread takes it over.
struct Reading {
    DiskJob job;  // first
    ReloadDone pfnDone = nullptr;
    void *pContext = nullptr;
    char szPath[sizeof(Settings::szConfigPath)] = "";
    Settings read;
    SettingLists lists;
    DoubtList doubts;
    char szWhyNot[768] = "";  // empty: it is taken
};

static DiskLane g_lane;                 // one reading follows another
static std::atomic<int> g_bSignals{0};  // a signal asks for a reading, too
static time_t g_tRead = 0;              // scheduler thread

// --- Reading: the disk thread's ---

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

static int RunReading(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Reading *>(pJob);
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
        return 1;
    ListsParse(&p->lists, &p->read);
    StorageMakeDir(p->read.szRecordPath);
    return 1;
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
    EventsOpen();
    NoteSettings();
}

static void FreeReading(Reading *p)
{
    SettingsFree(&p->read);
    DoubtsFree(&p->doubts);
    delete p;
}

static void OnRead(DiskJob *pJob)
{
    auto *p = reinterpret_cast<Reading *>(pJob);
    if (!g_server.scheduler.bReady) {  // the server stops
        FreeReading(p);
        return;
    }
    DoubtsSay(&p->doubts, 0);
    char szRestart[kKeysSize] = "";
    TextBuf restart{szRestart, sizeof(szRestart)};
    int bTaken = p->szWhyNot[0] == '\0';
    if (bTaken) {
        Take(p, &restart);
        TellTaken(p->szPath, szRestart);
    } else {
        TellRefused(p->szPath, p->szWhyNot);
    }
    const ReloadResult result{bTaken, p->szWhyNot, szRestart};
    if (p->pfnDone)
        p->pfnDone(p->pContext, &result);
    FreeReading(p);
}

// --- Asking ---

void ReloadInit()
{
    NoteSettings();
}

void ReloadAsk(ReloadDone pfnDone, void *pContext)
{
    auto *p = new (std::nothrow) Reading;
    ORX_ASSERT(p, "p");
    p->pfnDone = pfnDone;
    p->pContext = pContext;
    TextCopy(p->szPath, sizeof(p->szPath), g_settings.szConfigPath);
    p->job.pfnRun = RunReading;
    p->job.pfnDone = OnRead;
    DiskPost(&g_lane, &p->job);
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
