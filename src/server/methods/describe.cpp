#include "server/methods/describe.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

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
static void AddContentBase(const Session *pSession, const Request *pRequest, TextBuf *pText)
{
    if (pSession->standards.bPlayers && strstr(RequestBase(pRequest), "://"))
        TextAdd(pText, "Content-Base: %s/\r\n", RequestBase(pRequest));
}

// Copies a description with the "c=" lines of the family named replaced by one of the other that names nobody
// (RFC 2326, appendix C.1.7): a player takes its sockets from them, and fails on a family that is not its
// connection's. pOut has room for twice the text. Returns the bytes written.
static size_t CopyForFamily(const char *pSdp, size_t nSdp, int bIpv6, char *pOut)
{
    std::string_view rest(pSdp, nSdp);
    std::string_view foreign = bIpv6 ? "c=IN IP4 " : "c=IN IP6 ";
    std::string_view own = bIpv6 ? "c=IN IP6 ::" : "c=IN IP4 0.0.0.0";
    size_t nOut = 0;
    while (!rest.empty()) {
        size_t nLine = std::min(rest.find('\n'), rest.size() - 1) + 1;
        std::string_view line = rest.substr(0, nLine);
        rest.remove_prefix(nLine);
        if (line.starts_with(foreign)) {
            nOut += own.copy(pOut + nOut, own.size());
            line.remove_prefix(std::min(line.find_first_of("\r\n"), line.size()));
        }
        nOut += line.copy(pOut + nOut, line.size());
    }
    return nOut;
}

// The reply's description, as players of the port's family take it.
static Verdict SendSdp(Message *pReply, const Port *pPort, const char *pSdp, size_t nSdp)
{
    char *pOwn = g_server.bIpv6 ? static_cast<char *>(malloc(2 * nSdp + 1)) : nullptr;
    size_t nBody = pOwn ? CopyForFamily(pSdp, nSdp, AddrIsIpv6(&pPort->remote), pOwn) : nSdp;
    TextAdd(&pReply->text, "Content-Type: application/sdp\r\nContent-Length: %d\r\n",
            static_cast<int>(nBody));
    MessageNoCache(pReply);
    MessageDate(pReply);
    Verdict eVerdict = MessageSendBody(pReply, pOwn ? pOwn : pSdp, nBody);
    free(pOwn);
    return eVerdict;
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
    AddContentBase(pSession, pRequest, &reply.text);
    return SendSdp(&reply, pPort, szSdp, nSdp);
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
    if (!pSession->standards.bPlayers || pSession->nState == STATE_NEW || !pSession->viewer.bAdmitted ||
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
