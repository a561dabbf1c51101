#include "server/methods/play.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/textbuf.h"
#include "runtime/clock.h"
#include "server/media/distribute.h"
#include "server/media/fileprogram.h"
#include "server/media/filesend.h"
#include "server/core/sdp.h"
#include "server/media/send.h"
#include "server/methods/tunnel.h"
#include "server/core/settings.h"

namespace orx {

constexpr uint32_t kSeekTolerance = 2000;  // ms around the position that a wanted start is taken for
constexpr size_t kMaxReply = 4096;

// What a "Range" header asks for of a recording.
struct WantedRange {
    uint32_t nStart = 0;         // ms; 0: from where it stands
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
    const char *p = NextDigit(szRange ? szRange : "");
    if (!IsNumber(p))
        return range;
    range.nStart = NptToMs(p);
    p += strcspn(p, "-\r\n");
    p = NextDigit(p);
    if (IsNumber(p))
        range.nEnd = NptToMs(p);
    return range;
}

// The number of a track's next packet: of the first one that waits, else of the first one to be made.
static int NextNumber(const Session *pSession, int nTrack)
{
    uint16_t nNumber = pSession->out.tracks[nTrack].nNextSeq;
    for (auto *p = ListFirstOf<DataBlock>(&pSession->out.Outq); p; p = NextBlock(p))
        if ((p->nFlags & DB_MEDIA) && p->sent == 0 && BlockTrack(pSession, p) == nTrack)
            nNumber--;
    return nNumber;
}

// The items of the reply's RTP-Info line: the tracks set up, with the number of their next packet if wanted.
static void WriteRtpInfo(const Session *pSession, const char *szUrl, int bSequence, TextBuf *pText)
{
    const char *szComma = "";
    for (int i = 0; i < pSession->out.nTracks; i++) {
        const RtpTrack *pTrack = &pSession->out.tracks[i];
        if (!pTrack->bSetUp)
            continue;
        TextAdd(pText, "%surl=%s/trackID=%d", szComma, szUrl, pSession->tracks[i].nTrackId);
        if (bSequence)
            TextAdd(pText, ";seq=%d", NextNumber(pSession, i));
        szComma = ",";
    }
}

// What waits is from before the jump. The rest of a block that is under way counts as from behind it, so that
// the pace follows the new position.
static void Jump(Session *pSession, uint32_t nReached)
{
    SessionDropMedia(pSession);
    for (auto *p = ListFirstOf<DataBlock>(&pSession->out.Outq); p; p = NextBlock(p))
        p->nTimestamp = nReached;
    pSession->nPlayPos = nReached;
}

// Moves a recording to where the request wants it and writes the reply.
static void StartFile(Session *pSession, const Request *pRequest, TextBuf *pText)
{
    Program *pProg = pSession->pProg;
    auto nDuration = static_cast<int64_t>(FileProgramDuration(pProg));
    WantedRange range = ReadRange(RequestHeaderValue(pRequest, "Range"));
    uint32_t nEnd = range.nEnd < nDuration - 1000 ? range.nEnd : static_cast<uint32_t>(nDuration);
    uint32_t nReached = 0;
    if (range.nStart &&
        static_cast<uint32_t>(std::abs(ClockDiff(range.nStart, pSession->nPlayPos))) > kSeekTolerance &&
        FileProgramSeek(pProg, range.nStart, &nReached))
        Jump(pSession, nReached);
    pSession->nPlayStart = pSession->nPlayPos;
    TextAdd(pText,
            "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE "CSeq: %d\r\nRange: npt=%d.%03d-%d.%03d\r\n" ORX_NO_CACHE
            "Session: %p\r\nDate: %s\r\nRTP-Info: ",
            pSession->nCSeq++, static_cast<int>(pSession->nPlayPos / 1000),
            static_cast<int>(pSession->nPlayPos % 1000), static_cast<int>(nEnd / 1000),
            static_cast<int>(nEnd % 1000), SessionPrintHandle(pSession), SessionRefreshDate(pSession));
    WriteRtpInfo(pSession, RequestUri(pRequest), 1, pText);
    TextAdd(pText, "\r\n\r\n");
}

// The media time of the first packet that a player is given, or that the program holds.
static uint32_t FirstMediaTime(Session *pSession)
{
    List *pQueue = &pSession->out.Outq;
    auto *pBlock = static_cast<DataBlock *>(ListFirst(pQueue, 0));
    while (pBlock && !(pBlock->nFlags & DB_MEDIA))
        pBlock = static_cast<DataBlock *>(ListNext(pQueue, pBlock, 0));
    if (!pBlock || (pSession->nFlags & SESSION_PUSHER))
        pBlock = static_cast<DataBlock *>(ListFirst(&pSession->pProg->Pktq, 0));
    return pBlock ? pBlock->nTimestamp : 0;
}

// Fills a player's queue and writes the reply. Returns the block that the reply goes before: the media that
// is queued here must not overtake it.
static DataBlock *StartLive(Session *pSession, const Request *pRequest, TextBuf *pText)
{
    auto *pOldHead = static_cast<DataBlock *>(ListFirst(&pSession->out.Outq, 0));
    if (!(pSession->nFlags & SESSION_PUSHER))
        FillBufferAtFirstPlay(pSession);
    pSession->nPlayPos = FirstMediaTime(pSession);
    pSession->nPlayStart = pSession->nPlayPos;
    TextAdd(pText,
            "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE "CSeq: %d\r\nRange: npt=now-\r\n" ORX_NO_CACHE
            "Session: %p\r\nDate: %s\r\nRTP-Info: ",
            pSession->nCSeq++, SessionPrintHandle(pSession), SessionRefreshDate(pSession));
    WriteRtpInfo(pSession, RequestUri(pRequest), 0, pText);
    TextAdd(pText, "\r\n\r\n");
    return pOldHead ? pOldHead : static_cast<DataBlock *>(ListFirst(&pSession->out.Outq, 0));
}

// Standard players jump while a recording plays: PAUSE is no method that OPTIONS tells them of, and so
// GStreamer sends none. And they play one again that has come to its end.
static int MayPlay(const Session *pSession, const Request *pRequest)
{
    if (!pSession->pProg)
        return 0;
    if (pSession->nState == STATE_SETUP || pSession->nState == STATE_PAUSED)
        return 1;
    if (!g_settings.bStandardPlayers || pSession->pProg->bLive)
        return 0;
    return pSession->nState == STATE_ENDED ||
           (pSession->nState == STATE_PLAYING && RequestHeaderValue(pRequest, "Range"));
}

int HandlePlay(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!MayPlay(pSession, pRequest)) {
        ReplyStatus(pSession, pPort, "455 Method Not Valid in This State");
        return 0;
    }
    pSession->nPlayClock = ClockMs();
    char reply[kMaxReply];
    TextBuf text{reply, sizeof(reply)};
    int bLive = pSession->pProg->bLive;
    DataBlock *pBefore = nullptr;
    if (bLive)
        pBefore = StartLive(pSession, pRequest, &text);
    else
        StartFile(pSession, pRequest, &text);
    pSession->nState = STATE_PLAYING;
    if (text.bFull || !SendReply2(pSession, pPort, reply, text.nLen, nullptr, 0, pBefore))
        return 0;
    if (pSession->nFlags & SESSION_PUSHER)
        return 1;
    if (pSession->Reply && pSession->Reply != pPort) {
        if (!ORX_PEER_ASSERT(pPort->nFlags & PORT_TUNNEL_POST, "port->flags & 2"))
            return 0;
        pPort = pSession->Reply;
    }
    if (!bLive)
        FileSenderStart(pSession, pPort);
    return 1;
}

