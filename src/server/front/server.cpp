#include "server/front/server.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include <sys/random.h>
#include <sys/socket.h>

#include "base/console.h"
#include "base/eventlog.h"
#include "base/textbuf.h"
#include "record/storage.h"
#include "runtime/diskthread.h"
#include "runtime/sockutil.h"
#include "record/reorder.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/session.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/front/events.h"
#include "server/front/follow.h"
#include "server/front/logs.h"
#include "server/front/reload.h"
#include "server/front/remoteservices.h"
#include "server/front/startdoubts.h"
#include "server/front/status.h"
#include "server/media/storagecare.h"
#include "server/methods/accountfile.h"
#include "server/methods/accounts.h"
#include "server/methods/attempts.h"
#include "server/methods/auth.h"
#include "server/methods/guidstore.h"
#include "server/methods/wifirouters.h"

namespace orx {

static constexpr int kBacklog = 128;  // connections that may wait to be accepted

static constexpr char kRealm[] = "Orx";

static void ClearServer()
{
    g_server.~ServerConfig();
    new (&g_server) ServerConfig;
    SettingsFree(&g_settings);
}

// Names, sources and sequence numbers come from rand().
static void SeedRandom()
{
    unsigned nSeed = 0;
    if (getrandom(&nSeed, sizeof(nSeed), GRND_NONBLOCK) != sizeof(nSeed))
        nSeed = static_cast<unsigned>(time(nullptr));
    srand(nSeed);
}

// What an earlier run left unfinished is settled before the directory is used again. Where nothing is to be
// lost, it is repaired later.
static void PrepareStorage(PathList *pInterrupted)
{
    StorageRecover(g_settings.szRecordPath, g_settings.bConfineRecordings || g_settings.bNeverLose,
                   g_settings.bNeverLose ? pInterrupted : nullptr);
    StorageMakeDir(g_settings.szRecordPath);
    if (g_settings.szRecordAlways[0] && !g_settings.bRecord)
        print("RecordAlways is set, but nothing is recorded: RecordEnable is 0.\r\n");
}

static int CreatePortMgr()
{
    g_server.pPortMgr = new (std::nothrow) PortMgr;
    return PortMgrInit(g_server.pPortMgr, g_settings.nUdpStartPort, g_settings.nUdpEndPort);
}

static int CreateScheduler()
{
    if (!SchedulerCreate(&g_server.scheduler))
        return 0;
    SchedulerSetAfterProc(&g_server.scheduler, FreeRetiredSlice);
    SchedulerSetExact(&g_server.scheduler, g_settings.bLowDelay && g_settings.bStandardPlayers);
    return 1;
}

static int CreateAuth()
{
    AttemptsReset();
    AccountFileLoad(g_settings.szConfigPath);
    g_server.pAuth = AuthCreate(g_settings.nAuthType, kRealm, GetUserAccount, g_settings.bFreshNonce);
    if (!g_server.pAuth)
        print("No authenticator for AuthType %u (%s): set AuthType to 0, 1 or 2.\r\n", g_settings.nAuthType,
              AuthSchemeName(g_settings.nAuthType));
    return g_server.pAuth != nullptr;
}

// A listener that cannot be opened is reported; the server starts without it.
static void OpenListener()
{
    g_server.bIpv6 = SettingsListenIpv6(&g_settings);
    NetAddr addr;
    int fd = -1;
    int bKnown =
        SockSetAddrEx(&addr, g_settings.szListenIp, static_cast<int>(g_settings.nListenPort), g_server.bIpv6);
    if (bKnown)
        fd = SockListenTcp(&addr);
    char szAddr[kAddrTextSize];
    if (fd < 0) {
        int nErrno = errno;
        TextBuf wanted{szAddr, sizeof(szAddr)};
        TextAdd(&wanted, "%s:%u", g_settings.szListenIp, g_settings.nListenPort);
        ListenerNote("rtsp", szAddr, bKnown && nErrno ? nErrno : EADDRNOTAVAIL);
        print("Listen error %d\n", nErrno);
        return;
    }
    listen(fd, kBacklog);  // a recorder that comes back opens all its cameras at once
    SockAddrToString(&addr, szAddr);
    ListenerNote("rtsp", szAddr, 0);
    print("socket 0x%x listen on %s %s\n", fd, "TCP", szAddr);
    if (!MonitorAddListen(&g_server.monitor, fd))
        print("warning: can't monitor event\n");
}

// All events of one wake-up of the monitor cost the scheduler one wake-up.
static void OnMonitorBurst(void * /*pContext*/, int bBegin)
{
    SchedulerCork(&g_server.scheduler, bBegin);
}

static int StartDisk()
{
    if (!DiskStart(&g_server.scheduler))
        return 0;
    LogsDivert();
    return 1;
}

// Ends a start before anything was made.
static int Refuse()
{
    RegistryInit(OnFreePort);
    ServerStop();
    return 0;
}

// Opens what others come to. Takes the paths over. Returns 1, or 0 when a strict start, or the relay, is not
// to go on.
static int LetIn(PathList *pInterrupted)
{
    MonitorSetBurstProc(&g_server.monitor, OnMonitorBurst);
    OpenListener();
    StorageCareStart(pInterrupted);
    int bRemote = RemoteServicesStart();
    StatusOpen();
    if (!StartDoubtsOfListeners() || !bRemote)
        return 0;
    StatusStart();
    EventsBegin();
    return 1;
}

int ServerStart(const char *szConfigPath)
{
    tzset();  // which reads a file
    ClearServer();
    StartDoubtsCheck(szConfigPath);
    int bRead = SettingsRead(&g_settings, szConfigPath);
    EventsOpen();
    if (!StartDoubtsSay() || !bRead)
        return Refuse();
    SettingLists lists;
    ListsParse(&lists, &g_settings);
    g_server.nMaxRegisterId = GuidStoreNextId(g_settings.szGuidPath);
    EventsInit();
    SeedRandom();
    FollowLists(&lists);
    ReloadInit();
    PathList interrupted;
    PrepareStorage(&interrupted);
    RegistryInit(OnFreePort);
    int bReady = CreatePortMgr() && CreateAuth() && CreateScheduler() && StartDisk() &&
                 MonitorCreate(&g_server.monitor, OnMonitorEvent, nullptr);
    if (bReady && LetIn(&interrupted))
        return 1;
    PathListFree(&interrupted);
    ServerStop();
    return 0;
}

// What recordings have queued still reaches the disk, unless that stalls. Returns 0 then: the disk thread
// holds on to what it works on.
static int StopDisk()
{
    constexpr uint32_t kMostMs = 10000;
    size_t nLost = DiskStop(kMostMs);
    if (nLost > 0)
        EventSay(EventLevel::Error, "disk.stalled", {EventNumber("lost_bytes", static_cast<int64_t>(nLost))});
    if (nLost > 0)
        print(
            "The disk stalls: the last %zu bytes of recordings are lost, and their files stay "
            "interrupted.\r\n",
            nLost);
    else
        LogsRejoin();  // a disk that stalls would take this thread, too
    return nLost == 0;
}

void ServerStop()
{
    StatusStop();
    RemoteServicesStop();
    DiskDetach();
    ThreadJoin(&g_server.monitor.thread);  // no more events; its sockets stay while tasks may still use them
    ReloadDetach();
    SchedulerDestroy(&g_server.scheduler);
    ReloadEnd();
    WifiRoutersStop();
    RemoteServicesFree();
    MonitorDestroy(&g_server.monitor);
    AvlDestroy(&g_server.programMap);
    SessionEndAll();
    ProgramEndAll();
    StorageCareStop();
    int bDiskEnded = StopDisk();
    AvlDestroy(&g_server.portMap);
    AvlDestroy(&g_server.sessionMap);
    AvlDestroy(&g_server.handleMap);
    FreeRetired();
    PortMgrFree(g_server.pPortMgr);
    delete g_server.pPortMgr;
    AuthFree(g_server.pAuth);
    if (bDiskEnded) {  // else its thread reads the settings yet
        EventsEnd();
        AccountFileFree();
        ClearServer();
    }
}

// A request of the main thread that the scheduler thread answers.
struct StatRequest {
    ServerStat *pStat;
    int bWithSessions;
    pthread_mutex_t mutex;
    pthread_cond_t answered;
    int bAnswered;
};

static void DescribeSession(const Session *pSession, SessionStat *pOut)
{
    *pOut = SessionStat();
    SessionRemoteText(pSession, pOut->szRemote);
    pOut->tStart = pSession->peer.tStart;
    TextCopy(pOut->szProgram, sizeof(pOut->szProgram), pSession->pProg ? pSession->pProg->Uri : "-");
    pOut->bPusher = (pSession->nFlags & SESSION_PUSHER) != 0;
    for (const SessionTrack &track : pSession->tracks) {
        pOut->reception.bKnown |= track.reception.bKnown;
        pOut->reception.nLoss = std::max(pOut->reception.nLoss, track.reception.nLoss);
        pOut->reception.nJitterMs = std::max(pOut->reception.nJitterMs, track.reception.nJitterMs);
        pOut->reception.nRoundTripMs = std::max(pOut->reception.nRoundTripMs, track.reception.nRoundTripMs);
        if (!track.pReorder)
            continue;
        pOut->bDatagrams = 1;
        pOut->nLate += track.pReorder->nLate;
        pOut->nLost += track.pReorder->nLost;
    }
}

static void GatherStat(ServerStat *pStat, int bWithSessions)
{
    pStat->nTasks = SchedulerTaskCount(&g_server.scheduler);
    pStat->nLives = ProgramCountLive();
    pStat->tRead = ReloadTime();
    pStat->nMonitors = g_server.monitor.nAdded;
    unsigned nCount = ListCount(&g_server.sessions);
    if (bWithSessions && nCount)
        pStat->pSessions = static_cast<SessionStat *>(calloc(nCount, sizeof(SessionStat)));
    for (Session *p = FirstSession(); p; p = NextSession(p)) {
        pStat->nClients += (p->nFlags & SESSION_PUSHER) == 0;
        if (pStat->pSessions)
            DescribeSession(p, &pStat->pSessions[pStat->nSessions++]);
    }
}

static int OnStatRequest(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    auto *pRequest = static_cast<StatRequest *>(TaskArgument(pTask));
    GatherStat(pRequest->pStat, pRequest->bWithSessions);
    pthread_mutex_lock(&pRequest->mutex);
    pRequest->bAnswered = 1;
    pthread_cond_signal(&pRequest->answered);
    pthread_mutex_unlock(&pRequest->mutex);
    return -1;
}

int ServerGetStat(ServerStat *pStat, int bWithSessions)
{
    *pStat = ServerStat();
    if (!g_server.scheduler.bReady)
        return 0;
    StatRequest request{pStat, bWithSessions, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0};
    TaskSchedule(&g_server.scheduler, OnStatRequest, 0, 0, &request);
    pthread_mutex_lock(&request.mutex);
    while (!request.bAnswered)
        pthread_cond_wait(&request.answered, &request.mutex);
    pthread_mutex_unlock(&request.mutex);
    pthread_mutex_destroy(&request.mutex);
    pthread_cond_destroy(&request.answered);
    return 1;
}

}  // namespace orx
