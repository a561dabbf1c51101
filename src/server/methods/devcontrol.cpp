#include "server/methods/devcontrol.h"

#include <cstdlib>
#include <cstring>

#include "server/core/program.h"
#include "server/core/registry.h"
#include "server/core/sessionpeer.h"
#include "server/core/settings.h"
#include "server/media/questions.h"
#include "server/media/replies.h"
#include "server/media/send.h"
#include "server/methods/camcfg.h"

namespace orx {

constexpr size_t kForwardBytes = 2048;  // of the largest request, body included; a longer one is refused
constexpr int kControlLevel = 2;        // control needs a user level below this

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

// Sends a request that is complete but for its body. A pusher that cannot be reached ends, and with it who
// asked; what is too long or too much is refused.
static Verdict Forward(Message *pMessage, Session *pSession, Port *pPort, const Request *pBody,
                       Status eRefusal)
{
    if (!PusherKnows(pMessage->pSession->pProg))
        return ReplyShort(pSession, pPort, STATUS_NO_COMMANDS);
    switch (QuestionSend(pMessage, pSession, pBody->pBody, pBody->nBody, kForwardBytes)) {
        case Asked::Sent:
            return Verdict::Keep;
        case Asked::Refused:
            return ReplyShort(pSession, pPort, eRefusal);
        case Asked::PusherGone:
            break;
    }
    SessionNoteEnd(pMessage->pSession, "a request could not be passed on to it");
    SessionEnd(pMessage->pSession);
    return Verdict::Keep;
}

// Writes the head of the request; 0 when something is missing.
static int WriteCamControl(Message *pMessage, const Session *pSession, const Request *pRequest)
{
    const char *szAction = RequestHeaderValue(pRequest, "CamAction");
    const char *szParam = RequestHeaderValue(pRequest, "ActionParam");
    if (!szParam)
        szParam = "none";
    if (!szAction || !pMessage->pSession || pSession->viewer.nUserLevel >= kControlLevel)
        return 0;
    if (!IsOneLine(szAction) || !IsOneLine(szParam))
        return 0;
    RequestBegin(pMessage, "CAMCONTROL");
    TextAdd(&pMessage->text, "CamAction: %s\r\nActionParam: %s\r\n", szAction, szParam);
    if (pRequest->nBody)
        TextAdd(&pMessage->text, "Content-Type: text/plain\r\nContent-length: %d\r\n",
                static_cast<int>(pRequest->nBody));
    TextAdd(&pMessage->text, "ClientSsId: %u\r\n", pSession->nHandle);
    return 1;
}

Verdict HandleCamControl(Session *pSession, Port *pPort, Request *pRequest)
{
    Message message(FindPusher(pSession), nullptr);
    if (!WriteCamControl(&message, pSession, pRequest))
        return ReplyShort(pSession, pPort, STATUS_NO_CAMCONTROL);
    return Forward(&message, pSession, pPort, pRequest, STATUS_NO_CAMCONTROL);
}

Verdict HandlePutVoice(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szType = RequestHeaderValue(pRequest, "Content-Type");
    if (!szType || strcmp(szType, "audio/amr") != 0 || !pRequest->nBody)
        return ReplyShort(pSession, pPort, STATUS_BAD_REQUEST);
    Message message(FindPusher(pSession), nullptr);
    if (!message.pSession || pSession->viewer.nUserLevel >= kControlLevel)
        return ReplyShort(pSession, pPort, STATUS_NO_PUTVOICE);
    RequestBegin(&message, "PUTVOICE");
    TextAdd(&message.text, "Content-Type: audio/amr\r\nContent-length: %d\r\nClientSsId: %u\r\n",
            static_cast<int>(pRequest->nBody), pSession->nHandle);
    return Forward(&message, pSession, pPort, pRequest, STATUS_BAD_REQUEST);
}

Verdict HandleGetCamInfo(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szType = RequestHeaderValue(pRequest, "GetInfoType");
    if (!szType || !IsOneLine(szType))
        return ReplyShort(pSession, pPort, STATUS_NO_INFO_TYPE);
    if (pSession->pProg && strcmp(szType, "getcamcfg") == 0)
        return ReplyCamCfg(pSession, pPort);
    Message message(FindPusher(pSession), nullptr);
    if (!message.pSession)
        return ReplyShort(pSession, pPort, STATUS_NO_GETCAMCFG);
    RequestBegin(&message, "GETCAMINFO");
    TextAdd(&message.text, "GetInfoType: %s\r\nClientSsId: %u\r\n", szType, pSession->nHandle);
    const Request noBody;  // one of the question itself is not passed on
    return Forward(&message, pSession, pPort, &noBody, STATUS_NO_GETCAMCFG);
}

// Whether an answer of the program's may be for the session.
static int MayBeAnswered(Session *pSession, const Program *pProg)
{
    return !g_settings.bStrictRoles || (pSession->pProg == pProg && QuestionIsOpen(pSession));
}

// The session that an answer of the program's is for: the one with that handle, the oldest one for 0. Null
// when the number is none, and when the session has gone meanwhile.
static Session *FindAsker(const Program *pProg, const char *szHandle)
{
    char *pEnd = nullptr;
    unsigned long long nHandle = strtoull(szHandle, &pEnd, 10);
    if (*szHandle < '0' || *szHandle > '9' || pEnd[strspn(pEnd, " \t")] != '\0')
        return nullptr;
    for (Session *p = FirstSession(); p; p = NextSession(p))
        if ((nHandle == 0 || p->nHandle == nHandle) && MayBeAnswered(p, pProg))
            return p;
    return nullptr;
}

static void SendAnswer(Message *pAnswer)
{
    if (!pAnswer->pPort || MessageSend(pAnswer) == Verdict::End) {
        SessionNoteEnd(pAnswer->pSession, "an answer could not be sent to it");
        SessionEnd(pAnswer->pSession);
    }
}

static void PassAnswer(Session *pAsker, const char *szForward)
{
    Message answer(pAsker, SessionControlPort(pAsker));
    ReplyBeginText(&answer, szForward);
    SendAnswer(&answer);
}

void HandleAnswer(Session *pSession, const Request *pAnswer, const uint32_t *pCSeq)
{
    uint32_t nAskerCSeq = 0;
    if (pAnswer->nStatus > 0 && pAnswer->nStatus < 200)  // the last word is still to come
        return;
    Session *pAsker = PusherAnswered(pSession, pCSeq, &nAskerCSeq);
    if (!pAsker || pAnswer->nStatus == kBadAnswer)
        return;
    QuestionAnswered(pAsker);
    Message answer(pAsker, SessionControlPort(pAsker));
    ReplyBeginStatus(&answer, pAnswer->nStatus, pAnswer->szReason, nAskerCSeq);
    SendAnswer(&answer);
}

Verdict HandleRespond(Session *pSession, Port *pPort, Request *pRequest)
{
    // whoever may answer decides what other sessions are told: with StrictRoles only the session that the
    // question went to
    if (!pSession->pProg || (g_settings.bStrictRoles && !FeedsProgram(pSession)))
        return ReplyShort(pSession, pPort, STATUS_NO_RESPOND);
    PusherShows(pSession);
    const char *szHandle = RequestHeaderValue(pRequest, "ClientSsId");
    const char *szForward = RequestHeaderValue(pRequest, "Forward");
    Session *pAsker =
        szHandle && szForward && IsOneLine(szForward) ? FindAsker(pSession->pProg, szHandle) : nullptr;
    if (pAsker) {
        QuestionAnswered(pAsker);
        PusherResponded(pSession, pAsker);
        PassAnswer(pAsker, szForward);
    }
    return Verdict::Keep;
}

}  // namespace orx
