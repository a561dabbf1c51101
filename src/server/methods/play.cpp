#include "server/methods/play.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "record/playline.h"
#include "record/reorder.h"
#include "runtime/clock.h"
#include "server/core/program.h"
#include "server/core/sessionevents.h"
#include "server/core/settings.h"
#include "server/media/distribute.h"
#include "server/media/fileprogram.h"
#include "server/media/filesend.h"
#include "server/media/outqueue.h"
#include "server/media/pace.h"
#include "server/media/replies.h"
#include "server/media/rtcp.h"
#include "server/methods/options.h"

namespace orx {

constexpr float kLeastSpeed = 0.5F;
constexpr float kMostSpeed = 8;
constexpr uint32_t kPictureStepMs = 10;  // between two looks whether a picture has left
// The last picture of a recording begins at its duration and is shown for a while: GStreamer leaves out what
// begins at the end that it is told, by its clock, which it corrects by some milliseconds with every report.
constexpr uint32_t kLastPictureMs = 100;
constexpr uint32_t kSeekTolerance = 2000;  // ms around the position that a wanted start is taken for

// What a "Range" header asks for of a recording.
struct WantedRange {
    uint32_t nStart = 0;         // ms; 0: from where it stands, but for standard players
    int bStart = 0;              // it is there: not "npt=-20", not "npt=now-"
    uint32_t nEnd = UINT32_MAX;  // ms; not before its last second: to its end
};

static const char *NextDigit(const char *p)
{
    return p + strcspn(p, "0123456789\r\n");
}

static int IsNumber(const char *p)
{
    return *p >= '0' && *p <= '9';
}

// Reads "npt=10.5-20" and the like: the numbers count, not the unit.
static WantedRange ReadRange(const char *szRange)
{
    WantedRange range;
    const char *p = szRange ? NextDigit(szRange) : nullptr;
    if (!p || !IsNumber(p))
        return range;
    range.nStart = NptToMs(p);
    range.bStart = !memchr(szRange, '-', static_cast<size_t>(p - szRange));
    p += strcspn(p, "-\r\n");
    p = NextDigit(p);
    if (IsNumber(p))
        range.nEnd = NptToMs(p);
    return range;
}

// The number of a track's next packet: of the first one that waits, else of the first one to be made.
static int NextNumber(const Session *pSession, int nTrack)
{
    uint16_t nNumber = pSession->tracks[nTrack].nNextSeq;
    const BlockQueue *pQueue = &pSession->out.Outq;
    for (uint32_t i = 0; i < pQueue->nItems; i++) {
        const BlockRef *p = QueueAt(pQueue, i);
        nNumber -= (RefFlags(p) & DB_MEDIA) && p->nSent == 0 && TrackOfRef(pSession, p) == nTrack;
    }
    return nNumber;
}

// The URL of a track as standard players know it from the description: they look for it, and go without the
// line's times when they do not find it.
static void WriteTrackUrl(const MediaInfo *pInfo, const char *szUrl, TextBuf *pText)
{
    size_t nUrl = strlen(szUrl);
    while (nUrl > 0 && szUrl[nUrl - 1] == '/')
        nUrl--;
    if (!*pInfo->szControl)
        TextAdd(pText, "%.*s/trackID=%d", static_cast<int>(nUrl), szUrl, pInfo->nTrackId);
    else if (strstr(pInfo->szControl, "://"))
        TextAdd(pText, "%s", pInfo->szControl);
    else
        TextAdd(pText, "%.*s/%s", static_cast<int>(nUrl), szUrl, pInfo->szControl);
}

// The first packet of a track that waits; null when none does.
static const uint8_t *FirstPacket(const Session *pSession, int nTrack)
{
    uint32_t nPrefix = pSession->out.bInterleaved ? kInterleaveBytes : 0;
    const BlockQueue *pQueue = &pSession->out.Outq;
    for (uint32_t i = 0; i < pQueue->nItems; i++) {
        const BlockRef *p = QueueAt(pQueue, i);
        if ((RefFlags(p) & DB_MEDIA) && p->nSent == 0 && RefLen(p) >= nPrefix + kRtpHeaderBytes &&
            TrackOfRef(pSession, p) == nTrack)
            return RefData(p) + nPrefix;
    }
    return nullptr;
}

// The same line for a live program: with the number and stamp that each track begins with, or where one is
// not known yet with none, because players measure the tracks by each other.
static void WriteLiveInfo(const Session *pSession, const char *szUrl, TextBuf *pText)
{
    const uint8_t *first[kMaxTracks] = {};
    int bKnown = 1;
    for (int i = 0; i < pSession->out.nTracks; i++) {
        first[i] = pSession->tracks[i].bSetUp ? FirstPacket(pSession, i) : nullptr;
        bKnown &= first[i] || !pSession->tracks[i].bSetUp;
    }
    const char *szComma = "";
    for (int i = 0; i < pSession->out.nTracks; i++) {
        if (!pSession->tracks[i].bSetUp)
            continue;
        TextAdd(pText, "%surl=", szComma);
        WriteTrackUrl(&pSession->pProg->desc.mediaInfos[i], szUrl, pText);
        if (bKnown)
            TextAdd(pText, ";seq=%u;rtptime=%u", GetBe(first[i] + 2, 2), GetBe(first[i] + 4, 4));
        szComma = ",";
    }
}

// The items of the reply's RTP-Info line: the tracks set up, with the number of their next packet if wanted.
static void WriteRtpInfo(const Session *pSession, const char *szUrl, int bSequence, TextBuf *pText)
{
    const char *szComma = "";
    int bStandard = PlaysStandard(pSession);
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const SessionTrack *pTrack = &pSession->tracks[i];
        if (!pTrack->bSetUp)
            continue;
        TextAdd(pText, "%surl=", szComma);
        if (bStandard)
            WriteTrackUrl(&pSession->pProg->desc.mediaInfos[i], szUrl, pText);
        else
            TextAdd(pText, "%s/trackID=%d", szUrl, pTrack->nTrackId);
        if (bSequence)
            TextAdd(pText, ";seq=%d", NextNumber(pSession, i));
        if (bStandard)
            TextAdd(pText, ";rtptime=%u",
                    PlayStampBase(pSession) +
                        PlayStamp(pTrack->nTimeScale, int64_t{pSession->play.nPlayPos} * 1000));
        szComma = ",";
    }
}

