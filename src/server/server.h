// The server record: every setting, the shared containers and the services, one per process.
// Settings are written while the server starts and only read afterwards; containers belong to the scheduler
// thread.
#pragma once

#include <cstdint>

#include "base/avl.h"
#include "base/linkedlist.h"
#include "runtime/monitor.h"
#include "runtime/portmgr.h"
#include "runtime/task.h"

namespace orx {

struct Auth;
struct RemoteServices;

constexpr char kRealm[] = "Orx";
constexpr uint32_t kFileSendPeriodMs = 200;  // between two runs of a file program's sender

// Called when a live program comes up (bUp 1, with the pusher's address) and when a program is freed (bUp 0,
// null). szProgram is "<uri>:<nickname>".
using ProgramHook = void (*)(void *pContext, const char *szProgram, const char *szRemote, int bUp);

struct ServerConfig {
    uint32_t nAuthType = 0;  // 0 none, 1 Basic, 2 Digest
    Auth *pAuth = nullptr;   // owned
    List sessions;           // every Session, in order of creation; embedded nodes
    List programs;           // every Program, in order of creation; embedded nodes
    AvlTree portMap;         // descriptor -> Port, which it owns
    AvlTree programMap;      // Uri (no regard to case) -> live Program
    AvlTree sessionMap;      // descriptor -> Session that owns the port
    Monitor monitor;
    Scheduler scheduler;
    char szConfigPath[128] = "";
    char szGuidPath[128] = "";  // guid.dat beside the configuration
    uint32_t nConnectLimit = 0;
    uint32_t nLiveTime = 0;             // seconds
    uint32_t nFileSendPeriod = 0;       // milliseconds
    uint32_t nSessionBufSize = 0;       // bytes, as configured
    uint32_t nCacheLimit = 0;           // seconds
    PortMgr *pPortMgr = nullptr;        // owned
    RemoteServices *pRemote = nullptr;  // relay and HTTP proxy; owned
    uint32_t nListenPort = 0;
    char szListenIp[16] = "";
    int bFilePrograms = 0;  // EnableFilePrg
    int bHttpProxy = 0;
    char szHttpProxyTargetIp[20] = "";
    uint16_t nHttpProxyTargetPort = 0;
    uint16_t nHttpProxyListenPort = 0;
    int bUnet = 0;           // EnableUnet
    uint32_t nUnetPort = 0;  // the relay's UDP port
    int bRecord = 0;         // RecordEnable
    int bLowEnergy = 0;
    int nMaxRegisterId = 0;
    int bRtcp = 0;
    int bZupo = 0;
    int bControlUsers = 0;
    int bAutoDrop = 0;  // AutoDropDataWhenCrowded
    int bAnonymousViewer = 0;
    int nUdpStartPort = 0;
    int nUdpEndPort = 0;
    int bAutoDelOldFile = 0;
    uint32_t nPreRecordLen = 0;  // seconds
    uint32_t nMinutePerFile = 0;
    char *szRecordPath = nullptr;  // owned; ends in '/'
    int bStandardPushers = 0;      // [INTEROP] StandardPushers
    int bStandardPlayers = 0;      // [INTEROP] StandardPlayers
    int bSurvivePeerFaults = 0;    // [GUARD] SurvivePeerFaults
    int bRunUnprivileged = 0;      // [GUARD] RunUnprivileged
    ProgramHook pfnProgramHook = nullptr;
    void *pProgramHookContext = nullptr;
    int bAcceptRetry = 0;      // a further look for connections that wait is scheduled
    int bProgramMapReady = 0;  // programMap may still be looked into and edited
};

extern ServerConfig g_server;

// Reads the settings, builds the services and opens the listening socket. Main thread. Returns 1 when the
// server runs, 0 when start-up failed and everything was undone.
int ServerStart(const char *szConfigPath);

// Ends the threads, then frees everything; the record is all zero afterwards. Main thread.
void ServerStop();

// Figures for the console and the state file. Main thread: gathered on the scheduler thread, because the
// lists are its own. Zero when the server does not run.
struct SessionStat {
    char szRemote[24];    // peer address
    uint32_t tStart;      // seconds since the epoch
    char szProgram[256];  // name of the program, "-" without one
    int bPusher;
};
struct ServerStat {
    unsigned nTasks, nLives, nClients, nMonitors;
    unsigned nSessions;
    SessionStat *pSessions;  // from malloc, nSessions records; null when not asked for; the caller frees it
};
int ServerGetStat(ServerStat *pStat, int bWithSessions);

}  // namespace orx
