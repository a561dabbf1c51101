#include "server/methods/options.h"

#include "server/media/send.h"

namespace orx {

int HandleSetParameter(Session *pSession, Port *pPort, Request *)
{
    return ReplyDated(pSession, pPort);
}

int HandleOptions(Session *pSession, Port *pPort, Request *)
{
    return ReplyFormat(
        pSession, pPort,
        "RTSP/1.0 200 OK\r\n" ORX_SERVER_LINE
        "CSeq: %d\r\n"
        "Public: DESCRIBE, SETUP, PLAY, TEARDOWN, SET_PARAMETER, GETCAMINFO, CAMCONTROL\r\n" ORX_NO_CACHE
        "Date: %s\r\n\r\n",
        pSession->nCSeq++, SessionRefreshDate(pSession));
}

}  // namespace orx
