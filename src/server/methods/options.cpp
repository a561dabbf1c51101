#include "server/methods/options.h"

#include <strings.h>

#include "base/console.h"
#include "base/printable.h"
#include "server/media/replies.h"
#include "server/methods/tunnel.h"

namespace orx {

Verdict HandleSetParameter(Session *pSession, Port *pPort, Request *)
{
    return ReplyDated(pSession, pPort, STATUS_OK);
}

Verdict HandleOptions(Session *pSession, Port *pPort, Request *)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    TextAdd(&reply.text,
            "Public: DESCRIBE, SETUP, PLAY, TEARDOWN, SET_PARAMETER, GETCAMINFO, CAMCONTROL\r\n");
    MessageNoCache(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

Verdict HandleUnknown(Session *pSession, Port *pPort, Request *pRequest)
{
    print("HandleUnknown(Cmd=%s)!\r\n", PrintableText(RequestMethod(pRequest)).sz);
    const char *szProtocol = StrText(pRequest->protocol);
    if (strcasecmp(szProtocol, "HTTP") == 0)
        return ReplyMismatch(pSession, pPort);
    if (strcasecmp(szProtocol, "RTSP") == 0)
        return ReplyStatus(pSession, pPort, STATUS_NOT_IMPLEMENTED);
    return Verdict::End;
}

}  // namespace orx
