#include "server/core/session.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include <sys/random.h>

#include "base/assertion.h"
#include "base/console.h"
#include "record/reorder.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"
#include "server/core/heldjob.h"
#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/sessionevents.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"

namespace orx {

static constexpr uint32_t kChunkBytes = 64 << 10;  // a quarter of a second of 2 Mbit/s
static constexpr uint32_t kMostChunkBytes = 256 << 10;
static constexpr uint32_t kFastChunkMs = 100;
static constexpr uint32_t kTextBytes = 2048;       // a player's requests: those who send more get nTotal
static constexpr uint32_t kTextRoom = 512;         // of a chunk for one more read
static constexpr uint32_t kStreamRoom = 4096;      // the same of media
static constexpr uint32_t kIdleCheckMs = 5000;     // who connects has something to say by then
static constexpr uint32_t kDelayedCloseMs = 2000;  // time for a last reply to arrive before the reset

Session *FindSessionByHandle(uint32_t nHandle)
{
    return static_cast<Session *>(AvlValue(&g_server.handleMap, static_cast<int32_t>(nHandle)));
}

// The next session handle: counts up from a value nobody can guess, skipping 0 and, once it has wrapped,
// those alive.
static uint32_t NextHandle()
{
    static uint32_t nLast = 0;  // 0: none was given yet
    if (nLast == 0 && getrandom(&nLast, sizeof(nLast), GRND_NONBLOCK) != sizeof(nLast))
        nLast = 0;
    do
        nLast++;
    while (nLast == 0 || FindSessionByHandle(nLast));
    return nLast;
}

// FirstPlayer and NextPlayer, and the list's map mode 1, find a session by its second node. (Its tracks
// extend a record, for which the offset is conditionally supported; the compilers in use do.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(Session, node) == 0 && offsetof(Session, playerNode) == sizeof(ListNode), "two nodes");
#pragma GCC diagnostic pop

Session::Session()
{
    for (int i = 0; i < kMaxTracks; i++)
        out.tracks[i] = &tracks[i];
}

// What is held goes on in a new chunk.
static int InputBegin(SessionInput *pInput, uint32_t nSize)
{
    Chunk *pChunk = ChunkNew(nSize);
    if (!pChunk)
        return 0;
    if (pInput->nLen > 0)
        memcpy(ChunkBytes(pChunk), pInput->pBuf, pInput->nLen);
    ChunkLeave(pInput->pChunk);
    pInput->pChunk = pChunk;
    pInput->nChunkMs = ClockMs();
    pInput->pBuf = ChunkBytes(pChunk);
    pInput->pBuf[pInput->nLen] = 0;
    return 1;
}

// Of media twice as much when one was full so soon that large pictures do not fit into it.
static uint32_t NextChunkBytes(const SessionInput *pInput, uint32_t nRoom)
{
    uint32_t nLast = pInput->pChunk->nSize;
    uint32_t nNeeded = std::max(pInput->nTotal, pInput->nLen + nRoom + 1);
    if (!pInput->bStream)
        return nNeeded;
    int bFast = ClockMs() - pInput->nChunkMs < kFastChunkMs;
    return std::max({bFast ? std::min(2 * nLast, kMostChunkBytes) : nLast / 2, kChunkBytes, nNeeded});
}

int InputReserve(SessionInput *pInput, uint32_t nRoom)
{
    uint32_t nHas = InputRoom(pInput);
    int bBound = !pInput->bStream && pInput->nLen + nHas + 1 == pInput->nTotal;  // no more may be held
    return nHas >= nRoom || bBound || InputBegin(pInput, NextChunkBytes(pInput, nRoom));
}

int InputTake(SessionInput *pInput, uint32_t nTaken)
{
    pInput->pBuf += nTaken;
    pInput->nLen -= nTaken;
    uint8_t *pFirst = ChunkBytes(pInput->pChunk);
    if (pInput->pChunk->nBlocks == 0 && pInput->pBuf != pFirst) {
        memmove(pFirst, pInput->pBuf, pInput->nLen);
        pInput->pBuf = pFirst;
    }
    pInput->pBuf[pInput->nLen] = 0;
    return InputReserve(pInput, pInput->bStream ? kStreamRoom : kTextRoom);
}

static Session *NewSession()
{
    auto *pSession = new (std::nothrow) Session;
    if (!pSession) {
        print("warning: NOT enough memory to CreateSession()!\n");
        return nullptr;
    }
    pSession->input.nTotal = g_settings.nSessionBufSize;
    ORX_ASSERT(pSession->input.nTotal, "p->nTotal");
    if (!InputBegin(&pSession->input, std::min(kTextBytes, pSession->input.nTotal))) {
        delete pSession;
        return nullptr;
    }
    return pSession;
}

Session *CreateSession(Port *pPort)
{
    ORX_ASSERT(pPort, "port");
    Session *pSession = NewSession();
    if (!pSession)
        return nullptr;
    pSession->out.Outq.sum.pTotal = &g_server.nQueuedBytes;
    pSession->nHandle = NextHandle();
    pSession->peer.tLastActivity = pSession->peer.tLastRequest = ClockUptime();
    pSession->peer.tStart = static_cast<uint32_t>(time(nullptr));
    if (g_settings.bRtcp)
        pSession->nFlags |= SESSION_RTCP;
    pSession->peer.Cmd = pPort;
    pSession->told.tMade = pSession->peer.tLastActivity;
    SockAddrToString(&pPort->remote, pSession->told.szRemote);
    g_server.counted.nSessions++;
    ListAppend(&g_server.sessions, pSession);
    AvlReplace(&g_server.sessionMap, pPort->fd, pSession);
    AvlReplace(&g_server.handleMap, static_cast<int32_t>(pSession->nHandle), pSession);
    return pSession;
}

Session *FindSession(int fd)
{
    return static_cast<Session *>(AvlValue(&g_server.sessionMap, fd));
}

// Takes the port out of the session map and frees it; accepts null.
static void DropPort(Port *pPort)
{
    if (!pPort)
        return;
    AvlForget(&g_server.sessionMap, pPort->fd);
    PortClose(pPort);
}

void SessionSchedule(const Session *pSession, TaskProc pfnRun, uint32_t nDelayMs)
{
    TaskSchedule(&g_server.scheduler, pfnRun, nDelayMs, static_cast<int32_t>(pSession->nHandle), nullptr);
}

Session *SessionOfTask(const Task *pTask)
{
    return FindSessionByHandle(static_cast<uint32_t>(pTask->nParam));
}

void SessionForgetJob(Session *pSession)
{
    HeldJob *pHeld = std::exchange(pSession->hold.pJob, nullptr);
    if (pHeld && pHeld->bDone)
        pHeld->pfnFree(pHeld);
}

void SessionCloseTrackPorts(SessionTrack *pTrack)
{
    if (pTrack->pReorder) {
        ReorderReset(pTrack->pReorder);
        delete std::exchange(pTrack->pReorder, nullptr);
    }
    if (pTrack->Media) {
        int nPort = SockGetPort(&pTrack->Media->local);
        PortMgrRelease(g_server.pPortMgr, nPort);
        print("FreePairPort(%d-%d)\r\n", nPort, nPort + 1);
        DropPort(pTrack->Media);
    }
    DropPort(pTrack->Control);
    pTrack->Media = pTrack->Control = nullptr;
}

static void SessionFree(void *pRecord)
{
    auto *pSession = static_cast<Session *>(pRecord);
    ChunkLeave(pSession->input.pChunk);
    free(pSession->peer.szCookie);
    QueueEmpty(&pSession->out.Outq);
    free(pSession->out.pScratch);
    delete pSession;
}

// Ends one session, whatever becomes of its program's players.
static void EndOne(Session *pSession)
{
    SessionSayEnd(pSession);
    pSession->bEnded = 1;
    ListRemove(&g_server.sessions, pSession, 0);
    AvlForget(&g_server.handleMap, static_cast<int32_t>(pSession->nHandle));
    print("OnFreeSession().\r\n");
    if (pSession->peer.Cmd) {
        char szRemote[kAddrTextSize];
        SessionRemoteText(pSession, szRemote);
        log("Close  session(fd=0x%x) from %s", pSession->peer.Cmd->fd, szRemote);
    }
    Port *pReply = pSession->peer.Reply != pSession->peer.Cmd ? pSession->peer.Reply : nullptr;
    DropPort(pSession->peer.Cmd);
    DropPort(pReply);
    pSession->peer.Cmd = pSession->peer.Reply = nullptr;
    for (SessionTrack &track : pSession->tracks)
        SessionCloseTrackPorts(&track);
    SessionForgetJob(pSession);  // it may hold what the program has
    ProgramDetach(pSession);
    // what waits is freed in a moment, and nobody need give for it
    g_server.nQueuedBytes -= pSession->out.Outq.sum.nTotalled;
    pSession->out.Outq.sum.pTotal = nullptr;
    Retire(&pSession->retired, pSession, SessionFree);
}

void SessionEnd(Session *pSession)
{
    if (pSession->bEnded)
        return;
    SessionSayEnd(pSession);  // ahead of those that end with it
    if (FeedsProgram(pSession))
        pSession->pProg->szPusherEnd = pSession->szEndReason;
    if (!ProgramKeep(pSession))
        SessionEndPlayers(pSession);
    EndOne(pSession);
}

void SessionEndPlayers(Session *pSession)
{
    Program *pProg = pSession->pProg;
    if (!pProg || !(pSession->nFlags & SESSION_PUSHER))
        return;
    pProg->szPusherEnd = pSession->szEndReason;
    SessionEndAllOf(pProg);
}

void SessionEndAllOf(Program *pProg)
{
    print("StopProgramAssociatedSessions().\r\n");
    while (Session *pPlayer = FirstPlayer(pProg)) {
        if (pProg->pOps->pfnFarewell)
            pProg->pOps->pfnFarewell(pPlayer);
        pPlayer->ending.szCause = pProg->szPusherEnd;
        SessionNoteEnd(pPlayer, pProg->hold.nNumber ? "its pusher did not come back" : "its pusher has gone");
        EndOne(pPlayer);
    }
}

void SessionEndAll()
{
    while (Session *p = FirstSession()) {
        SessionNoteEnd(p, kEndServer);
        EndOne(p);
    }
}

int SessionClosePort(Session *pSession, Port *pPort)
{
    AvlForget(&g_server.sessionMap, pPort->fd);
    int bIsReply = pPort == pSession->peer.Reply;
    int bIsControl = bIsReply || pPort == pSession->peer.Cmd;
    int bInterleaved = pSession->out.bInterleaved;
    // nothing more comes from a pusher without it, and nobody would take its place
    int bPusherGone =
        pSession->standards.bPushers && (pSession->nFlags & SESSION_PUSHER) && pPort == pSession->peer.Cmd;
    // a media socket is still named by its track: it goes with the session
    if (!bIsControl || bPusherGone || (bInterleaved && (bIsReply || !pSession->peer.Reply))) {
        SessionEnd(pSession);
        return 1;
    }
    if (pPort == pSession->peer.Cmd)
        pSession->peer.Cmd = nullptr;
    if (bIsReply)
        pSession->peer.Reply = nullptr;
    if (pPort == pSession->hold.pPort) {
        pSession->hold.pPort = nullptr;
        pSession->hold.nScan = 0;
        pSession->hold.bStep = 0;
        SessionForgetJob(pSession);
    }
    PortClose(pPort);
    if (pSession->peer.Cmd || pSession->peer.Reply)
        return 0;
    SessionEnd(pSession);
    return 1;
}

int SessionClosePortFor(Session *pSession, Port *pPort, const char *szWhy, int nErrno)
{
    const char *szBefore = pSession->szEndReason;
    int nErrnoBefore = pSession->ending.nErrno;
    SessionNoteErrno(pSession, szWhy, nErrno);
    if (SessionClosePort(pSession, pPort))
        return 1;
    pSession->szEndReason = szBefore;
    pSession->ending.nErrno = nErrnoBefore;
    return 0;
}

int SessionCloseReplyPort(Session *pSession)
{
    Port *pPort = SessionReplyPort(pSession);
    if (pPort)
        return SessionClosePort(pSession, pPort);
    SessionEnd(pSession);
    return 1;
}

static int OnSessionDelayCloseTimer(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    if (pSession->hold.pPort)  // the peer has asked again, and is to hear the answer
        return static_cast<int>(kDelayedCloseMs);
    print("OnSessionDelayCloseTimer()\r\n");
    SessionNoteEnd(pSession, kEndAsked);
    SessionEnd(pSession);
    return -1;
}

void SessionDelayClose(Session *pSession)
{
    if (pSession->nFlags & SESSION_CLOSING)
        return;
    pSession->nFlags |= SESSION_CLOSING;
    SessionSchedule(pSession, OnSessionDelayCloseTimer, kDelayedCloseMs);
}

static int OnIdleCheck(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Port *pPort = PortOfTask(pTask);
    if (!pPort)
        return -1;
    pPort->nFlags &= static_cast<uint16_t>(~PORT_IDLE_CHECK);
    Session *pSession = FindSession(pPort->fd);
    if (!pSession) {
        print("Idle Connection Client(stocket=0x%x) is broken!\r\n", pPort->fd);
        return -1;
    }
    if (pSession->peer.nReceived)
        return -1;
    if (PortReadNow(pPort) < 0) {
        print("Idle Connection Client(socket=0x%x) is broken!\r\n", pPort->fd);
        return -1;
    }
    pSession = PortOfTask(pTask) ? FindSession(pPort->fd) : nullptr;  // what was read may have ended it
    if (pSession && !pSession->peer.nReceived) {
        print("Force Close Idle Connection on stocket 0x%x\r\n", pPort->fd);
        SessionClosePortFor(pSession, pPort, "nothing ever came from the peer", 0);
    }
    return -1;
}

int PlaysStandard(const Session *pSession)
{
    return pSession->standards.bPlayers && pSession->pProg && !pSession->pProg->bLive;
}

int IsStandardPeer(const Session *pSession)
{
    return pSession->nFlags & SESSION_PUSHER ? pSession->standards.bPushers : pSession->standards.bPlayers;
}

void SessionScheduleIdleCheck(Port *pPort)
{
    if (pPort->nFlags & PORT_IDLE_CHECK)
        return;
    pPort->nFlags |= PORT_IDLE_CHECK;
    PortSchedule(pPort, OnIdleCheck, kIdleCheckMs);
}

}  // namespace orx
