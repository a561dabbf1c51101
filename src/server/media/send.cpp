#include "server/media/send.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/core/program.h"
#include "server/media/rtcp.h"
#include "server/core/settings.h"

namespace orx {

static constexpr uint32_t kDelayedSendMs = 200;
static constexpr int32_t kFileLeadMs = 1000;  // a recording is sent at most this far ahead of real time
static constexpr uint32_t kCatchUpSpeed = 4;  // times real time, of a start over UDP
static constexpr uint32_t kCatchUpStepMs = 20;
static constexpr uint32_t kDropAtBlockedSends = 20;
static constexpr uint32_t kMaxReplies = 1000;   // that wait, before a peer that does not read is given up
static constexpr int kMaxGather = 64;           // blocks of one gathered write, datagrams of one call
static constexpr size_t kMaxSegment = 1472;     // a larger datagram does not fit an Ethernet frame (IPv4)
static constexpr size_t kMaxSegmented = 65000;  // bytes of one segmented message, below what IPv4 can carry

// The blocks at the head of a queue that leave in one call, and where to.
struct Batch {
    Port *pPort = nullptr;
    int nBlocks = 0;
    DataBlock *blocks[kMaxGather];
};

// Blocks of an interleaved session carry the '$' prefix.
int BlockTrack(const Session *pSession, const DataBlock *pBlock)
{
    uint32_t nAt = (pSession->nFlags & SESSION_INTERLEAVED) ? kInterleaveBytes + 1 : 1;
    if (pBlock->len <= nAt)
        return -1;
    uint8_t nType = BlockData(pBlock)[nAt] & 0x7F;
    for (int i = 0; i < pSession->out.nTracks; i++)
        if (pSession->out.tracks[i].bSetUp && pSession->out.tracks[i].nPayloadType == nType)
            return i;
    return -1;
}

static int IsDatagram(const Session *pSession, const DataBlock *pBlock)
{
    return (pBlock->nFlags & DB_MEDIA) && !(pSession->nFlags & SESSION_INTERLEAVED);
}

// The connection for replies and interleaved media, or the media socket of the block's track. Null when a
// survived peer assertion found none: which packets a recording makes is up to the file.
static Port *ChoosePort(const Session *pSession, const DataBlock *pBlock)
{
    Port *pPort = nullptr;
    if (IsDatagram(pSession, pBlock)) {
        int nTrack = BlockTrack(pSession, pBlock);
        pPort = nTrack >= 0 ? pSession->tracks[nTrack].Media : nullptr;
    } else {
        pPort = pSession->Reply ? pSession->Reply : pSession->Cmd;
    }
    return ORX_PEER_ASSERT(pPort, "port") ? pPort : nullptr;
}

// Whether the first packet of a track would leave with this block: its report has to follow right behind it.
static int StartsReports(const Session *pSession, const DataBlock *pBlock)
{
    if (!(pSession->nFlags & SESSION_RTCP) || !(pBlock->nFlags & DB_MEDIA))
        return 0;
    int nTrack = BlockTrack(pSession, pBlock);
    return nTrack >= 0 && pSession->tracks[nTrack].nPackets == 0;
}

// How far playing may have gone and has gone, for the pacing of recordings and of starts over UDP.
struct Pace {
    int bPaced;         // 0: everything leaves at once
    uint32_t nStart;    // ms, the position that PLAY began at
    uint32_t nElapsed;  // media ms since PLAY that are due
    uint32_t nSent;     // media ms since PLAY, at the last block
    int32_t nLead;      // ms that may be ahead of what is due
};

// The rest of a picture is not further ahead than its beginning: it follows at once, so that a pause does not
// leave the player with a piece of one.
static int HeldBack(const Pace *pPace, const DataBlock *pBlock)
{
    return pPace->bPaced && (pBlock->nFlags & DB_MEDIA) &&
           ClockDiff(pPace->nSent, pPace->nElapsed) > pPace->nLead &&
           pBlock->nTimestamp - pPace->nStart != pPace->nSent;
}

// Collects from the head of the queue what can leave in one call. Empty when pacing holds the head back.
// Returns 1, or 0 when the head has no socket to leave by.
static int Gather(const Session *pSession, Port *pGiven, const Pace *pPace, Batch *pBatch)
{
    Pace pace = *pPace;
    pBatch->nBlocks = 0;
    for (auto *p = ListFirstOf<DataBlock>(&pSession->out.Outq); p && pBatch->nBlocks < kMaxGather;
         p = NextBlock(p)) {
        if (HeldBack(&pace, p))
            break;
        Port *pPort = pGiven ? pGiven : ChoosePort(pSession, p);
        if (!pPort && pBatch->nBlocks == 0)
            return 0;
        if (pBatch->nBlocks > 0 && pPort != pBatch->pPort)
            break;
        pBatch->pPort = pPort;
        pBatch->blocks[pBatch->nBlocks++] = p;
        if (p->nFlags & DB_MEDIA)
            pace.nSent = p->nTimestamp - pace.nStart;
        if (StartsReports(pSession, p))
            break;
    }
    return 1;
}

// Accounts for a block that was written completely, and frees it.
static void BlockDone(Session *pSession, DataBlock *pBlock)
{
    if (pBlock->nFlags & DB_MEDIA) {
        pSession->nPacketsSent++;
        pSession->nBytesSent += pBlock->len;
        pSession->nPlayPos = pBlock->nTimestamp;
        int nTrack = (pSession->nFlags & SESSION_RTCP) ? BlockTrack(pSession, pBlock) : -1;
        uint32_t nPrefix = (pSession->nFlags & SESSION_INTERLEAVED) ? kInterleaveBytes : 0;
        if (nTrack >= 0)
            RtcpNotePacketSent(pSession, nTrack, BlockData(pBlock) + nPrefix, pBlock->len - nPrefix, pBlock);
    }
    ListRemove(&pSession->out.Outq, pBlock, 1);
}

// One gathered write. Returns what the platform does.
static ssize_t WriteStream(const Batch *pBatch)
{
    iovec parts[kMaxGather];
    for (int i = 0; i < pBatch->nBlocks; i++) {
        DataBlock *pBlock = pBatch->blocks[i];
        parts[i] = {BlockData(pBlock) + pBlock->sent, static_cast<size_t>(pBlock->len - pBlock->sent)};
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = static_cast<size_t>(pBatch->nBlocks);
    return sendmsg(pBatch->pPort->fd, &message, MSG_NOSIGNAL);
}

static void StreamWritten(Session *pSession, const Batch *pBatch, size_t nWritten)
{
    for (int i = 0; i < pBatch->nBlocks; i++) {
        DataBlock *pBlock = pBatch->blocks[i];
        size_t nRest = static_cast<size_t>(pBlock->len - pBlock->sent);
        if (nWritten < nRest) {
            pBlock->sent = static_cast<uint16_t>(pBlock->sent + nWritten);
            return;
        }
        nWritten -= nRest;
        BlockDone(pSession, pBlock);
    }
}

// Messages of one sendmmsg. Each carries a run of blocks: one datagram, or several of one size (but for a
// shorter last one) that the kernel cuts apart again, which spares the way through its network code for all
// but one.
struct Datagrams {
    mmsghdr messages[kMaxGather];
    iovec parts[kMaxGather];
    int runs[kMaxGather];  // blocks of each message
    alignas(cmsghdr) char control[kMaxGather][CMSG_SPACE(sizeof(uint16_t))];
    unsigned nMessages;
};

// How many blocks from i on may leave as one message.
static int RunLength(const Batch *pBatch, int i)
{
    size_t nSize = pBatch->blocks[i]->len;
    size_t nTotal = nSize;
    int n = 1;
    if ((pBatch->pPort->nFlags & PORT_NO_SEGMENTS) || nSize > kMaxSegment)
        return n;
    while (i + n < pBatch->nBlocks && pBatch->blocks[i + n - 1]->len == nSize &&
           pBatch->blocks[i + n]->len <= nSize && nTotal + pBatch->blocks[i + n]->len <= kMaxSegmented)
        nTotal += pBatch->blocks[i + n++]->len;
    return n;
}

static void SetSegmentSize(msghdr *pMessage, char *pControl, size_t nControl, uint16_t nSize)
{
    pMessage->msg_control = pControl;
    pMessage->msg_controllen = nControl;
    cmsghdr *pHead = CMSG_FIRSTHDR(pMessage);
    pHead->cmsg_level = SOL_UDP;
    pHead->cmsg_type = UDP_SEGMENT;
    pHead->cmsg_len = CMSG_LEN(sizeof(nSize));
    memcpy(CMSG_DATA(pHead), &nSize, sizeof(nSize));
}

static void FillDatagrams(const Batch *pBatch, Datagrams *pOut)
{
    pOut->nMessages = 0;
    for (int i = 0; i < pBatch->nBlocks;) {
        int nRun = RunLength(pBatch, i);
        unsigned m = pOut->nMessages++;
        pOut->runs[m] = nRun;
        pOut->messages[m] = {};
        msghdr *pMessage = &pOut->messages[m].msg_hdr;
        pMessage->msg_name = &pBatch->pPort->remote;
        pMessage->msg_namelen = sizeof(pBatch->pPort->remote);
        pMessage->msg_iov = &pOut->parts[i];
        pMessage->msg_iovlen = static_cast<size_t>(nRun);
        if (nRun > 1)
            SetSegmentSize(pMessage, pOut->control[m], sizeof(pOut->control[m]), pBatch->blocks[i]->len);
        for (int nEnd = i + nRun; i < nEnd; i++) {
            ORX_ASSERT(pBatch->blocks[i]->sent == 0, "p->sent==0");
            pOut->parts[i] = {BlockData(pBatch->blocks[i]), pBatch->blocks[i]->len};
        }
    }
}

// Sends datagrams to the track's peer, as many as the socket takes. Returns how many blocks left, or -1. A
// path that cannot cut segments apart gets single datagrams from then on.
static ssize_t WriteDatagrams(const Batch *pBatch)
{
    Datagrams out;
    FillDatagrams(pBatch, &out);
    int nSent = sendmmsg(pBatch->pPort->fd, out.messages, out.nMessages, MSG_NOSIGNAL);
    int bSegments = static_cast<int>(out.nMessages) < pBatch->nBlocks;
    if (nSent < 0 && bSegments && errno != EAGAIN && errno != EINTR) {
        pBatch->pPort->nFlags |= PORT_NO_SEGMENTS;
        return WriteDatagrams(pBatch);
    }
    ssize_t nBlocks = 0;
    for (int i = 0; i < nSent; i++)
        nBlocks += out.runs[i];
    return nSent < 0 ? -1 : nBlocks;
}

// Writes the batch and accounts for what left. Returns 1, 0 when the socket would block, or -1 on another
// error.
static int WriteBatch(Session *pSession, Batch *pBatch)
{
    int bDatagrams = pBatch->pPort->nType == PORT_UDP;
    ssize_t n;
    do
        n = bDatagrams ? WriteDatagrams(pBatch) : WriteStream(pBatch);
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    pSession->nBlockedSends = 0;
    if (!bDatagrams)
        StreamWritten(pSession, pBatch, static_cast<size_t>(n));
    for (int i = 0; bDatagrams && i < n && i < pBatch->nBlocks; i++)
        BlockDone(pSession, pBatch->blocks[i]);
    return 1;
}

// Frees the media that waits; the head of whatever kind goes as well unless part of it has left.
static void DropMedia(Session *pSession)
{
    List *pQueue = &pSession->out.Outq;
    auto *pHead = ListFirstOf<DataBlock>(pQueue);
    for (auto *p = pHead; p;) {
        DataBlock *pNext = NextBlock(p);
        if (p == pHead ? p->sent == 0 : (p->nFlags & DB_MEDIA) != 0)
            ListRemove(pQueue, p, 1);
        p = pNext;
    }
}

static int OnSessionDelaySendTimer(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Port *pPort = PortOfTask(pTask);
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    print("OnSessionDelaySendTimer(stocket=0x%x)\r\n", pPort->fd);
    pSession->nFlags &= ~SESSION_DELAYED_SEND;
    // replies and datagrams of one queue go to different sockets: each block finds its own
    int bOnePort = (pSession->nFlags & SESSION_INTERLEAVED) || pSession->nSetupCount == 0;
    if (!SendDataEx(pSession, bOnePort && pPort->nType == PORT_TCP ? pPort : nullptr, 0)) {
        SessionClosePort(pSession, pPort);
        return -1;
    }
    int bArmed = (pSession->nFlags & SESSION_DELAYED_SEND) != 0;
    if (bArmed || pSession->nState == STATE_PLAYING || ListCount(&pSession->out.Outq) == 0)
        return -1;
    pSession->nFlags |= SESSION_DELAYED_SEND;
    return kDelayedSendMs;
}

// The socket takes no more. A call that comes again by itself only counts, any other is repeated by a timer.
static void OnBlocked(Session *pSession, const Port *pPort, int bPush)
{
    if (bPush) {
        if (!g_settings.bAutoDrop || !pSession->pProg || !pSession->pProg->bLive ||
            pSession->nStartBlocks > 0)
            return;
        if (++pSession->nBlockedSends != kDropAtBlockedSends)
            return;
        DropMedia(pSession);
        print("SendDataEx(socket=0x%x) blocked count=%u!\r\n", pPort->fd, pSession->nBlockedSends);
        return;
    }
    if (pSession->nFlags & (SESSION_FILE_SENDER | SESSION_DELAYED_SEND))
        return;
    pSession->nFlags |= SESSION_DELAYED_SEND;
    PortSchedule(pPort, OnSessionDelaySendTimer, kDelayedSendMs);
}

// A start can be ten seconds of media, and a player's UDP socket holds a fraction of a second: at a multiple
// of real time nothing is lost. Time stamps that jump do not hold it up for longer than the cache should
// last.
static int CatchesUp(const Session *pSession)
{
    return pSession->nStartBlocks > 0 && !(pSession->nFlags & SESSION_INTERLEAVED) &&
           ClockMs() - pSession->nPlayClock < pSession->pProg->nCacheLimit;
}

static Pace ReadPace(const Session *pSession)
{
    if (!pSession->pProg || (pSession->nFlags & SESSION_PUSHER))
        return {};
    uint32_t nSent = pSession->nPlayPos - pSession->nPlayStart;
    if (!pSession->pProg->bLive)
        return {1, pSession->nPlayStart, ClockMs() - pSession->nPlayClock, nSent, kFileLeadMs};
    return {CatchesUp(pSession), pSession->nPlayStart, pSession->nCatchUpMs, nSent, 0};
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
    Pace pace = ReadPace(pSession);
    for (;;) {
        if (ListCount(&pSession->out.Outq) == 0 && !(pace.bPaced && Refill(pSession))) {
            pSession->nStartBlocks = 0;
            return 1;
        }
        if (pace.bPaced)
            pace.nSent = pSession->nPlayPos - pace.nStart;
        if (!Gather(pSession, pPort, &pace, &batch))
            return 0;
        if (batch.nBlocks == 0)
            return 1;
        int nResult = WriteBatch(pSession, &batch);
        if (nResult < 0) {
            print("SendDataEx(socket=0x%x) failed(errcode=%d)!\r\n", batch.pPort->fd, errno);
            return 0;
        }
        if (nResult == 0) {
            OnBlocked(pSession, batch.pPort, bPush);
            return 1;
        }
    }
}

static int OnCatchUpTimer(Task *pTask, uint32_t, uint32_t nNow, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    // a late step does not send more at once
    pSession->nCatchUpMs += kCatchUpSpeed * std::min(nNow - pSession->nCatchUpClock, kCatchUpStepMs);
    pSession->nCatchUpClock = nNow;
    if (!SendDataEx(pSession, nullptr, 1)) {
        SessionClosePort(pSession, PortOfTask(pTask));
        return -1;
    }
    if (pSession->nStartBlocks > 0)
        return kCatchUpStepMs;
    pSession->nFlags &= ~SESSION_CATCHES_UP;
    return -1;
}

void SendStartBurst(Session *pSession, uint32_t nBlocks)
{
    if (!g_settings.bStandardPlayers)
        return;
    pSession->nStartBlocks = nBlocks;
    pSession->nCatchUpMs = 0;
    pSession->nCatchUpClock = ClockMs();
    if (nBlocks == 0 || (pSession->nFlags & (SESSION_INTERLEAVED | SESSION_CATCHES_UP)))
        return;
    pSession->nFlags |= SESSION_CATCHES_UP;
    PortSchedule(SessionControlPort(pSession), OnCatchUpTimer, kCatchUpStepMs);
}

// Where a reply goes: on a connection that also carries the media or has no media yet, to the port that
// asked, or to the GET half of its tunnel; else each block finds its socket.
static Port *ReplyPort(const Session *pSession, Port *pPort)
{
    if (!(pSession->nFlags & SESSION_INTERLEAVED) && pSession->nSetupCount > 0)
        return nullptr;
    return (pPort->nFlags & PORT_TUNNEL_POST) ? pSession->Reply : pPort;
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
    return SendReply2(pSession, pPort, pText, nLen, nullptr, 0, nullptr);
}

// The first packet that pacing holds back and that a reply need not wait for; null when there is none.
// Replies keep their order among themselves; reports, which carry the key flag, may be passed.
static DataBlock *FirstHeldBack(const Session *pSession)
{
    Pace pace = ReadPace(pSession);
    DataBlock *pHeld = nullptr;
    for (auto *p = pace.bPaced ? ListFirstOf<DataBlock>(&pSession->out.Outq) : nullptr; p; p = NextBlock(p)) {
        if (!(p->nFlags & (DB_MEDIA | DB_KEY)))
            pHeld = nullptr;
        else if (!pHeld && HeldBack(&pace, p))
            pHeld = p;
        else if (!pHeld && (p->nFlags & DB_MEDIA))
            pace.nSent = p->nTimestamp - pace.nStart;
    }
    return pHeld;
}

// Puts a block before another one; behind it when part of that has left already, so that the stream stays
// whole.
static void Enqueue(Session *pSession, DataBlock *pBlock, DataBlock *pBefore)
{
    if (pBefore)
        ListInsert(&pSession->out.Outq, pBlock, pBefore, pBefore->sent > 0);
    else
        ListAppend(&pSession->out.Outq, pBlock);
}

// Whether a peer lets replies, or requests to it, wait without end because it does not read.
static int RepliesPileUp(const Session *pSession)
{
    if (ListCount(&pSession->out.Outq) <= kMaxReplies)
        return 0;
    uint32_t nReplies = 0;
    for (auto *p = ListFirstOf<DataBlock>(&pSession->out.Outq); p; p = NextBlock(p))
        nReplies += !(p->nFlags & DB_MEDIA);
    return nReplies > kMaxReplies;
}

int SendReply2(Session *pSession, Port *pPort, const void *pText, size_t nLen, const void *pBody,
               size_t nBody, DataBlock *pBefore)
{
    // a client can close the half of its tunnel that replies take, and go on asking on the other
    if ((pPort->nFlags & PORT_TUNNEL_POST) && !ORX_PEER_ASSERT(pSession->Reply, "session->Reply"))
        return 0;
    if (RepliesPileUp(pSession)) {
        print("Too many replies wait on fd=0x%x!\r\n", pPort->fd);
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
    Enqueue(pSession, pHead, pBefore ? pBefore : FirstHeldBack(pSession));
    if (pTail)
        ListInsert(&pSession->out.Outq, pTail, pHead, 1);
    return SendDataEx(pSession, ReplyPort(pSession, pPort), 0);
}

int ReplyFormat(Session *pSession, Port *pPort, const char *szFormat, ...)
{
    char szText[4096];
    va_list args;
    va_start(args, szFormat);
    int n = vsnprintf(szText, sizeof(szText), szFormat, args);
    va_end(args);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(szText))
        return 0;
    return SendReply(pSession, pPort, szText, static_cast<size_t>(n));
}

int ReplyStatus(Session *pSession, Port *pPort, const char *szStatus)
{
    return ReplyFormat(pSession, pPort, "RTSP/1.0 %s\r\n" ORX_SERVER_LINE "CSeq: %d\r\n" ORX_NO_CACHE "\r\n",
                       szStatus, pSession->nCSeq++);
}

int ReplyDated(Session *pSession, Port *pPort)
{
    return ReplyFormat(pSession, pPort,
                       "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE "CSeq: %d\r\n" ORX_NO_CACHE "Date: %s\r\n\r\n",
                       pSession->nCSeq++, SessionRefreshDate(pSession));
}

int ReplyShort(Session *pSession, Port *pPort, const char *szStatus)
{
    return ReplyFormat(pSession, pPort, "RTSP/1.0 %s\r\n" ORX_SERVER_LINE "CSeq: %d\r\n\r\n", szStatus,
                       pSession->nCSeq++);
}

int ReplyPeerFault(Session *pSession, Port *pPort)
{
    ReplyShort(pSession, pPort, "400 Bad Request");
    return 0;
}

}  // namespace orx
