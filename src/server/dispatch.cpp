#include "server/dispatch.h"

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/bytes.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/devcontrol.h"
#include "server/distribute.h"
#include "server/play.h"
#include "server/playlist.h"
#include "server/program.h"
#include "server/recordcontrol.h"
#include "server/rtcp.h"
#include "server/send.h"
#include "server/server.h"
#include "server/tunnel.h"

namespace orx {

static constexpr uint32_t kMaxHeadBytes = 4096;  // a header block is shorter than this

// What became of the bytes at the cursor.
enum class Step {
    Taken,  // consumed, go on behind them
    Wait,   // incomplete, more must arrive
    Gone,   // the session was freed
};

static Step EndSession(Session *pSession)
{
    SessionFree(pSession);
    return Step::Gone;
}

// RECORD starts an announced program as PLAY does, where standard encoders are to be understood; anywhere
// else the method is unknown.
static int HandleRecord(Session *pSession, Port *pPort, Request *pRequest)
{
    if (g_server.bStandardPushers && (pSession->nFlags & SESSION_PUSHER))
        return HandlePlay(pSession, pPort, pRequest);
    return HandleUnknown(pSession, pPort, pRequest);
}

struct MethodEntry {
    const char *szName;  // compared without regard to case; the first match wins
    MethodProc pfnHandle;
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
    {"GETPLAYLIST", HandleGetPlayList},
    {"CAMCONTROL", HandleCamControl},
    {"PUTVOICE", HandlePutVoice},
    {"PUTCAMCFG", HandlePutCamCfg},
    {"GETCAMINFO", HandleGetCamInfo},
    {"RECORDEX", HandleRecordEx},
    {"RESPOND", HandleRespond},
    {"GETCFGDIRECT", HandleGetCfgDirect},
    {"SETCFGDIRECT", HandleSetCfgDirect},
    {"REGISTER", HandleRegister},
    {"SUBSCRIBE", HandleSubscribe},
    {"GETWIFIROUTERS", HandleGetWifiRouters},
    {"RECORD", HandleRecord},
};

static int Dispatch(Session *pSession, Port *pPort, Request *pRequest)
{
    for (const MethodEntry &method : g_methods)
        if (strcasecmp(method.szName, RequestMethod(pRequest)) == 0)
            return method.pfnHandle(pSession, pPort, pRequest);
    return HandleUnknown(pSession, pPort, pRequest);
}

// The RTP clock extended to 64 bits, so that its wrap after some hours does not show.
static int64_t ExtendTime(MediaInfo *pInfo, uint32_t nRtpTime)
{
    pInfo->nExtTime = pInfo->bTimeKnown
                          ? pInfo->nExtTime + static_cast<int32_t>(nRtpTime - pInfo->nLastRtpTime)
                          : int64_t{nRtpTime};
    pInfo->nLastRtpTime = nRtpTime;
    return pInfo->nExtTime;
}

// Standard encoders start every track's clock at a random value (RFC 3550, section 5.1), and have rates such
// as 44100. What they send is put on one time line: a track's first packet has the time of its arrival.
static uint32_t AlignedTime(MediaInfo *pInfo, uint32_t nRtpTime)
{
    int bFirst = !pInfo->bTimeKnown;
    auto nMs = static_cast<uint32_t>(ExtendTime(pInfo, nRtpTime) * 1000 / pInfo->nTimeScale);
    if (bFirst)
        pInfo->nTimeShift = ClockMs() - nMs;
    pInfo->bTimeKnown = 1;
    return nMs + pInfo->nTimeShift;
}

// The packet's media time in milliseconds. Returns 1, or 0 when the track's clock rate cannot be scaled.
static int MediaTime(MediaInfo *pInfo, uint32_t nRtpTime, uint32_t *pMs)
{
    if (g_server.bStandardPushers) {
        *pMs = AlignedTime(pInfo, nRtpTime);
        return 1;
    }
    int64_t nTime = ExtendTime(pInfo, nRtpTime);
    pInfo->bTimeKnown = 1;
    if (pInfo->nTimeScale != 1000) {
        if (!ORX_PEER_ASSERT(pInfo->nTimeScale >= 1000 && (pInfo->nTimeScale % 1000) == 0,
                             "(pProg->mediaInfos[nTrackId].nTimeScale % 1000) == 0"))
            return 0;
        nTime /= pInfo->nTimeScale / 1000;
    }
    *pMs = static_cast<uint32_t>(nTime);
    return 1;
}

// Hands a pusher's RTP frame to its program. 0 when the session must end.
static int FeedProgram(Session *pSession, unsigned nTrack, const uint8_t *pFrame, uint32_t nBytes)
{
    Program *pProg = pSession->pProg;
    int bUsable = (pSession->nFlags & SESSION_PUSHER) && pProg &&
                  static_cast<int>(nTrack) < pProg->nTrackCount &&
                  nBytes >= kInterleaveBytes + kRtpHeaderBytes;
    if (!bUsable)
        return 1;
    uint32_t nTime;
    if (!MediaTime(&pProg->mediaInfos[nTrack], GetBe(pFrame + 8, 4), &nTime))
        return 0;
    int bVideo = pProg->bHasVideo && static_cast<int>(nTrack) == pProg->nVideoTrack;
    int bKey = bVideo && pProg->pfnIsKeyFrame && pProg->pfnIsKeyFrame(pProg, pFrame, nBytes);
    DataBlock *pBlock = MakeDataBlock(pFrame, nBytes, 1, bVideo, bKey);
    if (!pBlock) {
        print("MakeDataBlock() failed and Destroy the Session!\r\n");
        return 0;
    }
    pBlock->nTimestamp = nTime;
    CachePacketEx(pProg, pBlock);
    return 1;
}

static void DumpRtcpFrame(const Session *pSession, unsigned nChannel, const uint8_t *pPacket, uint32_t nLen)
{
    if (!(pSession->nFlags & SESSION_RTCP))
        return;
    print("Receive RTCP packet on track %u, %u bytes.\n", nChannel, nLen);
    const Program *pProg = pSession->pProg;
    unsigned nTrack = (nChannel - 1) / 2;
    RtcpDump(pPacket, nLen, pProg && nTrack < kMaxMediaInfos ? pProg->mediaInfos[nTrack].nTimeScale : 0);
}

// An interleaved frame (RFC 2326, section 10.12): '$', channel, length, packet. Its fifth byte is waited for
// even when the length is 0.
static Step TakeFrame(Session *pSession, uint32_t *pAt)
{
    const uint8_t *pFrame = pSession->pBuf + *pAt;
    uint32_t nLeft = pSession->nLen - *pAt;
    if (nLeft < kInterleaveBytes + 1)
        return Step::Wait;
    uint32_t nBytes = GetBe(pFrame + 2, 2) + kInterleaveBytes;
    if (nLeft < nBytes)
        return Step::Wait;
    unsigned nTrackId = pFrame[1];
    if (!ORX_PEER_ASSERT(nTrackId < 8, "nTrackId < 8"))
        return EndSession(pSession);
    if (nTrackId & 1)
        DumpRtcpFrame(pSession, nTrackId, pFrame + kInterleaveBytes, nBytes - kInterleaveBytes);
    else if (!FeedProgram(pSession, nTrackId / 2, pFrame, nBytes))
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

// Parses the header block at the cursor into the port's request record.
static Step ParseHead(Session *pSession, Port *pPort, uint32_t nAt)
{
    Request *pRequest = &pPort->request;
    auto *pText = reinterpret_cast<const char *>(pSession->pBuf + nAt);
    auto *pEnd = static_cast<const char *>(memmem(pText, pSession->nLen - nAt, "\r\n\r\n", 4));
    if (!pEnd)
        return Step::Wait;
    auto nLen2Parse = static_cast<uint32_t>(pEnd + 4 - pText);
    if (!ORX_PEER_ASSERT(nLen2Parse < kMaxHeadBytes, "nLen2Parse < sizeof(szTmpuff)"))
        return EndSession(pSession);
    RequestReset(pRequest);
    int nResult = RequestParse(pRequest, pText, nLen2Parse);
    if (nResult < 0)
        return EndSession(pSession);
    if (nResult == 0 && !(pPort->nFlags & PORT_TUNNEL_POST))
        return Step::Wait;
    pRequest->nHeadLen = static_cast<uint16_t>(nLen2Parse);
    const char *szLength = RequestHeaderValue(pRequest, "Content-Length");
    if (!szLength || IsTunnelPost(pRequest))
        return Step::Taken;
    if (!ParseLength(szLength, pSession->nTotal - 1 - nLen2Parse, &pRequest->nPendingBody)) {
        print("Invalid Content-Length on fd=0x%x!\r\n", pPort->fd);
        return EndSession(pSession);
    }
    return Step::Taken;
}

// Checks and notes the request's number. Taken: dispatch it. Wait stands for a message that is to be dropped.
static Step CheckCSeq(Session *pSession, Port *pPort)
{
    const char *szCSeq = RequestHeaderValue(&pPort->request, "CSeq");
    if (!szCSeq) {
        if (pSession->nState == STATE_NEW)
            return Step::Taken;  // a first request, for example the HTTP GET of a tunnel
        static const char g_szReply[] = "RTSP/1.0 400 Bad Request(no CSeq)\r\n" ORX_SERVER_LINE "\r\n";
        SendReply(pSession, pPort, g_szReply, sizeof(g_szReply) - 1);
        print("no CSeq!!!\r\n");
        return EndSession(pSession);
    }
    auto nCSeq = static_cast<uint32_t>(strtoul(szCSeq, nullptr, 10));
    if (pSession->nReqSeq && nCSeq < pSession->nReqSeq) {
        print("CmdSeq(%u) < session->nReqSeq(%u)! Drop it!\r\n", nCSeq, pSession->nReqSeq);
        return Step::Wait;
    }
    pSession->nReqSeq = nCSeq;
    pSession->nCSeq = static_cast<int>(nCSeq);
    return Step::Taken;
}

// Runs the handler and frees the session when it says so. A handler may have freed the session itself,
// together with the other sessions of a program; the port tells.
static Step RunHandler(Session *pSession, Port *pPort, uint32_t *pAt)
{
    int fd = pPort->fd;
    uint32_t nGeneration = pPort->nGeneration;
    int bPost = strcasecmp(RequestMethod(&pPort->request), "POST") == 0;
    int nResult = Dispatch(pSession, pPort, &pPort->request);
    if (FindPortAlive(fd, nGeneration) != pPort)
        return Step::Gone;
    RequestReset(&pPort->request);
    if (!nResult)
        return EndSession(pSession);
    if (bPost)
        *pAt = pSession->nLen = 0;
    return Step::Taken;
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
    uint32_t nHeld = pSession->nLen - *pAt - pRequest->nHeadLen;
    if (nHeld < pRequest->nPendingBody)
        return Step::Wait;
    uint32_t nBody = static_cast<uint32_t>(pRequest->nPendingBody);
    uint32_t nBodyAt = *pAt + pRequest->nHeadLen;
    if (nBody && !RequestAttachBody(pRequest, pSession->pBuf + nBodyAt, nBody))
        return EndSession(pSession);
    *pAt = pSession->nNext = nBodyAt + nBody;
    Step step = CheckCSeq(pSession, pPort);
    if (step == Step::Taken)
        return RunHandler(pSession, pPort, pAt);
    if (step == Step::Wait)
        RequestReset(pRequest);
    return step == Step::Gone ? Step::Gone : Step::Taken;
}

// Both connections of a tunnel fill one buffer. A header block that the other one parsed is still in it, but
// may leave it now through this port: its record must not outlive it.
static void ForgetOtherPort(const Session *pSession, const Port *pPort)
{
    for (Port *pOther : {pSession->Cmd, pSession->Reply})
        if (pOther && pOther != pPort && pOther->request.bParsed)
            RequestReset(&pOther->request);
}

int HandleInput(Session *pSession, Port *pPort)
{
    uint32_t nAt = 0;
    ForgetOtherPort(pSession, pPort);
    while (nAt < pSession->nLen) {
        Step step =
            pSession->pBuf[nAt] == '$' ? TakeFrame(pSession, &nAt) : TakeMessage(pSession, pPort, &nAt);
        if (step == Step::Gone)
            return 0;
        if (step == Step::Wait)
            break;
    }
    pSession->nLen -= nAt;
    if (pSession->nLen == pSession->nTotal - 1) {
        SessionFree(pSession);
        return 0;
    }
    if (nAt > 0)
        memmove(pSession->pBuf, pSession->pBuf + nAt, pSession->nLen);
    pSession->pBuf[pSession->nLen] = 0;
    return 1;
}

}  // namespace orx
