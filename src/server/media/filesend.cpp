#include "server/media/filesend.h"

#include "base/console.h"
#include "record/codec.h"
#include "record/rtphelp.h"
#include "record/zmfile.h"
#include "server/core/program.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/media/filereader.h"
#include "server/media/pace.h"
#include "server/media/rtcp.h"
#include "server/media/send.h"

namespace orx {

// A refill comes when the queue is empty: a picture and the sound beside it, so that little is read ahead of
// a player that pauses or leaves.
static constexpr int kSamplesPerRefill = 4;
static constexpr uint32_t kFileSendPeriodMs = 200;  // between two runs; a fifth of what may be ahead
static constexpr uint32_t kSmoothPeriodMs = 20;     // of standard players: bursts fill a player's UDP socket
static constexpr uint32_t kByeBehindMs = 200;       // over UDP, behind the last packet
static constexpr int kMostTold = 8;                 // lines on one player's recording
static constexpr int kEmptyRefills = 64;            // in a row before the others get their turn

// Says whether the player has set up the track that samples go on; -1 stands for no such track.
static int Takes(const Session *pSession, int nTrack)
{
    return nTrack >= 0 && nTrack < pSession->out.nTracks && pSession->tracks[nTrack].bSetUp;
}

// Queues a sample of video or sound when the player takes it. Returns the packets made.
static int PackMedia(Session *pSession, int nTrack, const uint8_t *pData, uint32_t nLen, uint32_t nTimeMs)
{
    if (!Takes(pSession, nTrack))
        return 0;
    const Codec *pCodec = pSession->tracks[nTrack].pCodec;
    if (pCodec && pCodec->pfnPack)
        return pCodec->pfnPack(&pSession->out, pData, nLen, nTimeMs, nTrack);
    print("Unsupported video media type!\r\n");
    return 0;
}

static int PackData(Session *pSession, int nTrack, const uint8_t *pData, uint32_t nLen, uint32_t nTimeMs)
{
    if (!Takes(pSession, nTrack))
        return 0;
    return Pack2RtpUserBlock(&pSession->out, pData, nLen, nTimeMs, nTrack);
}

// The time at which a record is played. What is wrong with the times of a recording is said, not for ever.
static uint32_t TimeOfRecord(Session *pSession, int nTrack, const ZMFRecordHead *pHead)
{
    if (!PlaysStandard(pSession) || nTrack < 0 || nTrack >= kMaxTracks)
        return pHead->nTimeMs;
    PlayLineFault eFault = LINE_FOLLOWS;
    uint32_t nMs = PlayLineTime(&pSession->play.line, nTrack, pHead->chMedia == 'v', pHead->nTimeMs, &eFault);
    if (eFault == LINE_FOLLOWS || pSession->play.nTold++ >= kMostTold)
        return nMs;
    const char *szWhat = eFault == LINE_JUMPS ? "jump to" : "stand still at";
    print("The times of %s %s %u ms, playing goes on.\r\n", pSession->pProg->Uri, szWhat, pHead->nTimeMs);
    log("The times of %s %s %u ms, playing goes on", pSession->pProg->Uri, szWhat, pHead->nTimeMs);
    return nMs;
}

// The track that a record is of.
static int TrackOfRecord(const Description *pDesc, const ZMFRecordHead *pHead)
{
    if (pHead->chMedia == 'v')
        return pDesc->nVideoTrack;
    return pHead->chMedia == 'a' ? pDesc->nAudioTrack : pDesc->nDataTrack;
}

// Queues one record of the file.
static void PackRecord(Session *pSession, const uint8_t *pRecord, uint32_t nBytes)
{
    Program *pProg = pSession->pProg;
    ZMFRecordHead head;
    ZMFRecordHeadDecode(pRecord, &head);
    const uint8_t *pData = pRecord + kZmfRecordHeadBytes;
    uint32_t nLen = nBytes - kZmfRecordHeadBytes;
    int nTrack = TrackOfRecord(&pProg->desc, &head);
    uint32_t nTimeMs = TimeOfRecord(pSession, nTrack, &head);
    int bMedia = head.chMedia == 'v' || head.chMedia == 'a';
    int nPackets = (bMedia ? PackMedia : PackData)(pSession, nTrack, pData, nLen, nTimeMs);
    pProg->cache.nSerial += static_cast<uint32_t>(nPackets);
}

// Whether a player that reads its sockets one by one has had the time to read the last packet.
static int LastPacketTaken(const Session *pSession)
{
    return !PlaysStandard(pSession) || pSession->out.bInterleaved ||
           ClockMs() - pSession->play.nEndClock >= kByeBehindMs;
}

// The last words to the player, once the reports before are old enough. Returns 1 when there is nothing left
// to say.
static int SayBye(Session *pSession)
{
    if (pSession->nState == STATE_FINISHED && pSession->play.bFinalReport && LastPacketTaken(pSession) &&
        SendRtcpBye(pSession))
        pSession->play.bFinalReport = 0;
    return pSession->nState != STATE_FINISHED || !pSession->play.bFinalReport;
}

// The recording is at its end: nothing more is read until the player seeks. Standard players wait for the
// word: on a connection it follows the last packet; as a datagram on a socket of its own it would overtake
// what the player has not read yet, and goes with a later run of the sender.
static void EndFile(Session *pSession)
{
    int bStandard = PlaysStandard(pSession);
    pSession->nState = STATE_FINISHED;
    pSession->play.bFinalReport = bStandard || (pSession->nFlags & SESSION_RTCP) != 0;
    pSession->play.nEndClock = ClockMs();
    if (bStandard && pSession->out.bInterleaved)
        SayBye(pSession);
}

// Queues some records. Returns 0 when they are still being read.
static int PackRecords(Session *pSession)
{
    FileReader *pReader = pSession->pProg->reader;
    while (pSession->nState == STATE_PLAYING) {
        uint32_t nBytes = 0;
        int bEnd = 0;
        const uint8_t *pRecord = FileReaderNext(pReader, &nBytes, &bEnd);
        if (pRecord)
            PackRecord(pSession, pRecord, nBytes);
        else if (!bEnd)
            return 0;  // the refill goes on with what is being read
        else if (pReader->nInRefill == 0)
            EndFile(pSession);
        pReader->nInRefill = pRecord ? (pReader->nInRefill + 1) % kSamplesPerRefill : 0;
        if (pReader->nInRefill == 0)
            return 1;
    }
    return 1;
}

static void SendingFailed(Session *pSession)
{
    const Port *pPort = SessionReplyPort(pSession);
    print("Player Client(stocket=0x%x) is broken!\r\n", pPort ? pPort->fd : -1);
    pSession->nFlags &= ~SESSION_FILE_SENDER;
    SessionCloseReplyPort(pSession);
}

int FillBufferFromFile(Session *pSession)
{
    Program *pProg = pSession->pProg;
    const BlockQueue *pQueue = &pSession->out.Outq;
    if (!pProg || pProg->bLive || !pProg->reader)
        return 0;
    // samples that the player does not take make no packets: go on until some do, but do not read a long
    // recording through at once
    for (int n = 0; n < kEmptyRefills && pQueue->nItems == 0 && pSession->nState == STATE_PLAYING; n++)
        if (!PackRecords(pSession))
            break;
    return pQueue->nItems > 0;
}

void FileRecordsArrived(Program *pProg)
{
    Session *pNext;
    for (Session *p = FirstPlayer(pProg); p; p = pNext) {
        pNext = NextPlayer(p);
        if (p->nState == STATE_PLAYING && !SendDataEx(p, nullptr, 1))
            SendingFailed(p);
    }
}

// One run of the sender. It ends with the connection, when the player pauses, and when the recording has
// ended and the player was told so.
static int OnFileSend(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pSession = SessionOfTask(pTask);
    if (!pSession)
        return -1;
    int bDone = SayBye(pSession);
    if (pSession->nState != STATE_PLAYING && bDone && PaceKeepsAll(pSession)) {
        pSession->nFlags &= ~SESSION_FILE_SENDER;
        return -1;
    }
    if (!SendDataEx(pSession, nullptr, 1)) {
        SendingFailed(pSession);
        return -1;
    }
    // no report goes ahead of the first packet, which the disk may be at
    int bWaits = pSession->pProg && pSession->pProg->reader && pSession->pProg->reader->bWanted;
    if (RtcpMakesReports(pSession) && pSession->nState == STATE_PLAYING && !bWaits &&
        SendRtcpReport(pSession) && PlaysStandard(pSession) && !SendDataEx(pSession, nullptr, 1)) {
        SendingFailed(pSession);
        return -1;
    }
    return static_cast<int>(PlaysStandard(pSession) ? kSmoothPeriodMs : kFileSendPeriodMs);
}

void FileSenderStart(Session *pSession)
{
    if (pSession->nFlags & SESSION_FILE_SENDER)
        return;
    pSession->nFlags |= SESSION_FILE_SENDER;
    pSession->out.bSampleStamps = PlaysStandard(pSession);
    for (SessionTrack &track : pSession->tracks)
        track.nStampBase = PlayStampBase(pSession);
    SessionSchedule(pSession, OnFileSend, 0);
}

}  // namespace orx