// What waits is from before the jump. The rest of a block that is under way counts as from behind it, so that
// the pace follows the new position.
static void Jump(Session *pSession, uint32_t nReached, int nScale)
{
    QueueDropMedia(pSession);
    BlockQueue *pQueue = &pSession->out.Outq;
    for (uint32_t i = 0; i < pQueue->nItems; i++)
        if (BlockRef *p = QueueAt(pQueue, i); !(RefFlags(p) & DB_CACHED) || QueueOwn(pQueue, i))
            p->pBlock->nTimestamp = nReached;
    pSession->play.nPlayPos = nReached;
    PlayLineBegin(&pSession->play.line, nReached, nScale);
}

// The end of both replies to PLAY.
static void AddPlayLines(Message *pReply, const Request *pRequest, int bSequence)
{
    MessageNoCache(pReply);
    MessageSession(pReply);
    MessageDate(pReply);
    TextAdd(&pReply->text, "RTP-Info: ");
    const Session *pSession = pReply->pSession;
    // that of Content-Base, as it came: a name may hold what was escaped because it separates items here
    const char *szUrl = pSession->standards.bPlayers ? RequestBase(pRequest) : RequestUri(pRequest);
    if (pSession->standards.bPlayers && pSession->pProg->bLive && !(pSession->nFlags & SESSION_PUSHER))
        WriteLiveInfo(pSession, szUrl, &pReply->text);
    else
        WriteRtpInfo(pSession, szUrl, bSequence, &pReply->text);
    TextAdd(&pReply->text, "\r\n");
}

// What a PLAY of a recording asks for, and what of it can be had.
struct PlayWish {
    WantedRange range;
    const char *szScale = nullptr;  // not owned, as is szSpeed; null: nothing is asked
    const char *szSpeed = nullptr;
    int nScale = 1;
    uint32_t nSpeed = 1000;  // thousandths
};

// A header that is not there asks for normal play (RFC 2326, sections 12.34 and 12.35).
static PlayWish ReadWish(const Session *pSession, const Request *pRequest)
{
    PlayWish wish;
    wish.range = ReadRange(RequestHeaderValue(pRequest, "Range"));
    if (!PlaysStandard(pSession))
        return wish;
    wish.szScale = RequestHeaderValue(pRequest, "Scale");
    wish.szSpeed = RequestHeaderValue(pRequest, "Speed");
    if (wish.szScale)
        wish.nScale = FileProgramScale(pSession, strtof(wish.szScale, nullptr));
    float fSpeed = wish.szSpeed ? strtof(wish.szSpeed, nullptr) : 1;
    fSpeed = fSpeed >= kLeastSpeed ? std::min(fSpeed, kMostSpeed) : kLeastSpeed;
    wish.nSpeed = static_cast<uint32_t>(fSpeed * 1000);
    return wish;
}

