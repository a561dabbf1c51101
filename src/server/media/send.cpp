#include "server/media/send.h"

#include <algorithm>
#include <cerrno>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/core/program.h"
#include "server/core/sessionevents.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/media/outqueue.h"
#include "server/media/pace.h"
#include "server/media/rtcp.h"
#include "server/media/wire.h"

namespace orx {

static constexpr int32_t kStuckMs = 30000;
static constexpr uint32_t kDelayedSendMs = 200;  // a socket that was full has room again after a round trip

// The connection for replies and interleaved media, or the media socket of the block's track. Null when a
// survived peer assertion found none: which packets a recording makes is up to the file.
static inline Port *ChoosePort(const Session *pSession, const BlockRef *pRef)
{
    Port *pPort = nullptr;
    if (IsDatagram(pSession, pRef)) {
        int nTrack = TrackOfRef(pSession, pRef);
        pPort = nTrack >= 0 ? pSession->tracks[nTrack].Media : nullptr;
    } else {
        pPort = SessionReplyPort(pSession);
    }
    return ORX_PEER_ASSERT(pPort, "port") ? pPort : nullptr;
}

// Whether the first packet of a track would leave with this block: its report has to follow right behind it.
// Of sessions that get reports.
static int StartsReports(const Session *pSession, const BlockRef *pRef)
{
    if (!(RefFlags(pRef) & DB_MEDIA))
        return 0;
    int nTrack = TrackOfRef(pSession, pRef);
    return nTrack >= 0 && !pSession->tracks[nTrack].bReported && ReportsAreOwn(pSession, nTrack);
}

// Counts from the head of the queue what can leave in one call. None when pacing holds the head back.
// Returns 1, or 0 when the head has no socket to leave by.
static int Gather(const Session *pSession, Port *pGiven, const Pace *pPace, Batch *pBatch)
{
    Pace pace = *pPace;
    const BlockQueue *pQueue = &pSession->out.Outq;
    int bReports = RtcpMakesReports(pSession);
    uint32_t nMost = std::min<uint32_t>(pQueue->nItems, kMaxGather);
    pBatch->nBlocks = 0;
    if (!pace.bPaced && !bReports && pSession->out.bInterleaved) {  // all leave alike
        pBatch->pPort = pGiven ? pGiven : ChoosePort(pSession, QueueFirst(pQueue));
        pBatch->nBlocks = nMost;
        return pBatch->pPort != nullptr;
    }
    while (pBatch->nBlocks < nMost) {
        const BlockRef *p = QueueAt(pQueue, pBatch->nBlocks);
        if (PaceHoldsBack(&pace, p))
            break;
        Port *pPort = pGiven ? pGiven : ChoosePort(pSession, p);
        if (!pPort && pBatch->nBlocks == 0)
            return 0;
        if (pBatch->nBlocks > 0 && pPort != pBatch->pPort)
            break;
        pBatch->pPort = pPort;
        pBatch->nBlocks++;
        PaceAdvance(&pace, p);
        if (bReports && StartsReports(pSession, p))
            break;
    }
    return 1;
}

// Of the head, which was written completely, reports count. One on it stands behind it then.
static void ReportHead(Session *pSession)
{
    const BlockRef *pHead = QueueFirst(&pSession->out.Outq);
    int nTrack = RefFlags(pHead) & DB_MEDIA ? TrackOfRef(pSession, pHead) : -1;
    uint32_t nPrefix = pSession->out.bInterleaved ? kInterleaveBytes : 0;
    if (nTrack >= 0)
        RtcpNotePacketSent(pSession, nTrack, RefData(pHead) + nPrefix, RefLen(pHead) - nPrefix,
                           (RefFlags(pHead) & DB_JUMP) != 0);
}

// Accounts for the first blocks, which were written completely, and takes them off.
static void BlocksDone(Session *pSession, uint32_t nDone)
{
    BlockQueue *pQueue = &pSession->out.Outq;
    int64_t nMedia = 0;
    for (uint32_t i = 0; i < nDone; i++) {
        const BlockRef *p = QueueAt(pQueue, i);
        if (!(RefFlags(p) & DB_MEDIA))
            continue;
        pSession->play.nPlayPos = p->pBlock->nTimestamp;
        nMedia += RefBytes(p);
    }
    pSession->flow.nStartHeld -= std::min(pSession->flow.nStartHeld, nMedia);
    // standard players of recordings are told where each track ends, with or without reports
    if (!(pSession->nFlags & SESSION_RTCP) && !pSession->out.bSampleStamps) {
        QueueTake(pQueue, nDone);
        return;
    }
    for (; nDone > 0; nDone--) {
        ReportHead(pSession);
        QueueTake(pQueue, 1);
    }
}

static int OnSessionDelaySendTimer(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    print("OnSessionDelaySendTimer(stocket=0x%x)\r\n", pSession->flow.fdBlocked);
    pSession->nFlags &= ~SESSION_DELAYED_SEND;
    // replies and datagrams of one queue go to different sockets: each block finds its own
    if (!SendDataEx(pSession, nullptr, 0)) {
        SessionCloseReplyPort(pSession);
        return -1;
    }
    int bArmed = (pSession->nFlags & SESSION_DELAYED_SEND) != 0;
    if (bArmed || pSession->nState == STATE_PLAYING || PaceKeepsAll(pSession))
        return -1;
    pSession->nFlags |= SESSION_DELAYED_SEND;
    return kDelayedSendMs;
}

// A send that comes again by itself only counts.
static void CountBlocked(Session *pSession, const Port *pPort)
{
    SessionFlow *pFlow = &pSession->flow;
    if (!g_settings.bAutoDrop || !pSession->pProg || !pSession->pProg->bLive || pSession->standards.bPlayers)
        return;
    if (++pFlow->nBlockedSends != kBlockedSends)
        return;
    QueueDropCrowded(pSession);
    print("SendDataEx(socket=0x%x) blocked count=%u!\r\n", pPort->fd, pFlow->nBlockedSends);
}

// Whether a live player's socket has taken nothing for so long that nobody is expected to read from it again.
static int IsStuck(Session *pSession)
{
    SessionFlow *pFlow = &pSession->flow;
    if (!QueueKeepsGroups(pSession))
        return 0;
    if (!pFlow->bBlocked)
        pFlow->nBlockedClock = ClockMs();
    pFlow->bBlocked = 1;
    pFlow->nTriedClock = ClockMs();
    if (ClockDiff(ClockMs(), pFlow->nBlockedClock) < kStuckMs)
        return 0;
    QueueTell(pSession, "took nothing for 30 seconds and is closed");
    SessionNoteEnd(pSession, "it took nothing for 30 seconds");
    return 1;
}

// The socket takes no more. A call that does not come again by itself is repeated by a timer. Returns 1, or 0
// when the session is to be ended.
static int OnBlocked(Session *pSession, const Port *pPort, int bPush)
{
    if (IsStuck(pSession))
        return 0;
    if (bPush) {
        CountBlocked(pSession, pPort);
        return 1;
    }
    if (pSession->nFlags & (SESSION_FILE_SENDER | SESSION_DELAYED_SEND))
        return 1;
    pSession->nFlags |= SESSION_DELAYED_SEND;
    pSession->flow.fdBlocked = pPort->fd;
    SessionSchedule(pSession, OnSessionDelaySendTimer, kDelayedSendMs);
    return 1;
}

// Whether datagrams of a live program wait for their time or for room.
static int HoldsDatagrams(const Session *pSession)
{
    return pSession->flow.nStartBlocks > 0 ||
           (PaceCountsBytes(pSession) && pSession->nState == STATE_PLAYING && pSession->out.Outq.nItems > 0);
}

static int OnCatchUpTimer(Task *pTask, uint32_t, uint32_t nNow, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    PaceRaise(pSession, nNow);
    if (!SendDataEx(pSession, nullptr, 1)) {
        SessionCloseReplyPort(pSession);
        return -1;
    }
    if (HoldsDatagrams(pSession))
        return kCatchUpStepMs;
    pSession->nFlags &= ~SESSION_CATCHES_UP;
    return -1;
}

// Starts the timer that lets what a live program's pace holds back leave, unless it runs. A recording has its
// own.
static void CatchUp(Session *pSession)
{
    int bLive = pSession->pProg && pSession->pProg->bLive;
    if (pSession->out.bInterleaved || !bLive || (pSession->nFlags & SESSION_CATCHES_UP) ||
        !HoldsDatagrams(pSession))
        return;
    pSession->nFlags |= SESSION_CATCHES_UP;
    SessionSchedule(pSession, OnCatchUpTimer, kCatchUpStepMs);
}

// Writes the batch and accounts for what left. Results of WireWrite.
static int WriteBatch(Session *pSession, const Batch *pBatch)
{
    SessionFlow *pFlow = &pSession->flow;
    uint32_t nLeft = 0;
    uint64_t nBefore = pFlow->nBytesSent;
    int nResult = WireWrite(&pSession->out.Outq, pBatch, &nLeft, &pFlow->nBytesSent);
    g_server.counted.nBytesSent += pFlow->nBytesSent - nBefore;
    if (nResult > 0) {
        pFlow->nBlockedSends = 0;
        pFlow->bBlocked = 0;
    }
    int bCounts = pBatch->pPort->nType == PORT_UDP && PaceCountsBytes(pSession);
    for (uint32_t i = 0; i < nLeft && bCounts; i++)
        pFlow->nRoom -= static_cast<int32_t>(RefLen(QueueAt(&pSession->out.Outq, i)));
    BlocksDone(pSession, nLeft);
    return nResult;
}

// Asks the program for what comes next. Returns 1 when something was queued.
static int Refill(Session *pSession)
{
    const ProgramOps *pOps = pSession->pProg->pOps;
    return pOps->pfnRefill && pOps->pfnRefill(pSession);
}

int SendDataEx(Session *pSession, Port *pPort, int bPush)
{
    Batch batch;
    Pace pace = PaceTake(pSession);
    for (;;) {
        if (pSession->out.Outq.nItems == 0 && !(pace.bPaced && Refill(pSession))) {
            pSession->flow.nStartBlocks = 0;
            return 1;
        }
        if (pace.bPaced)
            PaceGoOn(&pace, pSession);
        if (!Gather(pSession, pPort, &pace, &batch)) {
            SessionNoteEnd(pSession, "what waits for it has no connection to leave by");
            return 0;
        }
        if (batch.nBlocks == 0) {
            CatchUp(pSession);
            return 1;
        }
        int nResult = WriteBatch(pSession, &batch);
        if (nResult < 0) {
            int nErrno = errno;
            print("SendDataEx(socket=0x%x) failed(errcode=%d)!\r\n", batch.pPort->fd, nErrno);
            SessionNoteErrno(pSession, kEndBroken, nErrno);
            return 0;
        }
        if (nResult == 0)
            return OnBlocked(pSession, batch.pPort, bPush);
    }
}

void SendStartBurst(Session *pSession, uint32_t nBlocks)
{
    if (!pSession->standards.bPlayers)
        return;
    PaceStart(pSession, nBlocks);
    CatchUp(pSession);
}

void SendStartMore(Session *pSession, uint32_t nBlocks)
{
    if (!pSession->standards.bPlayers)
        return;
    pSession->flow.nStartBlocks += nBlocks;
    CatchUp(pSession);
}

// Where a reply goes: on a connection that also carries the media or has no media yet, to the port that
// asked, or to the GET half of its tunnel; else each block finds its socket.
static Port *ReplyPort(const Session *pSession, Port *pPort)
{
    if (!pSession->out.bInterleaved && pSession->play.nSetupCount > 0)
        return nullptr;
    return (pPort->nFlags & PORT_TUNNEL_POST) ? pSession->peer.Reply : pPort;
}

static DataBlock *MakeReplyBlock(const void *pText, size_t nLen)
{
    if (nLen >= 65536) {
        print("Reply of %u bytes is too long!\r\n", static_cast<unsigned>(nLen));
        return nullptr;
    }
    return MakeDataBlock(pText, nLen, 0, 0, 0);
}

int SendReply(Session *pSession, Port *pPort, const void *pText, size_t nLen)
{
    return SendReply2(pSession, pPort, pText, nLen, nullptr, 0, kQueueEnd);
}

int SendQuestion(Session *pPusher, Port *pPort, const void *pText, size_t nLen, uint32_t nAsker)
{
    DataBlock *pBlock = MakeReplyBlock(pText, nLen);
    if (!pBlock)
        return 1;  // lost, as one that the pusher never answers
    pBlock->nFlags |= DB_QUESTION;
    pBlock->nSerial = nAsker;
    pBlock->nTimestamp = ClockMs();
    QueueAppend(&pPusher->out.Outq, {pBlock});
    return SendDataEx(pPusher, ReplyPort(pPusher, pPort), 0);
}

int SendReply2(Session *pSession, Port *pPort, const void *pText, size_t nLen, const void *pBody,
               size_t nBody, uint32_t nBefore)
{
    // a client can close the half of its tunnel that replies take, and go on asking on the other
    if (!ORX_PEER_ASSERT(pPort && (pSession->peer.Reply || !(pPort->nFlags & PORT_TUNNEL_POST)),
                         "session->Reply"))
        return 0;
    if (RepliesPileUp(pSession)) {
        print("Too many replies wait on fd=0x%x!\r\n", pPort->fd);
        SessionNoteEnd(pSession, "it does not read its replies");
        return 0;
    }
    DataBlock *pHead = MakeReplyBlock(pText, nLen);
    DataBlock *pTail = nBody ? MakeReplyBlock(pBody, nBody) : nullptr;
    if (!pHead || (nBody && !pTail)) {
        print("MakeDataBlock() failed!\r\n");
        FreeDataBlock(pHead);
        FreeDataBlock(pTail);
        return 0;
    }
    int64_t nAt = QueueBefore(pSession, pHead, nBefore < kQueueEnd ? nBefore : PaceFirstHeld(pSession));
    if (nAt < 0 || (pTail && !QueueInsert(&pSession->out.Outq, static_cast<uint32_t>(nAt) + 1, {pTail}))) {
        if (nAt < 0)
            FreeDataBlock(pTail);
        return 0;
    }
    return SendDataEx(pSession, ReplyPort(pSession, pPort), 0);
}

}  // namespace orx
