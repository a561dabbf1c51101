#include "server/front/dispatch.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "runtime/slice.h"
#include "runtime/taskwatch.h"
#include "server/core/heldjob.h"
#include "server/core/program.h"
#include "server/core/sessionevents.h"
#include "server/core/settings.h"
#include "server/media/ingest.h"
#include "server/media/replies.h"
#include "server/media/reports.h"
#include "server/media/rtcp.h"
#include "server/methods/announce.h"
#include "server/methods/camcfg.h"
#include "server/methods/credentials.h"
#include "server/methods/describe.h"
#include "server/methods/devcontrol.h"
#include "server/methods/directcfg.h"
#include "server/methods/options.h"
#include "server/methods/play.h"
#include "server/methods/playlist.h"
#include "server/methods/quickplay.h"
#include "server/methods/recordex.h"
#include "server/methods/register.h"
#include "server/methods/roles.h"
#include "server/methods/setup.h"
#include "server/methods/subscribe.h"
#include "server/methods/tunnel.h"

namespace orx {

// Some methods read files: whoever sends many of them at once lets others in between.
constexpr int kMessagesPerCall = 32;

// What became of the bytes at the cursor.
enum class Step {
    Taken,  // consumed, go on behind them
    Wait,   // incomplete, more must arrive; or its answer waits
    Drop,   // of a message: it is not to be answered
    Gone,   // the session has ended
};

static Step EndSession(Session *pSession)
{
    SessionEnd(pSession);
    return Step::Gone;
}

static Step EndMalformed(Session *pSession, const char *szWhy)
{
    SessionNoteMalformed(pSession, szWhy);
    return EndSession(pSession);
}

using MethodProc = Verdict (*)(Session *pSession, Port *pPort, Request *pRequest);

struct MethodEntry {
    const char *szName;  // compared without regard to case; the first match wins
    MethodProc pfnHandle;
    Role eRole = Role::Anybody;  // what StrictRoles wants of who asks
};

static const MethodEntry g_methods[] = {
    {"QUICKPLAY", HandleQuickPlay},
    {"ANNOUNCE", HandleAnnounce},
    {"DESCRIBE", HandleDescribe},
    {"SETUP", HandleSetup},
    {"PLAY", HandlePlay},
    {"PAUSE", HandlePause},
    {"TEARDOWN", HandleTeardown},
    {"GET", HandleTunnelGet},
    {"POST", BindToHttpGet},
    {"OPTIONS", HandleOptions},
    {"SET_PARAMETER", HandleSetParameter},
    {"GET_PARAMETER", HandleGetParameter},
    {"GETPLAYLIST", HandleGetPlayList},
    {"CAMCONTROL", HandleCamControl, Role::Viewer},
    {"PUTVOICE", HandlePutVoice, Role::Viewer},
    {"PUTCAMCFG", HandlePutCamCfg},
    {"GETCAMINFO", HandleGetCamInfo, Role::Viewer},
    {"RECORDEX", HandleRecordEx, Role::Recorder},
    {"RESPOND", HandleRespond},
    {"GETCFGDIRECT", HandleGetCfgDirect},
    {"SETCFGDIRECT", HandleSetCfgDirect},
    {"REGISTER", HandleRegister, Role::Neighbour},
    {"SUBSCRIBE", HandleSubscribe},
    {"GETWIFIROUTERS", HandleGetWifiRouters, Role::Neighbour},
    {"RECORD", HandleRecord},
};

// Standard players may require what only some servers have (RFC 2326, section 12.32): nothing is here.
static Verdict RefuseOption(Session *pSession, Port *pPort, const char *szOptions)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_NO_OPTION);
    TextAdd(&reply.text, "Unsupported: %.*s\r\n", static_cast<int>(strcspn(szOptions, "\r\n")), szOptions);
    MessageNoCache(&reply);
    return MessageSend(&reply);
}