// The time that the file is to be searched for; -1: it goes on where it is. Standard players get it exactly,
// the beginning too, unless playing begins there anyhow; another scale goes on from a key frame.
static int64_t SeekTarget(const Session *pSession, const PlayWish *pWish)
{
    const WantedRange *pRange = &pWish->range;
    const SessionPlay *pPlay = &pSession->play;
    if (!PlaysStandard(pSession)) {
        auto nAway = static_cast<uint32_t>(std::abs(ClockDiff(pRange->nStart, pPlay->nPlayPos)));
        return pRange->nStart && nAway > kSeekTolerance ? pRange->nStart : int64_t{-1};
    }
    int bElsewhere = pRange->bStart && (pRange->nStart || pSession->nState != STATE_SETUP);
    if (!bElsewhere && pWish->nScale == pPlay->line.nScale)
        return -1;
    if (pRange->bStart && pWish->nScale > 0)
        return pRange->nStart;
    uint32_t nStart = pRange->bStart ? pRange->nStart : PlayLineMedia(&pPlay->line, pPlay->nPlayPos);
    return std::min(nStart, std::max(FileProgramDuration(pSession->pProg), 1U) - 1);
}

// Whether the request at hand has to wait until the player has the whole of a picture. No other one begins
// until the request is through.
static int WaitsForPicture(Session *pSession)
{
    pSession->play.bFinishes = 1;
    int bWaits = PaceIsMidPicture(pSession);
    if (bWaits)
        SessionNextStep(pSession, kPictureStepMs);
    return bWaits;
}

// Moves the recording to where it is wanted. Returns 0 while a picture leaves or the disk searches.
static int MoveFile(Session *pSession, const PlayWish *pWish)
{
    uint32_t nReached = 0;
    int64_t nTarget = SeekTarget(pSession, pWish);
    int nSought = 0;
    if (nTarget >= 0 && !pSession->hold.pJob && WaitsForPicture(pSession))
        return 0;
    if (nTarget >= 0)
        nSought = FileProgramSeek(pSession, static_cast<uint32_t>(nTarget), pWish->nScale, &nReached);
    if (nSought < 0)
        return 0;
    pSession->play.bFinishes = 0;
    if (nSought)
        Jump(pSession, nReached, pWish->nScale);
    pSession->play.nSpeed = pWish->nSpeed;
    pSession->play.nPlayStart = pSession->play.nPlayPos;
    RtcpPlayBegins(pSession);
    return 1;
}

static void AddTimes(Message *pReply, const PlayWish *pWish)
{
    const SessionPlay *pPlay = &pReply->pSession->play;
    auto nDuration = static_cast<int64_t>(FileProgramDuration(pReply->pSession->pProg));
    uint32_t nPos = PlayLineMedia(&pPlay->line, pPlay->nPlayPos);
    uint32_t nEnd = static_cast<uint32_t>(nDuration) + (PlaysStandard(pReply->pSession) ? kLastPictureMs : 0);
    if (pWish->range.nEnd < nDuration - 1000)
        nEnd = pWish->range.nEnd;
    if (pPlay->line.nScale < 0)
        nEnd = pWish->range.nEnd < nPos ? pWish->range.nEnd : 0;
    TextAdd(&pReply->text, "Range: npt=%d.%03d-%d.%03d\r\n", static_cast<int>(nPos / 1000),
            static_cast<int>(nPos % 1000), static_cast<int>(nEnd / 1000), static_cast<int>(nEnd % 1000));
}

// The reply: where a recording is played, and how.
static void WriteFileReply(Message *pReply, const Request *pRequest, const PlayWish *pWish, int bNewScale)
{
    const SessionPlay *pPlay = &pReply->pSession->play;
    ReplyBegin(pReply, STATUS_OK);
    AddTimes(pReply, pWish);
    if (pWish->szScale || bNewScale)
        TextAdd(&pReply->text, "Scale: %d\r\n", pPlay->line.nScale);
    if (pWish->szSpeed)
        TextAdd(&pReply->text, "Speed: %u.%03u\r\n", pPlay->nSpeed / 1000, pPlay->nSpeed % 1000);
    AddPlayLines(pReply, pRequest, 1);
}

