#include "server/methods/subscribe.h"

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/sockutil.h"
#include "server/methods/accounts.h"
#include "server/core/program.h"
#include "server/methods/admit.h"
#include "server/media/send.h"

namespace orx {

static int Refuse(Session *pSession, Port *pPort, const char *szStatus)
{
    ReplyStatus(pSession, pPort, szStatus);
    return 0;
}

static void LogSubscriber(const Session *pSession, const Request *pRequest)
{
    char remote[kAddrTextSize];
    SockAddrToString(&pSession->Reply->remote, remote);
    log("CreateSubscribeClient(Uri=%s), Remote=%s", RequestPath(pRequest), remote);
}

int HandleSubscribe(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!RequestHeaderValue(pRequest, "UserName") || !RequestHeaderValue(pRequest, "UserAuth"))
        return Refuse(pSession, pPort, "401 Unauthorized");
    if (pSession->nState != STATE_NEW)
        return Refuse(pSession, pPort, "455 Method Not Valid in This State");
    if (!ChooseReplyPort(pSession, pPort) || !AttachByPath(pSession, pPort, pRequest))
        return 0;
    const Program *pProg = pSession->pProg;
    if (pProg->nDataTrack < 0)
        return Refuse(pSession, pPort, "455 Method Not Valid in This State");
    if (!ORX_PEER_ASSERT(pProg->bLive, "pProg->bLive"))
        return ReplyPeerFault(pSession, pPort);
    if (!CheckUserToken(pSession, pRequest))
        return Refuse(pSession, pPort, "401 Unauthorized");
    int nSent = ReplyDated(pSession, pPort);
    LogSubscriber(pSession, pRequest);
    pSession->nFlags |= SESSION_SUBSCRIBER;
    return nSent;
}

}  // namespace orx
