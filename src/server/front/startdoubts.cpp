#include "server/front/startdoubts.h"

#include <cstring>

#include <sys/stat.h>

#include "base/configfile.h"
#include "base/console.h"
#include "base/eventlog.h"
#include "base/textbuf.h"
#include "server/core/configcheck.h"
#include "server/core/doubts.h"
#include "server/core/registry.h"
#include "server/core/settings.h"

namespace orx {

static size_t g_nSaid = 0;  // of g_doubts
static int g_bStrictStart = 0;
static char g_szChecked[256] = "";  // the file

void StartDoubtsCheck(const char *szConfigPath)
{
    Settings taken;
    DoubtsFree(&g_doubts);
    g_nSaid = 0;
    TextCopy(g_szChecked, sizeof(g_szChecked), szConfigPath ? szConfigPath : "");
    ConfigCheck(g_szChecked, &taken, &g_doubts);
    g_bStrictStart = DoubtsStrict(taken.bStrictConfig);
    SettingsFree(&taken);
}

void DoubtsSay(const DoubtList *pList, size_t nFrom)
{
    for (size_t i = nFrom; i < pList->nDoubts; i++) {
        const Doubt *pDoubt = &pList->pDoubts[i];
        char szLine[sizeof(pDoubt->szText) + 2];
        TextBuf line{szLine, sizeof(szLine)};
        TextAdd(&line, "%s\n", pDoubt->szText);
        ConsoleError(szLine, line.nLen);
        EventSay(EventLevel::Warn, "config.doubt", {EventText("text", pDoubt->szText)});
    }
}

// Which doubts they are is told by the lines above it.
static void SayRefusal()
{
    char szLine[512];
    TextBuf line{szLine, sizeof(szLine)};
    TextAdd(
        &line,
        "Not started: a doubt about who may do what, or a failure, refuses a strict start. \"orx --check -c "
        "%s\" shows all.\n",
        g_szChecked);
    ConsoleError(szLine, line.nLen);
    EventSay(EventLevel::Error, "server.refused", {EventText("config", g_szChecked)});
}

int StartDoubtsSay()
{
    DoubtsSay(&g_doubts, g_nSaid);
    g_nSaid = g_doubts.nDoubts;
    if (!g_bStrictStart || !DoubtsRefuse(&g_doubts))
        return 1;
    SayRefusal();
    return 0;
}

// The key that names a listener's port.
struct ListenerKey {
    const char *szName, *szSection, *szKey;
};
static constexpr ListenerKey g_listenerKeys[] = {
    {"rtsp", "SERVER", "ListenPort"},
    {"web", "SERVER", "HttpProxyListenPort"},
    {"relay", "SERVER", "UnetPort"},
    {"status", "STATUS", "Socket"},
};

void ListenerDoubts(DoubtList *pList)
{
    for (unsigned i = 0; i < g_server.nListeners; i++) {
        const ServerListener *p = &g_server.listeners[i];
        for (const ListenerKey &key : g_listenerKeys) {
            char szWhy[256], szError[64];
            TextBuf why{szWhy, sizeof(szWhy)};
            if (!p->nErrno || strcmp(key.szName, p->szName) != 0)
                continue;
            TextAdd(&why, "cannot be listened on (%s, %s): no %s connection is taken", p->szAddress,
                    strerror_r(p->nErrno, szError, sizeof(szError)), p->szName);
            ConfigDoubt(g_settings.szConfigPath, pList, 1, key.szSection, key.szKey, szWhy);
        }
    }
}

int StartDoubtsOfListeners()
{
    ListenerDoubts(&g_doubts);
    return StartDoubtsSay();
}

int StartIsStrict()
{
    return g_bStrictStart;
}

// What is neither a file nor missing (a FIFO) may keep who reads it waiting for ever.
static int IsNoFile(const char *szPath)
{
    struct stat info {};
    return stat(szPath, &info) == 0 && !S_ISREG(info.st_mode);
}

int StartRefusesLong(const char *szConfigPath)
{
    if (szConfigPath[0] && DoubtsStrict(0) && IsNoFile(szConfigPath)) {
        StartDoubtsCheck(szConfigPath);
        return !StartDoubtsSay();
    }
    if (!szConfigPath[0] || !ProfileIsLong(szConfigPath))
        return 0;
    Settings taken;
    DoubtList doubts;
    ConfigState eState = ConfigCheck(szConfigPath, &taken, &doubts);
    int bStrict = DoubtsStrict(taken.bStrictConfig), bLasts = taken.bSurvivePeerFaults;
    SettingsFree(&taken);
    DoubtsFree(&doubts);
    if (eState != ConfigState::Fails || bLasts)
        return 0;
    StartDoubtsCheck(szConfigPath);
    StartDoubtsSay();
    return bStrict;
}

}  // namespace orx
