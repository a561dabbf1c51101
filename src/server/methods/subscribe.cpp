#include "server/methods/subscribe.h"

#include "base/assertion.h"
#include "base/console.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/core/settings.h"
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

// Checks the token against the accounts that count at the path. Returns 1, or 0 with the refusal sent and its
// verdict in *pVerdict.
static int TokenIsRight(const CredentialCheck *pCheck, Port *pPort, CheckedUser *pUser, Verdict *pVerdict)
{
    Credential eResult = CheckUserToken(pCheck, pUser);
    if (eResult == CREDENTIAL_WAITS)
        *pVerdict = Verdict::Later;
    else if (eResult != CREDENTIAL_RIGHT)
        *pVerdict = Refuse(pCheck->pSession, pPort, STATUS_UNAUTHORIZED);
    return eResult == CREDENTIAL_RIGHT;
}

static Verdict Subscribe(Session *pSession, Port *pPort, const Request *pRequest, const CheckedUser *pUser)
{
    ViewerSet(pSession, pUser);
    Verdict eVerdict = ReplyDated(pSession, pPort, STATUS_OK);
    LogSubscriber(pSession, pRequest);
    pSession->nFlags |= SESSION_SUBSCRIBER;
    pSession->viewer.bAdmitted = eVerdict == Verdict::Keep;
    return eVerdict;
}

Verdict HandleSubscribe(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!RequestHeaderValue(pRequest, "UserName") || !RequestHeaderValue(pRequest, "UserAuth"))
        return Refuse(pSession, pPort, STATUS_UNAUTHORIZED);
    if (pSession->nState != STATE_NEW)
        return Refuse(pSession, pPort, STATUS_WRONG_STATE);
    if (!ChooseReplyPort(pSession, pPort))
        return Verdict::End;
    const char *szPath = RequestPath(pRequest);
    Program *pFound = FindProgram(pSession, szPath);
    AccountPlace place = AccountsAt(pFound, szPath);
    CredentialCheck check{pSession, pPort, pRequest, &place};
    CheckedUser user;
    Verdict eRefusal = Verdict::End;
    int bStrict = g_settings.bStrictRoles;  // then nothing is opened, woken or told before the token is right
    if (bStrict && !TokenIsRight(&check, pPort, &user, &eRefusal))
        return eRefusal;
    Verdict eAttached = AttachFound(pSession, pPort, pFound, szPath);
    if (eAttached != Verdict::Keep)
        return eAttached;
    const Program *pProg = pSession->pProg;
    if (pProg->desc.nDataTrack < 0)
        return Refuse(pSession, pPort, STATUS_WRONG_STATE);
    if (!ORX_PEER_ASSERT(pProg->bLive, "pProg->bLive"))
        return RefuseFault(pSession, pPort);
    if (!bStrict && !TokenIsRight(&check, pPort, &user, &eRefusal))
        return eRefusal;
    return Subscribe(pSession, pPort, pRequest, &user);
}

}  // namespace orx
