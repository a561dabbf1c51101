#include "server/front/follow.h"

#include <cstring>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/thread.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/session.h"
#include "server/front/limits.h"
#include "server/front/remoteservices.h"
#include "server/media/recordcontrol.h"
#include "server/media/storagecare.h"
#include "server/methods/auth.h"

namespace orx {

// A list that fills its buffer was cut, perhaps within an entry, which would then name a wider network.
static void DropCutNetwork(char *szList, size_t nSize, const char *szKey)
{
    char *pLast = strlen(szList) == nSize - 1 ? strrchr(szList, ' ') : nullptr;
    if (!pLast)
        return;
    print("%s is too long: what stands behind \"%s\" is left out.\r\n", szKey, pLast + 1);
    *pLast = '\0';
}

void ListsParse(SettingLists *pLists, Settings *pSettings)
{
    int bIpv6 = pSettings->bStandardPlayers || g_server.bIpv6;
    char *szAnnounce = pSettings->szAnnounceFrom, *szProxy = pSettings->szProxyProtocolFrom;
    DropCutNetwork(szAnnounce, sizeof(pSettings->szAnnounceFrom), "AnnounceFrom");
    DropCutNetwork(szProxy, sizeof(pSettings->szProxyProtocolFrom), "ProxyProtocolFrom");
    AddrListParse(&pLists->announceFrom, szAnnounce, "AnnounceFrom", bIpv6);
    AddrListParse(&pLists->proxyFrom, szProxy, "ProxyProtocolFrom", bIpv6);
}

void FollowLists(const SettingLists *pLists)
{
    g_server.announceFrom = pLists->announceFrom;
    g_server.proxyFrom = pLists->proxyFrom;
    AssertSurvivePeerFaults(g_settings.bSurvivePeerFaults);
    ThreadAllowNoPriority(g_settings.bRunUnprivileged);
}

// LowDelay concerns the programs that were made with StandardPlayers, and those that are to come.
static int TimesExactly()
{
    int bStandard = g_settings.bStandardPlayers;
    for (const Program *p = FirstProgram(); p && !bStandard; p = NextProgram(p))
        bStandard = p->standards.bPlayers;
    return g_settings.bLowDelay && bStandard;
}

// Without PinMedia anybody may tell where the media of a player goes.
static void UnpinMedia()
{
    for (Session *p = FirstSession(); p; p = NextSession(p))
        for (SessionTrack &track : p->tracks)
            if (track.Media)
                PortDisconnect(track.Media);
}

void FollowSettings(const SettingLists *pLists)
{
    FollowLists(pLists);
    SchedulerSetExact(&g_server.scheduler, TimesExactly());
    g_server.pAuth->bFreshNonce = g_settings.bFreshNonce;
    RemoteServicesFollowSettings();
    StorageCareFollowSettings();
    RecordersFollowSettings();
    if (!g_settings.bPinMedia)
        UnpinMedia();
    if (ListCount(&g_server.sessions) > 0)
        LimitsWatch();
}

}  // namespace orx