// Whether a method of a player names another session than its own, as one does whose session has ended. The
// others may carry what is left of an earlier session, and a pusher's connection is its session.
static int NamesOtherSession(const Session *pSession, const Request *pRequest)
{
    static const char *const g_bound[] = {"SETUP",    "PLAY",          "PAUSE",
                                          "TEARDOWN", "SET_PARAMETER", "GET_PARAMETER"};
    const char *szSession = RequestHeaderValue(pRequest, "Session");
    if (!szSession || (pSession->nFlags & SESSION_PUSHER))
        return 0;
    char own[32];
    TextBuf text{own, sizeof(own)};
    TextAdd(&text, "%p", SessionPrintHandle(pSession));
    if (strncasecmp(szSession, own, text.nLen) == 0 && strchr("; \t", szSession[text.nLen]))
        return 0;
    return std::any_of(std::begin(g_bound), std::end(g_bound), [pRequest](const char *szMethod) {
        return strcasecmp(szMethod, RequestMethod(pRequest)) == 0;
    });
}

// What every standard request is asked before its method. Returns 1 with *pVerdict when it is refused.
static int RefusesStandard(Session *pSession, Port *pPort, const Request *pRequest, Verdict *pVerdict)
{
    if (!pSession->standards.bPlayers || strcasecmp(StrText(pRequest->protocol), "RTSP") != 0)
        return 0;
    for (const char *szHeader : {"Require", "Proxy-Require"})
        if (const char *szOptions = RequestHeaderValue(pRequest, szHeader)) {
            *pVerdict = RefuseOption(pSession, pPort, szOptions);
            return 1;
        }
    if (!NamesOtherSession(pSession, pRequest))
        return 0;
    *pVerdict = ReplyStatus(pSession, pPort, STATUS_NO_SESSION);
    return 1;
}

static Verdict Dispatch(Session *pSession, Port *pPort, Request *pRequest)
{
    Verdict eRefused = Verdict::Keep;
    if (RefusesStandard(pSession, pPort, pRequest, &eRefused))
        return eRefused;
    for (const MethodEntry &method : g_methods) {
        if (strcasecmp(method.szName, RequestMethod(pRequest)) != 0)
            continue;
        WatchNote(method.szName);
        Verdict eRefusal = Verdict::Keep;
        return RoleMay(method.eRole, pSession, pPort, &eRefusal) ? method.pfnHandle(pSession, pPort, pRequest)
                                                                 : eRefusal;
    }
    return HandleUnknown(pSession, pPort, pRequest);
}

static void TakeRtcpFrame(Session *pSession, unsigned nChannel, const uint8_t *pPacket, uint32_t nLen)
{
    unsigned nTrack = (nChannel - 1) / 2;
    ReportReceived(pSession, nTrack, pPacket, nLen);
    if (!(pSession->nFlags & SESSION_RTCP))
        return;
    print("Receive RTCP packet on track %u, %u bytes.\n", nChannel, nLen);
    const Program *pProg = pSession->pProg;
    RtcpDump(pPacket, nLen, pProg && nTrack < kMaxMediaInfos ? pProg->desc.mediaInfos[nTrack].nTimeScale : 0);
}

// Channels that a frame may name.
static unsigned ChannelCount(const Session *pSession)
{
    return pSession->standards.bPushers || pSession->standards.bPlayers ? 256 : 8;
}

// An interleaved frame (RFC 2326, section 10.12): '$', channel, length, packet. Its fifth byte is waited for
// even when the length is 0.
static Step TakeFrame(Session *pSession, uint32_t *pAt)
{
    const uint8_t *pFrame = pSession->input.pBuf + *pAt;
    uint32_t nLeft = pSession->input.nLen - *pAt;
    if (nLeft < kInterleaveBytes + 1)
        return Step::Wait;
    uint32_t nBytes = GetBe(pFrame + 2, 2) + kInterleaveBytes;
    if (nLeft < nBytes || nBytes >= pSession->input.nTotal)
        return Step::Wait;
    unsigned nTrackId = pFrame[1];
    if (nTrackId >= ChannelCount(pSession) && !ORX_PEER_ASSERT(nTrackId < 8, "nTrackId < 8"))
        return EndMalformed(pSession, "a frame of an unknown channel");
    if (nTrackId & 1)
        TakeRtcpFrame(pSession, nTrackId, pFrame + kInterleaveBytes, nBytes - kInterleaveBytes);
    else if (!FeedProgram(pSession, nTrackId / 2, pFrame, nBytes, pSession->input.pChunk))
        return EndSession(pSession);
    *pAt += nBytes;
    return Step::Taken;
}

