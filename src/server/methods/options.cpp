#include "server/methods/options.h"

#include <strings.h>

#include "base/console.h"
#include "base/printable.h"
#include "server/core/sessionevents.h"
#include "server/core/settings.h"
#include "server/media/replies.h"
#include "server/methods/tunnel.h"

namespace orx {

Verdict HandleSetParameter(Session *pSession, Port *pPort, Request *)
{
    if (!pSession->standards.bPlayers)
        return ReplyDated(pSession, pPort, STATUS_OK);
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    MessageNoCache(&reply);
    if (pSession->play.nSetupCount > 0)
        MessageSession(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

// Standard players show with either that they live.
Verdict HandleGetParameter(Session *pSession, Port *pPort, Request *pRequest)
{
    return pSession->standards.bPlayers ? HandleSetParameter(pSession, pPort, pRequest)
                                        : HandleUnknown(pSession, pPort, pRequest);
}

// Some send nothing that is not listed here.
static void AddPublic(const Session *pSession, TextBuf *pText)
{
    if (!pSession->standards.bPlayers) {
        TextAdd(pText, "Public: DESCRIBE, SETUP, PLAY, TEARDOWN, SET_PARAMETER, GETCAMINFO, CAMCONTROL\r\n");
        return;
    }
    TextAdd(pText,
            "Public: OPTIONS, DESCRIBE, ANNOUNCE, SETUP, PLAY, %sPAUSE, TEARDOWN, GET_PARAMETER, "
            "SET_PARAMETER, GETCAMINFO, CAMCONTROL, PUTVOICE, QUICKPLAY, SUBSCRIBE, GETPLAYLIST, RECORDEX, "
            "PUTCAMCFG, RESPOND, REGISTER, GETCFGDIRECT, SETCFGDIRECT, GETWIFIROUTERS\r\n",
            pSession->standards.bPushers ? "RECORD, " : "");
}

Verdict HandleOptions(Session *pSession, Port *pPort, Request *)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, STATUS_OK);
    AddPublic(pSession, &reply.text);
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
    SessionNoteMalformed(pSession, "it speaks neither RTSP nor HTTP");
    return Verdict::End;
}

}  // namespace orx
