#include "server/media/replies.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "base/httpdate.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/media/send.h"

namespace orx {

// Which of the two lines follow a status line.
enum StatusHead { HEAD_SERVER = 1, HEAD_CSEQ = 2, HEAD_BOTH = 3 };

struct StatusRow {
    Status eStatus;  // its place in the table
    StatusHead eHead;
    const char *szLine;
};

// One status line a row. Refusals tell the cause in parentheses.
static constexpr StatusRow g_statuses[] = {
    {STATUS_OK, HEAD_BOTH, "RTSP/1.0 200 OK"},
    {STATUS_NO_RECORD_SPACE, HEAD_BOTH, "RTSP/1.0 200 NOT enough space to RECORD."},
    {STATUS_BAD_REQUEST, HEAD_BOTH, "RTSP/1.0 400 Bad Request"},
    {STATUS_NO_SDP, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no SDP)"},
    {STATUS_NO_TRACK, HEAD_BOTH, "RTSP/1.0 400 Bad Request(invalid trackID in SETUP)"},
    {STATUS_SAME_CONTROL, HEAD_BOTH, "RTSP/1.0 400 Bad Request(two sections have the same control)"},
    {STATUS_NO_CSEQ, HEAD_SERVER, "RTSP/1.0 400 Bad Request(no CSeq)"},
    {STATUS_NO_CAMCONTROL, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no CAMCONTROL yet)"},
    {STATUS_NO_PUTVOICE, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no PUTVOICE yet)"},
    {STATUS_NO_INFO_TYPE, HEAD_BOTH, "RTSP/1.0 400 Bad Request(GetInfoType field not found)"},
    {STATUS_NO_GETCAMCFG, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no GETCAMCFG yet)"},
    {STATUS_NO_PUTCAMCFG, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no PUTCAMCFG yet)"},
    {STATUS_NO_RESPOND, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no RESPOND yet)"},
    {STATUS_NO_GUID, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no Guid field)"},
    {STATUS_NO_RECORDEX, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no RECORDEX yet)"},
    {STATUS_NO_PARAM, HEAD_BOTH, "RTSP/1.0 400 Bad Request(no ActionParam field)"},
    {STATUS_UNAUTHORIZED, HEAD_BOTH, "RTSP/1.0 401 Unauthorized"},
    {STATUS_FORBIDDEN, HEAD_CSEQ, "RTSP/1.0 403 Forbidden"},
    {STATUS_NOT_FOUND, HEAD_BOTH, "RTSP/1.0 404 Not Found"},
    {STATUS_NOT_ALLOWED, HEAD_BOTH, "RTSP/1.0 405 Method Not Allowed"},
    {STATUS_NO_SESSION, HEAD_BOTH, "RTSP/1.0 454 Session Not Found"},
    {STATUS_WRONG_STATE, HEAD_BOTH, "RTSP/1.0 455 Method Not Valid in This State"},
    {STATUS_OTHER_TRANSPORT, HEAD_BOTH, "RTSP/1.0 461 Unsupported Transport"},
    {STATUS_NO_TRANSPORT, HEAD_BOTH, "RTSP/1.0 500 Internal error"},
    {STATUS_NOT_IMPLEMENTED, HEAD_SERVER, "RTSP/1.0 500 Not implemented"},
    {STATUS_FAILED, HEAD_BOTH, "RTSP/1.0 501 Internal error"},
    {STATUS_NO_COMMANDS, HEAD_BOTH, "RTSP/1.0 501 Not Implemented(the pusher takes no requests)"},
    {STATUS_DUPLICATE, HEAD_BOTH, "RTSP/1.0 502 Duplicate"},
    {STATUS_NO_OPTION, HEAD_BOTH, "RTSP/1.0 551 Option not supported"},
    {STATUS_CAMCFG, HEAD_BOTH, "RTSP/1.0 650 Get camera config OK"},
    {STATUS_NO_CAMCFG, HEAD_BOTH, "RTSP/1.0 651 Get camera config failed"},
    {HTTP_OK, HEAD_SERVER, "HTTP/1.1 200 OK"},
    {HTTP_NO_COOKIE, HEAD_SERVER, "HTTP/1.1 400 Bad Request(no x-sessioncookie)"},
    {HTTP_MISMATCH, HEAD_SERVER, "HTTP/1.1 400 Bad Request(Content Types Mismatched)"},
    {HTTP_FAILED, HEAD_SERVER, "HTTP/1.1 501 Internal error"},
};

static constexpr int RowsStandInOrder()
{
    for (size_t i = 0; i < std::size(g_statuses); i++)
        if (g_statuses[i].eStatus != static_cast<Status>(i))
            return 0;
    return 1;
}
static_assert(RowsStandInOrder(), "a status is its row's index");

static int IsForStandard(const Message *pMessage)
{
    return pMessage->pSession && pMessage->pSession->standards.bPlayers;
}

// Standard players take no reply without the number of their request.
static unsigned HeadOf(const Message *pReply, Status eStatus)
{
    unsigned nHead = g_statuses[eStatus].eHead;
    return eStatus == STATUS_NOT_IMPLEMENTED && IsForStandard(pReply) ? unsigned{HEAD_BOTH} : nHead;
}

static void AddHead(Message *pMessage, unsigned nHead, uint32_t nCSeq)
{
    if (nHead & HEAD_SERVER)
        TextAdd(&pMessage->text, "Server: Orx/2.3.1.2\r\n");
    if (nHead & HEAD_CSEQ)
        TextAdd(&pMessage->text, IsForStandard(pMessage) ? "CSeq: %u\r\n" : "CSeq: %d\r\n", nCSeq);
}

void ReplyBeginNumbered(Message *pReply, Status eStatus, uint32_t nCSeq)
{
    const char *szLine = g_statuses[eStatus].szLine;
    TextAdd(&pReply->text, "%s\r\n", szLine);
    if (pReply->pSession)
        pReply->pSession->ending.nLastStatus = atoi(szLine + strcspn(szLine, " "));
    AddHead(pReply, HeadOf(pReply, eStatus), nCSeq);
}

void ReplyBegin(Message *pReply, Status eStatus)
{
    ReplyBeginNumbered(pReply, eStatus, HeadOf(pReply, eStatus) & HEAD_CSEQ ? pReply->pSession->nCSeq++ : 0);
}

void ReplyBeginText(Message *pReply, const char *szStatus)
{
    TextAdd(&pReply->text, "RTSP/1.0 %s \r\n", szStatus);
    AddHead(pReply, HEAD_BOTH, pReply->pSession->nCSeq++);
}

void ReplyBeginStatus(Message *pReply, int nStatus, const char *szReason, uint32_t nCSeq)
{
    TextAdd(&pReply->text, "RTSP/1.0 %d %s\r\n", nStatus, szReason);
    AddHead(pReply, HEAD_BOTH, nCSeq);
}

void RequestBegin(Message *pRequest, const char *szMethod)
{
    TextAdd(&pRequest->text, "%s RTSP/1.0\r\n", szMethod);
    AddHead(pRequest, HEAD_BOTH, pRequest->pSession->nCSeq);
}

int RequestSend(Message *pRequest, const void *pBody, size_t nBody, size_t nMost)
{
    TextAdd(&pRequest->text, "\r\n");
    TextAddBytes(&pRequest->text, pBody, nBody);
    if (pRequest->text.bFull || pRequest->text.nLen > nMost)
        return 0;
    Session *pPeer = pRequest->pSession;
    Port *pPort = SessionControlPort(pPeer);
    if (!pPort)
        return -1;
    pPeer->nCSeq++;
    size_t nLen = pRequest->text.nLen;
    int bSent = pRequest->nAsker ? SendQuestion(pPeer, pPort, pRequest->sz, nLen, pRequest->nAsker)
                                 : SendReply(pPeer, pPort, pRequest->sz, nLen);
    return bSent ? 1 : -1;
}

void MessageNoCache(Message *pMessage)
{
    TextAdd(&pMessage->text, "Pragma: no-cache\r\nCache-Control: no-cache\r\n");
}

void MessageSession(Message *pMessage)
{
    TextAdd(&pMessage->text, "Session: %p", SessionPrintHandle(pMessage->pSession));
    if (IsForStandard(pMessage))  // no blank: some read the time only so
        TextAdd(&pMessage->text, ";timeout=%u", kSessionSeconds);
    TextAdd(&pMessage->text, "\r\n");
}

void MessageDate(Message *pMessage)
{
    char szDate[kHttpDateSize];
    FormatHttpDate(szDate, IsForStandard(pMessage) ? DateForm::Rfc1123 : DateForm::MonthFirst);
    TextAdd(&pMessage->text, "Date: %s\r\n", szDate);
}

static Verdict Send(Message *pMessage, const void *pBody, size_t nBody, uint32_t nBefore)
{
    TextAdd(&pMessage->text, "\r\n");
    return KeepIf(!pMessage->text.bFull && SendReply2(pMessage->pSession, pMessage->pPort, pMessage->sz,
                                                      pMessage->text.nLen, pBody, nBody, nBefore));
}

Verdict MessageSend(Message *pMessage)
{
    return Send(pMessage, nullptr, 0, kQueueEnd);
}

Verdict MessageSendBody(Message *pMessage, const void *pBody, size_t nBody)
{
    return Send(pMessage, pBody, nBody, kQueueEnd);
}

Verdict MessageSendBefore(Message *pMessage, uint32_t nBefore)
{
    return Send(pMessage, nullptr, 0, nBefore);
}

Verdict ReplyStatus(Session *pSession, Port *pPort, Status eStatus)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, eStatus);
    MessageNoCache(&reply);
    return MessageSend(&reply);
}

Verdict ReplyDated(Session *pSession, Port *pPort, Status eStatus)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, eStatus);
    MessageNoCache(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

Verdict RefuseState(Session *pSession, Port *pPort)
{
    Verdict eVerdict = ReplyStatus(pSession, pPort, STATUS_WRONG_STATE);
    return IsStandardPeer(pSession) ? eVerdict : Verdict::End;
}

Verdict ReplyShort(Session *pSession, Port *pPort, Status eStatus)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, eStatus);
    return MessageSend(&reply);
}

}  // namespace orx