// The POST of a tunnel announces a huge length that is never awaited: its body is the stream of requests.
static int IsTunnelPost(const Request *pRequest)
{
    return IsTunnelType(RequestHeaderValue(pRequest, "Content-Type")) &&
           strcasecmp(RequestMethod(pRequest), "POST") == 0;
}

// A plain decimal number of at most nMax. 1 or 0.
static int ParseLength(const char *sz, size_t nMax, size_t *pValue)
{
    size_t nValue = 0;
    const char *p = sz;
    for (; *p >= '0' && *p <= '9'; p++) {
        nValue = nValue * 10 + static_cast<size_t>(*p - '0');
        if (nValue > nMax)
            return 0;
    }
    while (*p == ' ' || *p == '\t')
        p++;
    *pValue = nValue;
    return p > sz && *p == '\0' && *sz >= '0' && *sz <= '9';
}

// Standard pushers answer what they are asked with a status line: it is theirs to end, not their session.
static int IsAnswer(const Session *pSession, const char *pText)
{
    return pSession->standards.bPushers && (pSession->nFlags & SESSION_PUSHER) &&
           strncasecmp(pText, "RTSP/", 5) == 0;
}

// Parses the header block of one; a body whose length cannot be told is none.
static Step ParseAnswer(const Session *pSession, Request *pRequest, const char *pText, uint32_t nHead)
{
    RequestParseAnswer(pRequest, pText, nHead);
    pRequest->nHeadLen = static_cast<uint16_t>(nHead);
    const char *szLength = RequestHeaderValue(pRequest, "Content-Length");
    if (szLength && !ParseLength(szLength, pSession->input.nTotal - 1 - nHead, &pRequest->nPendingBody))
        pRequest->nPendingBody = 0;
    return Step::Taken;
}

// Parses the header block at the cursor into the port's request record.
static Step ParseHead(Session *pSession, Port *pPort, uint32_t nAt)
{
    Request *pRequest = &pPort->request;
    auto *pText = reinterpret_cast<const char *>(pSession->input.pBuf + nAt);
    uint32_t nHeld = std::min(pSession->input.nLen - nAt, pSession->input.nTotal - 1);
    auto *pEnd = static_cast<const char *>(memmem(pText, nHeld, "\r\n\r\n", 4));
    if (!pEnd)
        return Step::Wait;
    auto nLen2Parse = static_cast<uint32_t>(pEnd + 4 - pText);
    if (!ORX_PEER_ASSERT(nLen2Parse < kMaxHeadBytes, "nLen2Parse < sizeof(szTmpuff)"))
        return EndMalformed(pSession, "a header block is too long");
    RequestReset(pRequest);
    pRequest->standards = pSession->standards;
    if (IsAnswer(pSession, pText))
        return ParseAnswer(pSession, pRequest, pText, nLen2Parse);
    int nResult = RequestParse(pRequest, pText, nLen2Parse);
    if (nResult < 0)
        return EndMalformed(pSession, "a request cannot be read");
    if (nResult == 0 && !(pPort->nFlags & PORT_TUNNEL_POST))
        return Step::Wait;
    pRequest->nHeadLen = static_cast<uint16_t>(nLen2Parse);
    const char *szLength = RequestHeaderValue(pRequest, "Content-Length");
    if (!szLength || IsTunnelPost(pRequest))
        return Step::Taken;
    if (!ParseLength(szLength, pSession->input.nTotal - 1 - nLen2Parse, &pRequest->nPendingBody)) {
        print("Invalid Content-Length on fd=0x%x!\r\n", pPort->fd);
        return EndMalformed(pSession, "a body has no length that can be read");
    }
    return Step::Taken;
}

// Decimal digits, of which the lowest 32 bits count. 1, or 0 for any other text.
static int ParseCSeq(const char *sz, uint32_t *pValue)
{
    const char *p = sz;
    for (*pValue = 0; *p >= '0' && *p <= '9'; p++)
        *pValue = *pValue * 10 + static_cast<uint32_t>(*p - '0');
    return p > sz && p[strspn(p, " \t")] == '\0';
}

