// The method ANNOUNCE: how a pusher brings a live program up, and the watchdog of its connection.
#include <cstdlib>
#include <cstring>

#include "base/console.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"
#include "server/events.h"
#include "server/play.h"
#include "server/program.h"
#include "server/programinit.h"
#include "server/sdp.h"
#include "server/send.h"
#include "server/server.h"

namespace orx {

constexpr size_t kMaxDescription = 4000;  // characters that a description stays below
constexpr uint32_t kSleepAfter = 60;      // seconds that a program idles before its pusher is told to sleep
constexpr int kSleepingPeriodMs = 60000;  // between two looks at a sleeping program

// Makes room under a path that is taken. Returns 1 when it is free now; else 0, and the refusal is sent.
static int ReplaceOldPusher(Session *pSession, Port *pPort, const char *szPath)
{
    Program *pOld = ProgramFind(szPath);
    if (!pOld)
        return 1;
    Session *pPusher = pOld->pPusher;
    const Port *pOldPort = pPusher->Cmd ? pPusher->Cmd : pPusher->Reply;
    if (SockGetIp(&pPort->remote) == SockGetIp(&pOldPort->remote)) {
        print("The same pusher Announce again, Destroy the old program.\r\n");
        SessionFree(pPusher);
        return 1;
    }
    // numbered by the counter of the pusher that stays: clients know this reply so
    ReplyFormat(pSession, pPort,
                "RTSP/1.0 502 Duplicate\r\n" ORX_SERVER_LINE "CSeq: %d\r\n" ORX_NO_CACHE "\r\n",
                pPusher->nCSeq++);
    return 0;
}

// A live program for a path and a description, in all containers; null when it cannot be made.
static Program *CreateLiveProgram(const char *szPath, const char *szSdp, size_t nSdp)
{
    if (nSdp >= kMaxDescription)
        return nullptr;
    Program *pProg = ProgramNew(szPath);
    if (!pProg)
        return nullptr;
    pProg->bLive = 1;
    pProg->tIdleSince = ClockUptime();
    pProg->szSdp = strdup(szSdp);
    if (pProg->szSdp && SdpParse(pProg, szSdp, 1, 0) && ProgramReady(pProg))
        return pProg;
    ProgramDelete(pProg);
    return nullptr;
}

// Tells an idle program's pusher to stop sending. Returns 1, or 0 when the pusher was freed.
static int SendSleep(Session *pSession)
{
    Port *pPort = SessionControlPort(pSession);
    if (!pPort || !ReplyFormat(pSession, pPort, "SLEEP RTSP/1.0\r\n" ORX_SERVER_LINE "CSeq: %d\r\n\r\n",
                               pSession->nCSeq++)) {
        SessionFree(pSession);
        return 0;
    }
    print("Prog(%s) enter sleeping state...\r\n", pSession->pProg->Uri);
    pSession->pProg->bSleeping = 1;
    return 1;
}

static int IsIdle(const Program *pProg)
{
    return pProg->nRefs < 2 && pProg->tIdleSince && !pProg->bSleeping &&
           ClockUptime() - pProg->tIdleSince >= kSleepAfter;
}

// Looks after a pusher's connection, one task for each; ends with it.
static int OnLiveWatchdog(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    int fd = pTask->nParam;
    if (!PortOfTask(pTask) || !FindSession(fd))
        return -1;
    if (OnRead(fd) < 0) {
        print("Live Program Client(socket=0x%x) is broken!\r\n", static_cast<unsigned>(fd));
        return -1;
    }
    Session *pSession = PortOfTask(pTask) ? FindSession(fd) : nullptr;
    if (!pSession)  // what was read ended it
        return -1;
    const Program *pProg = pSession->pProg;
    if (g_server.bLowEnergy && pProg && IsIdle(pProg) && !SendSleep(pSession))
        return -1;
    return pProg && pProg->bSleeping ? kSleepingPeriodMs : static_cast<int>(g_server.nLiveTime * 1000);
}

// The session becomes the pusher of a new program. Returns 1 when its reply was sent.
static int StartPusher(Session *pSession, Port *pPort, Program *pProg)
{
    char remote[kAddrTextSize];
    SockAddrToString(&pPort->remote, remote);
    pProg->pPusher = pSession;
    ProgramAttach(pSession, pProg);
    print("CreateLiveProgram(Uri=%s), pointer=0x%x, Remote=%s.\r\n", pProg->Uri, ProgramPrintId(pProg),
          remote);
    log("CreateLiveProgram(Uri=%s), pointer=0x%x, Remote=%s", pProg->Uri, ProgramPrintId(pProg), remote);
    pSession->nFlags |= SESSION_PUSHER;
    PortSchedule(pPort, OnLiveWatchdog, g_server.nLiveTime * 1000);
    pSession->nState = STATE_DESCRIBED;
    SessionCopyTracks(pSession, pProg);
    int nSent = ReplyDated(pSession, pPort);
    if (nSent)
        ProgramCallHook(pProg, remote, 1);
    return nSent;
}

static int HasDescription(const Request *pRequest)
{
    const char *szType = RequestHeaderValue(pRequest, "Content-Type");
    return szType && strcmp(szType, "application/sdp") == 0 && pRequest->pBody && pRequest->nBody > 0;
}

int HandleAnnounce(Session *pSession, Port *pPort, Request *pRequest)
{
    if (pSession->nState != STATE_NEW) {
        ReplyStatus(pSession, pPort, "455 Method Not Valid in This State");
        return 0;
    }
    if (!ChooseReplyPort(pSession, pPort))
        return 0;
    if (!HasDescription(pRequest)) {
        ReplyStatus(pSession, pPort, "400 Bad Request(no SDP)");
        return 0;
    }
    // a challenged DESCRIBE may have left a program here, whose players are about to be freed with it
    ProgramDetach(pSession);
    const char *szPath = RequestPath(pRequest);
    if (!ReplaceOldPusher(pSession, pPort, szPath))
        return 0;
    Program *pProg = CreateLiveProgram(szPath, pRequest->pBody, pRequest->nBody);
    if (!pProg) {
        ReplyStatus(pSession, pPort, "501 Internal error");
        return 0;
    }
    return StartPusher(pSession, pPort, pProg);
}

}  // namespace orx
