#include "server/methods/subscribe.h"

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/media/replies.h"
#include "server/methods/accounts.h"
#include "server/methods/admit.h"

namespace orx {

static void LogSubscriber(const Session *pSession, const Request *pRequest)
{
    char remote[kAddrTextSize];
    SockAddrToString(&pSession->peer.Reply->remote, remote);
    log("CreateSubscribeClient(Uri=%s), Remote=%s", RequestPath(pRequest), remote);
}

Verdict HandleSubscribe(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!RequestHeaderValue(pRequest, "UserName") || !RequestHeaderValue(pRequest, "UserAuth"))
        return Refuse(pSession, pPort, STATUS_UNAUTHORIZED);
    if (pSession->nState != STATE_NEW)
        return Refuse(pSession, pPort, STATUS_WRONG_STATE);
    if (!ChooseReplyPort(pSession, pPort) || !AttachByPath(pSession, pPort, pRequest))
        return Verdict::End;
    const Program *pProg = pSession->pProg;
    if (pProg->desc.nDataTrack < 0)
        return Refuse(pSession, pPort, STATUS_WRONG_STATE);
    if (!ORX_PEER_ASSERT(pProg->bLive, "pProg->bLive"))
        return RefuseFault(pSession, pPort);
    if (!CheckUserToken(pSession, pRequest))
        return Refuse(pSession, pPort, STATUS_UNAUTHORIZED);
    Verdict eVerdict = ReplyDated(pSession, pPort, STATUS_OK);
    LogSubscriber(pSession, pRequest);
    pSession->nFlags |= SESSION_SUBSCRIBER;
    pSession->viewer.bAdmitted = eVerdict == Verdict::Keep;
    return eVerdict;
}

}  // namespace orx