// Checks and notes the request's number. Taken: dispatch it.
static Step CheckCSeq(Session *pSession, Port *pPort)
{
    const char *szCSeq = RequestHeaderValue(&pPort->request, "CSeq");
    if (!szCSeq) {
        if (pSession->nState == STATE_NEW)
            return Step::Taken;  // a first request, for example the HTTP GET of a tunnel
        ReplyShort(pSession, pPort, STATUS_NO_CSEQ);
        print("no CSeq!!!\r\n");
        return EndMalformed(pSession, "a request has no CSeq");
    }
    uint32_t nCSeq = 0;
    if (!ParseCSeq(szCSeq, &nCSeq))
        return EndMalformed(pSession, "a CSeq is no number");
    if (pSession->input.nReqSeq && nCSeq < pSession->input.nReqSeq) {
        print("CmdSeq(%u) < session->nReqSeq(%u)! Drop it!\r\n", nCSeq, pSession->input.nReqSeq);
        return Step::Drop;
    }
    pSession->input.nReqSeq = nCSeq;
    pSession->nCSeq = nCSeq;
    return Step::Taken;
}

static Step RunHandler(Session *pSession, Port *pPort, uint32_t nAt);

void AnswerHeldRequest(Port *pPort)
{
    Session *pSession = pPort ? FindSession(pPort->fd) : nullptr;
    if (!pSession || pSession->hold.pPort != pPort)
        return;
    pSession->hold.pPort = nullptr;
    pSession->nCSeq = pSession->hold.nCSeq;
    pSession->hold.bOver |= !pSession->hold.bStep;
    pSession->hold.bStep = 0;
    pSession->peer.tLastActivity = ClockUptime();  // nothing was read, however long one may be silent
    pSession->input.nNext = 0;                     // what is held was behind it
    Step step = RunHandler(pSession, pPort, 0);
    if (!pSession->hold.pPort)
        pSession->hold.bOver = 0;
    if (step == Step::Gone)
        return;
    // what came meanwhile was not read, also on the other half of a tunnel, and is not reported again
    for (const Port *pOther : {pSession->peer.Cmd, pSession->peer.Reply})
        if (pOther && pOther != pPort)
            PortPostEvent(pOther, MONITOR_READ, 0);
    PortPostEvent(pPort, EVENT_POSTED_INPUT, 0);
}

static int OnHoldOver(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    AnswerHeldRequest(PortOfTask(pTask));
    return -1;
}

static Step HoldRequest(Session *pSession, const Port *pPort, uint32_t nCSeq)
{
    pSession->hold.pPort = pPort;
    pSession->hold.nCSeq = nCSeq;
    if (!pSession->hold.pJob || pSession->hold.pJob->bDone)  // else the job wakes it
        PortSchedule(pPort, OnHoldOver, pSession->hold.nDelayMs);
    return Step::Wait;
}

// Runs the handler and ends the session when it says so. A request that could not be forwarded has ended it
// already, together with the other sessions of its program. nAt: where what came behind it begins.
static Step RunHandler(Session *pSession, Port *pPort, uint32_t nAt)
{
    int bPost = strcasecmp(RequestMethod(&pPort->request), "POST") == 0;
    uint32_t nCSeq = pSession->nCSeq;
    pSession->ending.nLastStatus = 0;
    Verdict eVerdict = Dispatch(pSession, pPort, &pPort->request);
    if (pSession->ending.nLastStatus == 404)
        SessionSayNotFound(pSession, pPort, &pPort->request);
    WatchNote("between requests");
    if (eVerdict == Verdict::Later && !pSession->bEnded)
        return HoldRequest(pSession, pPort, nCSeq);
    RequestReset(&pPort->request);
    if (CredentialsExhausted(pSession))
        SessionNoteEnd(pSession, "too many wrong passwords");
    if (eVerdict == Verdict::End)
        SessionNoteRefused(pSession);
    if (eVerdict == Verdict::End || pSession->bEnded || CredentialsExhausted(pSession))
        return EndSession(pSession);
    if (pSession->nFlags & SESSION_TUNNEL_POST)
        return Step::Wait;  // what follows is for the other half
    if (bPost)
        pSession->input.nLen = nAt;  // what came behind it is dropped
    return Step::Taken;
}

