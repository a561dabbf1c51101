#include "server/media/replies.h"

#include <iterator>

#include "base/httpdate.h"
#include "server/media/send.h"

namespace orx {

// Which of the two lines follow a status line.
enum StatusHead : unsigned { HEAD_SERVER = 1, HEAD_CSEQ = 2, HEAD_BOTH = 3 };

struct StatusRow {
    Status eStatus;  // its place in the table
    const char *szLine;
    unsigned nHead;
};

// One status line a row. Refusals tell the cause in parentheses. Clients compare these texts: they stay.
static constexpr StatusRow g_statuses[] = {
    {STATUS_OK, "RTSP/1.0 200 OK", HEAD_BOTH},
    {STATUS_NO_RECORD_SPACE, "RTSP/1.0 200 NOT enough space to RECORD.", HEAD_BOTH},
    {STATUS_BAD_REQUEST, "RTSP/1.0 400 Bad Request", HEAD_BOTH},
    {STATUS_NO_SDP, "RTSP/1.0 400 Bad Request(no SDP)", HEAD_BOTH},
    {STATUS_NO_TRACK, "RTSP/1.0 400 Bad Request(invalid trackID in SETUP)", HEAD_BOTH},
    {STATUS_NO_CSEQ, "RTSP/1.0 400 Bad Request(no CSeq)", HEAD_SERVER},
    {STATUS_NO_CAMCONTROL, "RTSP/1.0 400 Bad Request(no CAMCONTROL yet)", HEAD_BOTH},
    {STATUS_NO_PUTVOICE, "RTSP/1.0 400 Bad Request(no PUTVOICE yet)", HEAD_BOTH},
    {STATUS_NO_INFO_TYPE, "RTSP/1.0 400 Bad Request(GetInfoType field not found)", HEAD_BOTH},
    {STATUS_NO_GETCAMCFG, "RTSP/1.0 400 Bad Request(no GETCAMCFG yet)", HEAD_BOTH},
    {STATUS_NO_PUTCAMCFG, "RTSP/1.0 400 Bad Request(no PUTCAMCFG yet)", HEAD_BOTH},
    {STATUS_NO_RESPOND, "RTSP/1.0 400 Bad Request(no RESPOND yet)", HEAD_BOTH},
    {STATUS_NO_GUID, "RTSP/1.0 400 Bad Request(no Guid field)", HEAD_BOTH},
    {STATUS_NO_RECORDEX, "RTSP/1.0 400 Bad Request(no RECORDEX yet)", HEAD_BOTH},
    {STATUS_NO_PARAM, "RTSP/1.0 400 Bad Request(no ActionParam field)", HEAD_BOTH},
    {STATUS_UNAUTHORIZED, "RTSP/1.0 401 Unauthorized", HEAD_BOTH},
    {STATUS_FORBIDDEN, "RTSP/1.0 403 Forbidden", HEAD_CSEQ},
    {STATUS_NOT_FOUND, "RTSP/1.0 404 Not Found", HEAD_BOTH},
    {STATUS_NOT_ALLOWED, "RTSP/1.0 405 Method Not Allowed", HEAD_BOTH},
    {STATUS_WRONG_STATE, "RTSP/1.0 455 Method Not Valid in This State", HEAD_BOTH},
    {STATUS_NO_TRANSPORT, "RTSP/1.0 500 Internal error", HEAD_BOTH},
    {STATUS_NOT_IMPLEMENTED, "RTSP/1.0 500 Not implemented", HEAD_SERVER},
    {STATUS_FAILED, "RTSP/1.0 501 Internal error", HEAD_BOTH},
    {STATUS_DUPLICATE, "RTSP/1.0 502 Duplicate", HEAD_BOTH},
    {STATUS_CAMCFG, "RTSP/1.0 650 Get camera config OK", HEAD_BOTH},
    {STATUS_NO_CAMCFG, "RTSP/1.0 651 Get camera config failed", HEAD_BOTH},
    {HTTP_OK, "HTTP/1.1 200 OK", HEAD_SERVER},
    {HTTP_NO_COOKIE, "HTTP/1.1 400 Bad Request(no x-sessioncookie)", HEAD_SERVER},
    {HTTP_MISMATCH, "HTTP/1.1 400 Bad Request(Content Types Mismatched)", HEAD_SERVER},
    {HTTP_FAILED, "HTTP/1.1 501 Internal error", HEAD_SERVER},
};

static constexpr int RowsStandInOrder()
{
    for (size_t i = 0; i < std::size(g_statuses); i++)
        if (g_statuses[i].eStatus != static_cast<Status>(i))
            return 0;
    return 1;
}
static_assert(RowsStandInOrder(), "a status is its row's index");

static void AddHead(Message *pMessage, unsigned nHead, int nCSeq)
{
    if (nHead & HEAD_SERVER)
        TextAdd(&pMessage->text, "Server: Orx/2.3.1.2\r\n");
    if (nHead & HEAD_CSEQ)
        TextAdd(&pMessage->text, "CSeq: %d\r\n", nCSeq);
}

void ReplyBeginNumbered(Message *pReply, Status eStatus, int nCSeq)
{
    TextAdd(&pReply->text, "%s\r\n", g_statuses[eStatus].szLine);
    AddHead(pReply, g_statuses[eStatus].nHead, nCSeq);
}

void ReplyBegin(Message *pReply, Status eStatus)
{
    int bNumbered = g_statuses[eStatus].nHead & HEAD_CSEQ;
    ReplyBeginNumbered(pReply, eStatus, bNumbered ? pReply->pSession->nCSeq++ : 0);
}

void ReplyBeginText(Message *pReply, const char *szStatus)
{
    TextAdd(&pReply->text, "RTSP/1.0 %s \r\n", szStatus);
    AddHead(pReply, HEAD_BOTH, pReply->pSession->nCSeq++);
}

void RequestBegin(Message *pRequest, const char *szMethod)
{
    TextAdd(&pRequest->text, "%s RTSP/1.0\r\n", szMethod);
    AddHead(pRequest, HEAD_BOTH, pRequest->pSession->nCSeq);
}

void MessageNoCache(Message *pMessage)
{
    TextAdd(&pMessage->text, "Pragma: no-cache\r\nCache-Control: no-cache\r\n");
}

void MessageSession(Message *pMessage)
{
    TextAdd(&pMessage->text, "Session: %p\r\n", SessionPrintHandle(pMessage->pSession));
}

void MessageDate(Message *pMessage)
{
    char szDate[kHttpDateSize];
    FormatHttpDate(szDate);
    TextAdd(&pMessage->text, "Date: %s\r\n", szDate);
}

static Verdict Send(Message *pMessage, const void *pBody, size_t nBody, DataBlock *pBefore)
{
    TextAdd(&pMessage->text, "\r\n");
    return KeepIf(!pMessage->text.bFull && SendReply2(pMessage->pSession, pMessage->pPort, pMessage->sz,
                                                      pMessage->text.nLen, pBody, nBody, pBefore));
}

Verdict MessageSend(Message *pMessage)
{
    return Send(pMessage, nullptr, 0, nullptr);
}

Verdict MessageSendBody(Message *pMessage, const void *pBody, size_t nBody)
{
    return Send(pMessage, pBody, nBody, nullptr);
}

Verdict MessageSendBefore(Message *pMessage, DataBlock *pBefore)
{
    return Send(pMessage, nullptr, 0, pBefore);
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

Verdict ReplyShort(Session *pSession, Port *pPort, Status eStatus)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, eStatus);
    return MessageSend(&reply);
}

}  // namespace orx
