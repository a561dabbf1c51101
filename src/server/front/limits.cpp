#include "server/front/limits.h"

#include <algorithm>

#include "base/console.h"
#include "remote/bridgeaddr.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/session.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/media/replies.h"
#include "server/media/send.h"

namespace orx {

// A session's timeout is a minute, whether its line says so or not (RFC 2326, section 12.37); two and a half
// of that leave room for a keep-alive that was lost.
static constexpr uint32_t kSilenceSeconds = 150;
// A standard player over UDP: what it sends is all that shows whether it is there.
static constexpr uint32_t kUdpSilenceSeconds = 2 * kSessionSeconds;
static constexpr uint32_t kLongestLookMs = 5000;

static int g_bWatching = 0;  // the task runs

void LimitsInit()
{
    g_bWatching = 0;
}

static int CountsByAddress(const Session *pSession)
{
    return pSession->nState != STATE_PLAYING && !(pSession->nFlags & SESSION_PUSHER) &&
           !pSession->viewer.bAdmitted;
}

int AddressIsFull(const NetAddr *pAddr, int bFronted)
{
    uint64_t nIp = AddrCounted(pAddr);
    uint32_t nSessions = 0;
    if (!g_settings.nMaxSessionsPerAddress || (!bFronted && IsOwnBox(pAddr)))
        return 0;
    for (const Session *p = FirstSession(); p; p = NextSession(p)) {
        const Port *pPort = SessionPeerPort(p);
        nSessions += CountsByAddress(p) && pPort && AddrCounted(&pPort->remote) == nIp;
    }
    return nSessions >= g_settings.nMaxSessionsPerAddress;
}

// Plays, subscribes, or pushes: one that was told to sleep has nothing to push.
static int IsAtWork(const Session *pSession)
{
    const Program *pProg = pSession->pProg;
    if (pSession->nState == STATE_PLAYING || (pSession->nFlags & SESSION_SUBSCRIBER))
        return 1;
    return (pSession->nFlags & SESSION_PUSHER) && pProg &&
           (pProg->cache.nSerial > 0 || pProg->sleep.bSleeping);
}

// Also one that has paused, or never played: its ports are others' when it has gone.
static int PlaysUdp(const Session *pSession)
{
    return pSession->play.nSetupCount > 0 && !(pSession->nFlags & SESSION_PUSHER) &&
           !pSession->out.bInterleaved && !pSession->hold.pPort;
}

static int IsOver(const Session *pSession, uint32_t nNow)
{
    int32_t nSilent = ClockDiff(nNow, pSession->peer.tLastActivity);
    if (pSession->standards.bPlayers && PlaysUdp(pSession) &&
        nSilent > static_cast<int32_t>(kUdpSilenceSeconds))
        return 1;
    if (!g_settings.nStateTimeout)
        return 0;
    if (IsAtWork(pSession) || pSession->hold.pPort)  // or it waits for an answer
        return 0;
    if (pSession->play.nSetupCount > 0)  // set up, paused, at its end
        return nSilent > static_cast<int32_t>(kSilenceSeconds);
    return ClockDiff(nNow, pSession->peer.tLastRequest) > static_cast<int32_t>(g_settings.nStateTimeout);
}

// Tries a socket that took nothing again, though nothing may be pushed any more. Returns 1 when it is over.
static int IsStuck(Session *pSession)
{
    return pSession->flow.bBlocked && !SendDataEx(pSession, nullptr, 1);
}

static int OnLook(Task *, uint32_t, uint32_t, uint32_t)
{
    uint32_t nNow = ClockUptime();
    Session *pNext;
    for (Session *p = FirstSession(); p; p = pNext) {
        pNext = NextSession(p);
        if (IsStuck(p)) {
            SessionNoteEnd(p, "it took nothing for 30 seconds");
            SessionEnd(p);
            continue;
        }
        if (!IsOver(p, nNow))
            continue;
        char szRemote[kAddrTextSize];
        SessionRemoteText(p, szRemote);
        print("Session of %s did nothing for too long. It is closed.\r\n", szRemote);
        SessionNoteEnd(p, "it did nothing for too long");
        SessionEnd(p);
    }
    g_bWatching = ListCount(&g_server.sessions) > 0;
    if (!g_bWatching)
        return -1;
    uint32_t nLookMs = g_settings.nStateTimeout ? g_settings.nStateTimeout * 500 : kLongestLookMs;
    return static_cast<int>(std::clamp(nLookMs, 1000U, kLongestLookMs));
}

void LimitsWatch()
{
    if ((!g_settings.nStateTimeout && !g_settings.bStandardPlayers) || g_bWatching)
        return;
    g_bWatching = 1;
    TaskSchedule(&g_server.scheduler, OnLook, 1000, 0, nullptr);
}

}  // namespace orx