// The answer of a pusher, which nothing answers.
static Step TakeAnswer(Session *pSession, Request *pRequest)
{
    const char *szCSeq = RequestHeaderValue(pRequest, "CSeq");
    uint32_t nCSeq = 0;
    if (!szCSeq || ParseCSeq(szCSeq, &nCSeq))
        HandleAnswer(pSession, pRequest, szCSeq ? &nCSeq : nullptr);
    RequestReset(pRequest);
    return pSession->bEnded ? Step::Gone : Step::Taken;
}

// A text message: header block, body, number, handler.
static Step TakeMessage(Session *pSession, Port *pPort, uint32_t *pAt)
{
    Request *pRequest = &pPort->request;
    if (!pRequest->bParsed) {
        Step step = ParseHead(pSession, pPort, *pAt);
        if (step != Step::Taken)
            return step;
    }
    uint32_t nHeld = pSession->input.nLen - *pAt - pRequest->nHeadLen;
    if (nHeld < pRequest->nPendingBody)
        return Step::Wait;
    uint32_t nBody = static_cast<uint32_t>(pRequest->nPendingBody);
    uint32_t nBodyAt = *pAt + pRequest->nHeadLen;
    if (nBody && !RequestAttachBody(pRequest, pSession->input.pBuf + nBodyAt, nBody))
        return EndMalformed(pSession, "a body cannot be held");
    *pAt = pSession->input.nNext = nBodyAt + nBody;
    if (pRequest->nStatus)
        return TakeAnswer(pSession, pRequest);
    Step step = CheckCSeq(pSession, pPort);
    if (step == Step::Taken) {
        pSession->peer.tLastRequest = ClockUptime();
        return RunHandler(pSession, pPort, *pAt);
    }
    if (step == Step::Gone)
        return step;
    RequestReset(pRequest);
    return Step::Taken;
}

// Both connections of a tunnel fill one buffer. A header block that the other one parsed is still in it, but
// may leave it now through this port: its record must not outlive it.
static void ForgetOtherPort(const Session *pSession, const Port *pPort)
{
    for (Port *pOther : {pSession->peer.Cmd, pSession->peer.Reply})
        if (pOther && pOther != pPort && pOther->request.bParsed)
            RequestReset(&pOther->request);
}

// What a step has cost: a frame goes to every player, and a request may do anything.
static uint32_t WorkOf(const Session *pSession, int bFrame)
{
    return !bFrame ? kSliceLook : pSession->pProg ? 2 + ListCount(&pSession->pProg->players) : 1;
}

int HandleInput(Session *pSession, Port *pPort)
{
    if (pSession->hold.pPort)
        return 1;
    uint32_t nAt = 0;
    int nMessages = 0;
    int bWaits = 0;
    Slice slice = SliceBegin();
    ForgetOtherPort(pSession, pPort);
    while (nAt < pSession->input.nLen) {
        if (nMessages == kMessagesPerCall) {
            PortReadLater(pPort);
            break;
        }
        int bFrame = pSession->input.pBuf[nAt] == '$';
        Step step = bFrame ? TakeFrame(pSession, &nAt) : TakeMessage(pSession, pPort, &nAt);
        nMessages += !bFrame;
        if (step == Step::Gone)
            return 0;
        bWaits = step == Step::Wait;
        if (bWaits)
            break;
        if (SliceOver(&slice, WorkOf(pSession, bFrame)) && nAt < pSession->input.nLen) {
            PortReadLater(pPort);
            break;
        }
    }
    // behind a request that is held a pusher's media may wait, as much as one read brought
    if (bWaits && !pSession->hold.pPort && pSession->input.nLen - nAt >= pSession->input.nTotal - 1) {
        EndMalformed(pSession, "what it sent fills its buffer and makes no request");
        return 0;
    }
    if (InputTake(&pSession->input, nAt))
        return 1;
    SessionNoteEnd(pSession, "no memory is left");
    SessionEnd(pSession);
    return 0;
}

}  // namespace orx
