#include "server/front/logs.h"

#include <cstring>

#include <unistd.h>

#include "base/console.h"
#include "base/eventlog.h"
#include "base/installdir.h"
#include "runtime/clock.h"
#include "runtime/diskthread.h"
#include "server/core/registry.h"
#include "server/core/settings.h"

namespace orx {

static uint32_t g_tBegun = 0;  // uptime in seconds when the server was up; 0: it is not. Main thread

void EventsOpen()
{
    char szPath[512] = "";
    if (g_settings.szLogFile[0])
        InstallPath(szPath, sizeof(szPath), g_settings.szLogFile);
    EventLogOpen(g_settings.szLogLevel, szPath, g_settings.szLogFormat);
    ConsoleSetQuiet(!g_settings.bLogConsole);
}

static void SayListeners()
{
    for (unsigned i = 0; i < g_server.nListeners; i++) {
        const ServerListener *p = &g_server.listeners[i];
        if (p->nErrno)
            EventSay(EventLevel::Error, "listener.failed",
                     {EventText("name", p->szName), EventText("address", p->szAddress),
                      EventText("error", strerror(p->nErrno))});
        else
            EventSay(EventLevel::Info, "listener.open",
                     {EventText("name", p->szName), EventText("address", p->szAddress)});
    }
}

void EventsBegin()
{
    g_tBegun = ClockUptime();
    EventSay(EventLevel::Info, "server.start",
             {EventText("version", ORX_VERSION), EventText("config", g_settings.szConfigPath),
              EventNumber("pid", getpid())});
    SayListeners();
}

void EventsEnd()
{
    EventLogTellUnsaid();  // ahead of the last line
    if (g_tBegun) {
        EventSay(EventLevel::Info, "server.stop", {EventNumber("seconds", ClockUptime() - g_tBegun)});
    } else {
        SayListeners();
        EventSay(EventLevel::Error, "server.failed", {EventText("config", g_settings.szConfigPath)});
    }
    g_tBegun = 0;
    EventLogClose();
}

// --- On the disk thread, each in a lane of its own: a job is in its lane, or nobody's ---

static DiskLane g_logLane, g_eventLane;
static DiskJob g_logJob, g_eventJob;

static int RunLogJob(DiskJob *)
{
    return LogWriteSome();
}

static int RunEventJob(DiskJob *)
{
    return EventLogWriteSome();
}

static void PostLogJob()
{
    DiskPostLazy(&g_logLane, &g_logJob);
}

static void PostEventJob()
{
    DiskPostLazy(&g_eventLane, &g_eventJob);
}

void LogsDivert()
{
    g_logJob.pfnRun = RunLogJob;
    g_eventJob.pfnRun = RunEventJob;
    LogDivert(PostLogJob);
    EventLogDivert(PostEventJob);
}

void LogsRejoin()
{
    LogDivert(nullptr);
    EventLogDivert(nullptr);
}

}  // namespace orx
