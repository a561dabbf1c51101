#include "main/notify.h"

#include <atomic>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "runtime/clock.h"
#include "server/core/registry.h"

namespace orx {

// Written by NotifyInit, then read by any thread.
static int g_nSocket = -1;
static sockaddr_un g_manager{};
static socklen_t g_nManager = 0;
static int64_t g_nPingNs = 0;  // half the watchdog's interval; 0: no watchdog

static int64_t g_nAskedNs = 0;           // when the scheduler was asked last; main thread
static int g_bAsked = 0;                 // its answer is waited for; main thread
static std::atomic<int> g_bAnswered{0};  // set by the scheduler thread

// A name that begins with '@' lies in no directory: it stands for one that begins with a zero byte.
static int SetAddress(const char *szName)
{
    size_t nName = strlen(szName);
    if ((szName[0] != '/' && szName[0] != '@') || nName < 2 || nName >= sizeof(g_manager.sun_path))
        return 0;
    g_manager.sun_family = AF_UNIX;
    memcpy(g_manager.sun_path, szName, nName);
    if (szName[0] == '@')
        g_manager.sun_path[0] = '\0';
    g_nManager = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + nName);
    return 1;
}

// The watchdog may be meant for another process, whose variables this one inherited.
static void ReadWatchdog()
{
    const char *szPid = getenv("WATCHDOG_PID");
    const char *szMicroseconds = getenv("WATCHDOG_USEC");
    if (!szMicroseconds || (szPid && strtol(szPid, nullptr, 10) != getpid()))
        return;
    int64_t nMicroseconds = strtoll(szMicroseconds, nullptr, 10);
    if (nMicroseconds > 0 && nMicroseconds < INT64_MAX / 1000)
        g_nPingNs = nMicroseconds * 1000 / 2;
}

void NotifyInit()
{
    const char *szName = getenv("NOTIFY_SOCKET");
    if (!szName || !SetAddress(szName))
        return;
    g_nSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ReadWatchdog();
}

// What the manager waits for must not get lost in a queue that is full; nFlags MSG_DONTWAIT for what comes
// again.
static void Tell(const char *szState, int nFlags = 0)
{
    if (g_nSocket >= 0)
        sendto(g_nSocket, szState, strlen(szState), nFlags | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&g_manager), g_nManager);
}

void NotifyReady()
{
    Tell("READY=1");
}

void NotifyReloading()
{
    char szState[64];
    snprintf(szState, sizeof(szState), "RELOADING=1\nMONOTONIC_USEC=%" PRId64, ClockNs() / 1000);
    Tell(szState);
}

void NotifyStopping()
{
    Tell("STOPPING=1");
}

static int OnAsked(Task *, uint32_t, uint32_t, uint32_t)
{
    g_bAnswered = 1;
    return -1;
}

void NotifyTick()
{
    if (g_nSocket < 0 || !g_nPingNs || !g_server.scheduler.bReady)
        return;
    if (g_bAnswered.exchange(0)) {
        g_bAsked = 0;
        Tell("WATCHDOG=1", MSG_DONTWAIT);
    }
    int64_t nNow = ClockNs();
    if (g_bAsked || nNow - g_nAskedNs < g_nPingNs)
        return;
    g_nAskedNs = nNow;
    g_bAsked = 1;
    TaskSchedule(&g_server.scheduler, OnAsked, 0, 0, nullptr);
}

}  // namespace orx