int HandleRecord(Session *pSession, Port *pPort, Request *pRequest)
{
    if (g_settings.bStandardPushers && (pSession->nFlags & SESSION_PUSHER))
        return HandlePlay(pSession, pPort, pRequest);
    return HandleUnknown(pSession, pPort, pRequest);
}

int HandlePause(Session *pSession, Port *pPort, Request *)
{
    SessionDropQueue(pSession);
    int bEnded = g_settings.bStandardPlayers && pSession->nState == STATE_ENDED;
    if (pSession->nState != STATE_PLAYING && !bEnded) {
        ReplyStatus(pSession, pPort, "455 Method Not Valid in This State");
        return 0;
    }
    pSession->nState = STATE_PAUSED;
    return ReplyFormat(pSession, pPort,
                       "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE "CSeq: %d\r\n" ORX_NO_CACHE
                       "Session: %p\r\nDate: %s\r\n\r\n",
                       pSession->nCSeq++, SessionPrintHandle(pSession), SessionRefreshDate(pSession));
}

int HandleTeardown(Session *pSession, Port *pPort, Request *)
{
    if (pSession->pProg) {
        pSession->nState = STATE_TORNDOWN;
        // so standard encoders leave every time; their players would wait for media without an end
        if (g_settings.bStandardPushers)
            SessionEndPlayers(pSession);
        ProgramDetach(pSession);
    }
    SessionDropQueue(pSession);
    if (!ReplyDated(pSession, pPort))
        return 0;
    SessionDelayClose(pPort);
    return 1;
}

}  // namespace orx
