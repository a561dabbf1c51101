#include "server/methods/describe.h"

#include <cstring>

#include "base/console.h"
#include "base/textbuf.h"
#include "runtime/sockutil.h"
#include "server/core/sdp.h"
#include "server/core/tracks.h"
#include "server/media/send.h"
#include "server/methods/admit.h"

namespace orx {

// Sends the description, which ends where the program's password would begin. Result of sending.
static int SendDescription(Session *pSession, Port *pPort)
{
    const char *szSdp = ProgramSdp(pSession->pProg);
    if (!szSdp)
        szSdp = "";
    const char *pSecret = strstr(szSdp, "a=ProgramAuth");
    size_t nSdp = pSecret ? static_cast<size_t>(pSecret - szSdp) : strlen(szSdp);
    char head[512];
    TextBuf text{head, sizeof(head)};
    TextAdd(&text,
            "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE
            "CSeq: %d\r\nContent-Type: application/sdp\r\nContent-Length: %d\r\n" ORX_NO_CACHE
            "Date: %s\r\n\r\n",
            pSession->nCSeq++, static_cast<int>(nSdp), SessionRefreshDate(pSession));
    return SendReply2(pSession, pPort, head, text.nLen, szSdp, nSdp, nullptr);
}

int Describe(Session *pSession, Port *pPort, const Request *pRequest)
{
    if (const char *szBandwidth = RequestHeaderValue(pRequest, "Bandwidth"))
        pSession->nBandwidth = TextToInt(szBandwidth);
    char remote[kAddrTextSize];
    SockAddrToString(&pSession->Reply->remote, remote);
    log("CreatePlayClient(Uri=%s), Remote=%s", RequestPath(pRequest), remote);
    SessionCopyTracks(pSession, pSession->pProg);
    pSession->nState = STATE_DESCRIBED;
    return SendDescription(pSession, pPort);
}

int HandleDescribe(Session *pSession, Port *pPort, Request *pRequest)
{
    Admission admission = EnterProgram(pSession, pPort, pRequest);
    if (admission == REFUSED)
        SessionDelayClose(pPort);
    if (admission != ADMITTED)
        return admission != UNREACHED;
    return Describe(pSession, pPort, pRequest);
}

}  // namespace orx
