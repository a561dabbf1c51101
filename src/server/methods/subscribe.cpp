#include "server/methods/subscribe.h"

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/media/replies.h"
#include "server/methods/admit.h"
#include "server/methods/credentials.h"

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
    CredentialCheck check{pSession, pPort, pRequest, pProg};
    CheckedUser user;
    Credential eResult = CheckUserToken(&check, &user);
    if (eResult == CREDENTIAL_WAITS)
        return Verdict::Later;
    if (eResult != CREDENTIAL_RIGHT)
        return Refuse(pSession, pPort, STATUS_UNAUTHORIZED);
    ViewerSet(pSession, &user);
    Verdict eVerdict = ReplyDated(pSession, pPort, STATUS_OK);
    LogSubscriber(pSession, pRequest);
    pSession->nFlags |= SESSION_SUBSCRIBER;
    return eVerdict;
}

}  // namespace orx
