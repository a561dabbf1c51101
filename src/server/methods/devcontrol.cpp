#include "server/methods/devcontrol.h"

#include <cstdlib>
#include <cstring>

#include "base/textbuf.h"
#include "server/methods/camcfg.h"
#include "server/media/send.h"
#include "server/core/registry.h"

namespace orx {

constexpr size_t kForwardBytes = 2048;     // of the largest request, body included; a longer one is refused
constexpr int kControlLevel = 2;           // control needs a user level below this
constexpr size_t kMaxAnswer = 4096 + 256;  // a header block holds the answer; the reply's own lines

// Header values end at CRLF, so that one may still hold a single CR or LF: forwarded, that would start a line
// of its own at a less strict reader.
static int IsOneLine(const char *sz)
{
    return sz[strcspn(sz, "\r\n")] == '\0';
}

// The session that feeds the program of this one; null without a program, and for a recording.
static Session *FindPusher(const Session *pSession)
{
    return pSession->pProg ? pSession->pProg->pPusher : nullptr;
}

static int FeedsProgram(const Session *pSession)
{
    return FindPusher(pSession) == pSession;
}

// Sends a request that was built with the pusher's number. Returns 1, or 0 when that ended the pusher.
static int Forward(Session *pPusher, const TextBuf *pText)
{
    pPusher->nCSeq++;
    Port *pPort = SessionControlPort(pPusher);
    if (pPort && SendReply(pPusher, pPort, pText->sz, pText->nLen))
        return 1;
    SessionEnd(pPusher);
    return 0;
}

// Builds the request; 0 when something is missing or does not fit.
static int WriteCamControl(TextBuf *pText, const Session *pSession, const Request *pRequest)
{
    const Session *pPusher = FindPusher(pSession);
    const char *szAction = RequestHeaderValue(pRequest, "CamAction");
    const char *szParam = RequestHeaderValue(pRequest, "ActionParam");
    if (!szParam)
        szParam = "none";
    if (!szAction || !pPusher || pSession->nUserLevel >= kControlLevel)
        return 0;
    if (!IsOneLine(szAction) || !IsOneLine(szParam))
        return 0;
    TextAdd(pText,
            "CAMCONTROL RTSP/1.0\r\n" ORX_SERVER_LINE "CSeq: %d\r\nCamAction: %s\r\nActionParam: %s\r\n",
            pPusher->nCSeq, szAction, szParam);
    if (pRequest->nBody)
        TextAdd(pText, "Content-Type: text/plain\r\nContent-length: %d\r\n",
                static_cast<int>(pRequest->nBody));
    TextAdd(pText, "ClientSsId: %u\r\n\r\n", pSession->nHandle);
    return TextAddBytes(pText, pRequest->pBody, pRequest->nBody);
}

int HandleCamControl(Session *pSession, Port *pPort, Request *pRequest)
{
    char message[kForwardBytes + 1];
    TextBuf text{message, sizeof(message)};
    if (!WriteCamControl(&text, pSession, pRequest))
        return ReplyShort(pSession, pPort, "400 Bad Request(no CAMCONTROL yet)");
    return Forward(FindPusher(pSession), &text);
}

int HandlePutVoice(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szType = RequestHeaderValue(pRequest, "Content-Type");
    if (!szType || strcmp(szType, "audio/amr") != 0 || !pRequest->nBody)
        return ReplyShort(pSession, pPort, "400 Bad Request");
    Session *pPusher = FindPusher(pSession);
    if (!pPusher || pSession->nUserLevel >= kControlLevel)
        return ReplyShort(pSession, pPort, "400 Bad Request(no PUTVOICE yet)");
    char message[kForwardBytes + 1];
    TextBuf text{message, sizeof(message)};
    TextAdd(&text,
            "PUTVOICE RTSP/1.0\r\n" ORX_SERVER_LINE
            "CSeq: %d\r\nContent-Type: audio/amr\r\nContent-length: %d\r\nClientSsId: %u\r\n\r\n",
            pPusher->nCSeq, static_cast<int>(pRequest->nBody), pSession->nHandle);
    if (!TextAddBytes(&text, pRequest->pBody, pRequest->nBody))
        return ReplyShort(pSession, pPort, "400 Bad Request");
    return Forward(pPusher, &text);
}

int HandleGetCamInfo(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szType = RequestHeaderValue(pRequest, "GetInfoType");
    if (!szType || !IsOneLine(szType))
        return ReplyShort(pSession, pPort, "400 Bad Request(GetInfoType field not found)");
    if (pSession->pProg && strcmp(szType, "getcamcfg") == 0)
        return ReplyCamCfg(pSession, pPort);
    Session *pPusher = FindPusher(pSession);
    char message[kForwardBytes + 1];
    TextBuf text{message, sizeof(message)};
    int bFits = pPusher && TextAdd(&text,
                                   "GETCAMINFO RTSP/1.0\r\n" ORX_SERVER_LINE
                                   "CSeq: %d\r\nGetInfoType: %s\r\nClientSsId: %u\r\n\r\n",
                                   pPusher->nCSeq, szType, pSession->nHandle);
    if (!bFits)
        return ReplyShort(pSession, pPort, "400 Bad Request(no GETCAMCFG yet)");
    return Forward(pPusher, &text);
}

// The session that an answer is for: the one with that handle, the oldest one for 0. Null when the number is
// none, and when the session has gone meanwhile.
static Session *FindAsker(const char *szHandle)
{
    char *pEnd = nullptr;
    unsigned long long nHandle = strtoull(szHandle, &pEnd, 10);
    if (*szHandle < '0' || *szHandle > '9' || pEnd[strspn(pEnd, " \t")] != '\0')
        return nullptr;
    for (auto *p = ListFirstOf<Session>(&g_server.sessions); p;
         p = static_cast<Session *>(ListNext(&g_server.sessions, p, 0)))
        if (nHandle == 0 || p->nHandle == nHandle)
            return p;
    return nullptr;
}

static void PassAnswer(Session *pAsker, const char *szForward)
{
    char answer[kMaxAnswer];
    TextBuf text{answer, sizeof(answer)};
    TextAdd(&text, "RTSP/1.0 %s \r\n" ORX_SERVER_LINE "CSeq: %d\r\n\r\n", szForward, pAsker->nCSeq++);
    Port *pPort = SessionControlPort(pAsker);
    if (!pPort || !SendReply(pAsker, pPort, answer, text.nLen))
        SessionEnd(pAsker);
}

int HandleRespond(Session *pSession, Port *pPort, Request *pRequest)
{
    // whoever may answer decides what other sessions are told: only the session that the question went to
    if (!FeedsProgram(pSession))
        return ReplyShort(pSession, pPort, "400 Bad Request(no RESPOND yet)");
    const char *szHandle = RequestHeaderValue(pRequest, "ClientSsId");
    const char *szForward = RequestHeaderValue(pRequest, "Forward");
    Session *pAsker = szHandle && szForward && IsOneLine(szForward) ? FindAsker(szHandle) : nullptr;
    if (pAsker)
        PassAnswer(pAsker, szForward);
    return 1;
}

}  // namespace orx