// Moves a recording to where the request wants it and writes the reply. Returns 0 while it has to wait.
static int StartFile(Message *pReply, const Request *pRequest)
{
    const PlayLine *pLine = &pReply->pSession->play.line;
    int nScaleBefore = pLine->nScale;
    PlayWish wish = ReadWish(pReply->pSession, pRequest);
    if (!MoveFile(pReply->pSession, &wish))
        return 0;
    WriteFileReply(pReply, pRequest, &wish, pLine->nScale != nScaleBefore);
    return 1;
}

// Whether the player has asked for another place of the recording already, with the request that waits behind
// this one: who drags a slider is interested in the last one.
static int IsOvertaken(const Session *pSession)
{
    const SessionInput *pInput = &pSession->input;
    if (!PlaysStandard(pSession) || pSession->hold.pJob || pInput->nNext >= pInput->nLen)
        return 0;
    auto *pText = reinterpret_cast<const char *>(pInput->pBuf + pInput->nNext);
    auto *pEnd = static_cast<const char *>(memmem(pText, pInput->nLen - pInput->nNext, "\r\n\r\n", 4));
    if (!pEnd || static_cast<size_t>(pEnd + 4 - pText) >= kMaxHeadBytes)
        return 0;
    Request next;
    RequestInit(&next);
    next.standards = pSession->standards;
    int bPlay = RequestParse(&next, pText, static_cast<size_t>(pEnd + 4 - pText)) == 1 &&
                strcasecmp(RequestMethod(&next), "PLAY") == 0;
    WantedRange range = ReadRange(bPlay ? RequestHeaderValue(&next, "Range") : nullptr);
    RequestReset(&next);
    return range.bStart && range.nStart < FileProgramDuration(pSession->pProg);
}

// It is answered, and playing goes on, or waits, where it did.
static Verdict AnswerOvertaken(Session *pSession, Port *pPort, const Request *pRequest)
{
    Message reply(pSession, pPort);
    PlayWish wish = ReadWish(pSession, pRequest);
    WriteFileReply(&reply, pRequest, &wish, 0);
    return MessageSendBefore(&reply, PaceFirstHeld(pSession));
}

// The media time of the first packet that a player is given, or that the program holds.
static uint32_t FirstMediaTime(Session *pSession)
{
    const BlockQueue *pQueue = &pSession->out.Outq;
    uint32_t i = 0;
    while (i < pQueue->nItems && !(RefFlags(QueueAt(pQueue, i)) & DB_MEDIA))
        i++;
    if (i < pQueue->nItems && !(pSession->nFlags & SESSION_PUSHER))
        return QueueAt(pQueue, i)->pBlock->nTimestamp;
    const auto *pCached = ListFirstOf<DataBlock>(&pSession->pProg->cache.Pktq);
    return pCached ? pCached->nTimestamp : 0;
}

// Fills a player's queue and writes the reply. Returns the place that the reply goes before: the media that
// is queued here must not overtake it. Standard players get their replies in order.
static uint32_t StartLive(Message *pReply, const Request *pRequest)
{
    Session *pSession = pReply->pSession;
    uint32_t nOld = pSession->out.Outq.nItems;
    if (!(pSession->nFlags & SESSION_PUSHER))
        FillBufferAtFirstPlay(pSession);
    pSession->play.nPlayStart = pSession->play.nPlayPos = FirstMediaTime(pSession);
    ReplyBegin(pReply, STATUS_OK);
    TextAdd(&pReply->text, "Range: npt=now-\r\n");
    AddPlayLines(pReply, pRequest, 0);
    uint32_t nBefore = pSession->standards.bPlayers ? nOld : 0;
    return nBefore < pSession->out.Outq.nItems ? nBefore : kQueueEnd;
}

// Standard players jump while a recording plays: PAUSE is no method that OPTIONS tells them of, and so
// GStreamer sends none. And they play one again that has come to its end.
static int MayPlay(const Session *pSession, const Request *pRequest)
{
    if (!pSession->pProg)
        return 0;
    if (pSession->nState == STATE_SETUP || pSession->nState == STATE_PAUSED)
        return 1;
    if (!pSession->standards.bPlayers || pSession->pProg->bLive)
        return 0;
    int bChange = RequestHeaderValue(pRequest, "Range") || RequestHeaderValue(pRequest, "Scale") ||
                  RequestHeaderValue(pRequest, "Speed");
    return pSession->nState == STATE_FINISHED || (pSession->nState == STATE_PLAYING && bChange);
}

