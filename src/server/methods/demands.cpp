#include "server/methods/demands.h"

#include <strings.h>

#include <cstdlib>

#include "base/printable.h"
#include "server/media/replies.h"

namespace orx {

static Verdict RefuseOption(Session *pSession, Port *pPort, const char *szOption)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_NO_OPTION);
    MessageNoCache(&reply);
    TextAdd(&reply.text, "Unsupported: %s\r\n", PrintableText(szOption).sz);
    return MessageSend(&reply);
}

// Others may carry whatever their client remembers.
static int IsAboutSession(const char *szMethod)
{
    static const char *const methods[] = {"SETUP", "PLAY", "PAUSE", "RECORD", "TEARDOWN"};
    for (const char *szOne : methods)
        if (strcasecmp(szMethod, szOne) == 0)
            return 1;
    return 0;
}

// Whether a "Session" line, with parameters or without, names the session.
static int NamesSession(const char *szId, const Session *pSession)
{
    char *pEnd = nullptr;
    unsigned long nId = strtoul(szId, &pEnd, 16);
    return pEnd != szId && nId == pSession->nHandle;
}

int DemandsMet(Session *pSession, Port *pPort, const Request *pRequest, Verdict *pRefusal)
{
    if (!IsStandardPeer(pSession) || strcasecmp(StrText(pRequest->protocol), "RTSP") != 0)
        return 1;
    const char *szOption = RequestHeaderValue(pRequest, "Require");
    if (szOption) {
        *pRefusal = RefuseOption(pSession, pPort, szOption);
        return 0;
    }
    const char *szId = RequestHeaderValue(pRequest, "Session");
    if (!szId || !IsAboutSession(RequestMethod(pRequest)) || NamesSession(szId, pSession))
        return 1;
    *pRefusal = ReplyStatus(pSession, pPort, STATUS_NO_SESSION);
    return 0;
}

}  // namespace orx
