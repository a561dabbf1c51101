#include "server/core/sessionevents.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <sys/socket.h>

#include "base/eventlog.h"
#include "base/textbuf.h"
#include "record/codec.h"
#include "record/reorder.h"
#include "runtime/clock.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/core/sessionpeer.h"

namespace orx {

const char *SessionTransport(const Session *pSession)
{
    if (!pSession->out.bInterleaved)
        return "udp";
    int bTunnel = pSession->peer.Cmd != pSession->peer.Reply && pSession->peer.Reply;
    return bTunnel ? "http" : "tcp";
}

// The session as "Session" names it on the wire.
struct SessionName {
    char sz[24];
    explicit SessionName(const Session *pSession)
    {
        TextBuf text{sz, sizeof(sz)};
        TextAdd(&text, "%p", SessionPrintHandle(pSession));
    }
};

// The kinds of a program's tracks, as "h264 mpeg4-generic".
static void ListCodecs(const Program *pProg, char *szOut, size_t nSize)
{
    TextBuf text{szOut, nSize};
    szOut[0] = '\0';
    for (int i = 0; i < pProg->desc.nTrackCount; i++)
        TextAdd(&text, "%s%s", i > 0 ? " " : "", pProg->desc.mediaInfos[i].szEncoding);
}

static void SayPusherStart(const Session *pSession, const char *szRemote)
{
    char szCodecs[160];
    ListCodecs(pSession->pProg, szCodecs, sizeof(szCodecs));
    EventSay(EventLevel::Info, "pusher.start",
             {EventText("peer", szRemote), EventText("program", pSession->pProg->Uri),
              EventText("session", SessionName(pSession).sz), EventText("codecs", szCodecs)});
}

void SessionSayStart(Session *pSession)
{
    SessionTold *pTold = &pSession->told;
    if (pTold->bStarted || !pSession->pProg)
        return;
    pTold->bStarted = 1;
    pTold->tStarted = ClockUptime();
    // told with the end, too, by when they may have gone, and more may be logged
    TextCopy(pTold->szUri, sizeof(pTold->szUri), pSession->pProg->Uri);
    TextCopy(pTold->szUser, sizeof(pTold->szUser), pSession->viewer.szUser);
    SessionRemoteText(pSession, pTold->szRemote);
    if (!EventWanted(EventLevel::Info))
        return;
    if (pSession->nFlags & SESSION_PUSHER)
        SayPusherStart(pSession, pTold->szRemote);
    else
        EventSay(EventLevel::Info, "player.start",
                 {EventText("peer", pTold->szRemote), EventText("program", pTold->szUri),
                  EventText("session", SessionName(pSession).sz), EventText("user", pTold->szUser),
                  EventText("transport", SessionTransport(pSession))});
}

// --- The end ---

static const char *Reason(const Session *pSession)
{
    return pSession->szEndReason ? pSession->szEndReason : "unknown";
}

static const char *ErrnoText(const Session *pSession)
{
    return pSession->ending.nErrno ? strerror(pSession->ending.nErrno) : nullptr;
}

// What came over UDP, of all tracks.
struct DatagramSum {
    int bUdp = 0;
    int64_t nLate = 0;
    int64_t nLost = 0;
};

static DatagramSum SumDatagrams(const Session *pSession)
{
    DatagramSum sum;
    for (const SessionTrack &track : pSession->tracks)
        if (track.pReorder) {
            sum.bUdp = 1;
            sum.nLate += track.pReorder->nLate;
            sum.nLost += track.pReorder->nLost;
        }
    return sum;
}

static void SayPusherEnd(const Session *pSession, const char *szRemote, uint32_t nNow)
{
    const SessionEnding *pEnding = &pSession->ending;
    DatagramSum sum = SumDatagrams(pSession);
    int bMeant = pSession->szEndReason == kEndAsked || pSession->szEndReason == kEndServer;
    EventLevel eLevel = bMeant ? EventLevel::Info : EventLevel::Warn;
    EventSay(
        eLevel, "pusher.end",
        {EventText("peer", szRemote), EventText("program", pSession->told.szUri),
         EventText("session", SessionName(pSession).sz), EventText("transport", SessionTransport(pSession)),
         EventNumber("seconds", nNow - pSession->told.tStarted),
         EventNumber("bytes", static_cast<int64_t>(pSession->peer.nBytesReceived)),
         EventNumber("silent_seconds", nNow - pSession->peer.tLastActivity),
         EventNumberIf(sum.bUdp, "lost_packets", sum.nLost),
         EventNumberIf(sum.bUdp, "late_packets", sum.nLate), EventText("reason", Reason(pSession)),
         EventText("error", ErrnoText(pSession)),
         EventNumberIf(pEnding->nStatus > 0, "status", pEnding->nStatus), EventText("by", pEnding->szBy)});
}

static void SayPlayerEnd(const Session *pSession, const char *szRemote, uint32_t nNow)
{
    const SessionEnding *pEnding = &pSession->ending;
    int bKnown = 0;
    int nLoss = 0;
    for (const SessionTrack &track : pSession->tracks) {
        bKnown |= track.reception.bKnown;
        nLoss = std::max(nLoss, track.reception.nLoss);
    }
    EventSay(
        EventLevel::Info, "player.end",
        {EventText("peer", szRemote), EventText("program", pSession->told.szUri),
         EventText("session", SessionName(pSession).sz), EventText("user", pSession->told.szUser),
         EventText("transport", SessionTransport(pSession)),
         EventNumber("seconds", nNow - pSession->told.tStarted),
         EventNumber("bytes", static_cast<int64_t>(pSession->flow.nBytesSent)),
         EventNumberIf(bKnown, "loss_percent", nLoss),
         EventNumberIf(pSession->told.nDroppedGroups > 0, "dropped_groups", pSession->told.nDroppedGroups),
         EventText("reason", Reason(pSession)), EventText("error", ErrnoText(pSession)),
         EventNumberIf(pEnding->nStatus > 0, "status", pEnding->nStatus),
         EventText("cause", pEnding->szCause)});
}

static void SayOtherEnd(const Session *pSession, const char *szRemote, uint32_t nNow)
{
    const SessionEnding *pEnding = &pSession->ending;
    if (pEnding->bMalformed)
        EventSayBounded(EventLevel::Warn, "session.malformed",
                        {EventText("peer", szRemote), EventText("reason", Reason(pSession))});
    EventSay(EventLevel::Debug, "session.end",
             {EventText("peer", szRemote), EventText("session", SessionName(pSession).sz),
              EventNumber("seconds", nNow - pSession->told.tMade), EventText("reason", Reason(pSession)),
              EventText("error", ErrnoText(pSession)),
              EventNumberIf(pEnding->nStatus > 0, "status", pEnding->nStatus)});
}

void SessionSayEnd(Session *pSession)
{
    if (pSession->told.bEnded)
        return;
    pSession->told.bEnded = 1;
    if (!EventWanted(EventLevel::Warn))
        return;
    uint32_t nNow = ClockUptime();
    char szRemote[kAddrTextSize];
    TextCopy(szRemote, sizeof(szRemote), pSession->told.szRemote);
    if (SessionPeerPort(pSession))
        SessionRemoteText(pSession, szRemote);
    if (!pSession->told.bStarted)
        SayOtherEnd(pSession, szRemote, nNow);
    else if (pSession->nFlags & SESSION_PUSHER)
        SayPusherEnd(pSession, szRemote, nNow);
    else
        SayPlayerEnd(pSession, szRemote, nNow);
}

// --- Reasons ---

// Who asks for the end and closes at once, with media on its way to him, resets the connection: the request
// waits to be read.
static int HasAskedForEnd(const Session *pSession)
{
    char held[4096];
    const Port *pPort = SessionPeerPort(pSession);
    if (!pPort || pPort->nType != PORT_TCP)
        return 0;
    ssize_t n = recv(pPort->fd, held, sizeof(held), MSG_PEEK | MSG_DONTWAIT);
    return n > 0 &&
           std::string_view(held, static_cast<size_t>(n)).find("TEARDOWN rtsp") != std::string_view::npos;
}

void SessionNoteErrno(Session *pSession, const char *szWhy, int nErrno)
{
    if (pSession->szEndReason)
        return;
    if (szWhy == kEndBroken && pSession->told.bStarted && HasAskedForEnd(pSession)) {
        SessionNoteEnd(pSession, kEndAsked);
        return;
    }
    pSession->ending.nErrno = nErrno;
    SessionNoteEnd(pSession, szWhy);
}

void SessionNoteMalformed(Session *pSession, const char *szWhy)
{
    if (!pSession->szEndReason)
        pSession->ending.bMalformed = 1;
    SessionNoteEnd(pSession, szWhy);
}

void SessionNoteRefused(Session *pSession)
{
    if (pSession->szEndReason)
        return;
    if (pSession->ending.nLastStatus >= 300)
        pSession->ending.nStatus = pSession->ending.nLastStatus;
    pSession->szEndReason =
        pSession->ending.nLastStatus >= 300 ? "its request was refused" : "its request ended it";
}

void SessionSayNotFound(const Session *pSession, const Port *pPort, const Request *pRequest)
{
    if (!EventWanted(EventLevel::Warn))
        return;
    char szRemote[kAddrTextSize];
    SockAddrToString(&pPort->remote, szRemote);
    EventSayBounded(EventLevel::Warn, "request.not_found",
                    {EventText("peer", szRemote), EventText("method", RequestMethod(pRequest)),
                     EventText("path", RequestPath(pRequest)), EventText("session", SessionName(pSession).sz),
                     EventText("user_agent", RequestHeaderValue(pRequest, "User-Agent"))});
}

}  // namespace orx