// A PLAY that changes nothing, because it plays: some standard players show so that they live.
static int IsKeepAlive(const Session *pSession, const Request *pRequest)
{
    return IsStandardPeer(pSession) && pSession->pProg && pSession->nState == STATE_PLAYING &&
           !MayPlay(pSession, pRequest);
}

// A reply that tells nothing of the media.
static Verdict ReplySession(Session *pSession, Port *pPort)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    MessageNoCache(&reply);
    MessageSession(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

Verdict HandlePlay(Session *pSession, Port *pPort, Request *pRequest)
{
    if (IsKeepAlive(pSession, pRequest))
        return ReplySession(pSession, pPort);
    if (!MayPlay(pSession, pRequest))
        return RefuseState(pSession, pPort);
    if (IsOvertaken(pSession))
        return AnswerOvertaken(pSession, pPort, pRequest);
    pSession->play.nPlayClock = ClockMs();
    Message reply(pSession, pPort);
    int bLive = pSession->pProg->bLive;
    uint32_t nBefore = kQueueEnd;
    if (bLive)
        nBefore = StartLive(&reply, pRequest);
    else if (!StartFile(&reply, pRequest))
        return Verdict::Later;
    else
        nBefore = PaceFirstHeld(pSession);  // what a pause has kept follows the reply
    pSession->nState = STATE_PLAYING;
    SessionSayStart(pSession);
    if (MessageSendBefore(&reply, nBefore) == Verdict::End)
        return Verdict::End;
    if (pSession->nFlags & SESSION_PUSHER)
        return Verdict::Keep;
    if (pSession->peer.Reply && pSession->peer.Reply != pPort &&
        !ORX_PEER_ASSERT(pPort->nFlags & PORT_TUNNEL_POST, "port->flags & 2"))
        return Verdict::End;
    if (!bLive)
        FileSenderStart(pSession);
    return Verdict::Keep;
}

Verdict HandleRecord(Session *pSession, Port *pPort, Request *pRequest)
{
    if (pSession->standards.bPushers && (pSession->nFlags & SESSION_PUSHER))
        return HandlePlay(pSession, pPort, pRequest);
    if (pSession->standards.bPushers && pSession->standards.bPlayers)  // it is listed as served
        return RefuseState(pSession, pPort);
    return HandleUnknown(pSession, pPort, pRequest);
}

// The pause keeps what standard players of a recording have not got: they go on with it.
Verdict HandlePause(Session *pSession, Port *pPort, Request *)
{
    if (!PlaysStandard(pSession))
        (IsStandardPeer(pSession) ? QueueDropMedia : QueueDropAll)(pSession);
    int bFinished = pSession->standards.bPlayers && pSession->nState == STATE_FINISHED;
    if (pSession->nState != STATE_PLAYING && !bFinished)
        return RefuseState(pSession, pPort);
    if (WaitsForPicture(pSession))
        return Verdict::Later;
    pSession->play.bFinishes = 0;
    pSession->nState = STATE_PAUSED;
    return ReplySession(pSession, pPort);
}

// Datagrams may be slower than the request that ends them, and the last ones wait for those before them.
static int AwaitDatagrams(Session *pSession)
{
    if (!(pSession->nFlags & SESSION_PUSHER) || pSession->out.bInterleaved || !pSession->datagrams.bWatch ||
        pSession->datagrams.bEnds)
        return 0;
    pSession->datagrams.bEnds = 1;
    pSession->hold.bStep = 1;
    pSession->hold.nDelayMs = 2 * kReorderMs;
    return 1;
}

Verdict HandleTeardown(Session *pSession, Port *pPort, Request *)
{
    if (AwaitDatagrams(pSession))
        return Verdict::Later;
    if (pSession->pProg) {
        pSession->nState = STATE_TORNDOWN;
        SessionNoteEnd(pSession, kEndAsked);
        SessionSayEnd(pSession);  // its program goes now, its connection later
        // so standard encoders leave every time; their players would wait for media without an end
        if (pSession->pProg->standards.bPushers)
            SessionEndPlayers(pSession);
        ProgramDetach(pSession);
    }
    QueueDropAll(pSession);
    if (ReplyDated(pSession, pPort, STATUS_OK) == Verdict::End)
        return Verdict::End;
    SessionDelayClose(pSession);
    return Verdict::Keep;
}

}  // namespace orx
