#include "server/methods/describe.h"

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "base/textnumber.h"
#include "runtime/sockutil.h"
#include "server/core/program.h"
#include "server/core/settings.h"
#include "server/core/tracks.h"
#include "server/media/replies.h"
#include "server/methods/admit.h"

namespace orx {

// What the controls of the tracks count from, for standard players: without the query, and ending in '/', as
// some put the query, and others what follows the last '/', elsewhere.
static void AddContentBase(const Request *pRequest, TextBuf *pText)
{
    if (g_settings.bStandardPlayers && strstr(RequestBase(pRequest), "://"))
        TextAdd(pText, "Content-Base: %s/\r\n", RequestBase(pRequest));
}

// Sends the description, which ends where the program's password would begin.
static Verdict SendDescription(Session *pSession, Port *pPort, const Request *pRequest)
{
    const char *szSdp = ProgramSdp(pSession->pProg);
    if (!szSdp)
        szSdp = "";
    const char *pSecret = strstr(szSdp, "a=ProgramAuth");
    size_t nSdp = pSecret ? static_cast<size_t>(pSecret - szSdp) : strlen(szSdp);
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    AddContentBase(pRequest, &reply.text);
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
    Verdict eVerdict = SendDescription(pSession, pPort, pRequest);
    pSession->viewer.bAdmitted = eVerdict == Verdict::Keep;
    return eVerdict;
}

// Standard players ask again, some to show that they live. The program is the session's own: once tracks are
// set up it stays, and the answer changes nothing; before, another one may be asked for.
static int AsksAgain(Session *pSession, const Request *pRequest)
{
    if (!g_settings.bStandardPlayers || pSession->nState == STATE_NEW || !pSession->viewer.bAdmitted ||
        (pSession->nFlags & SESSION_PUSHER))
        return 0;
    if (pSession->pProg && strcasecmp(pSession->pProg->Uri, RequestPath(pRequest)) == 0)
        return 1;
    if (pSession->nState == STATE_DESCRIBED)
        pSession->nState = STATE_NEW;
    return 0;
}

Verdict HandleDescribe(Session *pSession, Port *pPort, Request *pRequest)
{
    if (AsksAgain(pSession, pRequest))
        return SendDescription(pSession, pPort, pRequest);
    Admission admission = EnterProgram(pSession, pPort, pRequest);
    if (admission == REFUSED)
        SessionDelayClose(pSession);
    if (admission != ADMITTED)
        return NotAdmitted(admission, Verdict::Keep);
    return Describe(pSession, pPort, pRequest);
}

}  // namespace orx
