#include "server/methods/describe.h"

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "runtime/sockutil.h"
#include "server/core/tracks.h"
#include "server/media/replies.h"
#include "server/methods/admit.h"

namespace orx {

// Sends the description, which ends where the program's password would begin.
static Verdict SendDescription(Session *pSession, Port *pPort)
{
    const char *szSdp = ProgramSdp(pSession->pProg);
    if (!szSdp)
        szSdp = "";
    const char *pSecret = strstr(szSdp, "a=ProgramAuth");
    size_t nSdp = pSecret ? static_cast<size_t>(pSecret - szSdp) : strlen(szSdp);
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    TextAdd(&reply.text, "Content-Type: application/sdp\r\nContent-Length: %d\r\n", static_cast<int>(nSdp));
    MessageNoCache(&reply);
    MessageDate(&reply);
    return MessageSendBody(&reply, szSdp, nSdp);
}

Verdict Describe(Session *pSession, Port *pPort, const Request *pRequest)
{
    char remote[kAddrTextSize];
    SockAddrToString(&pSession->peer.Reply->remote, remote);
    log("CreatePlayClient(Uri=%s), Remote=%s", RequestPath(pRequest), remote);
    SessionCopyTracks(pSession, pSession->pProg);
    pSession->nState = STATE_DESCRIBED;
    Verdict eVerdict = SendDescription(pSession, pPort);
    pSession->viewer.bAdmitted = eVerdict == Verdict::Keep;
    return eVerdict;
}

Verdict HandleDescribe(Session *pSession, Port *pPort, Request *pRequest)
{
    Admission admission = EnterProgram(pSession, pPort, pRequest);
    if (admission == REFUSED)
        SessionDelayClose(pSession);
    if (admission != ADMITTED)
        return NotAdmitted(admission, Verdict::Keep);
    return Describe(pSession, pPort, pRequest);
}

}  // namespace orx
