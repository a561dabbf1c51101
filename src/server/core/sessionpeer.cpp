#include "server/core/sessionpeer.h"

#include "runtime/sockutil.h"

namespace orx {

Port *SessionPeerPort(const Session *pSession)
{
    return pSession->peer.Cmd ? pSession->peer.Cmd : pSession->peer.Reply;
}

Port *SessionReplyPort(const Session *pSession)
{
    return pSession->peer.Reply ? pSession->peer.Reply : pSession->peer.Cmd;
}

Port *SessionControlPort(const Session *pSession)
{
    Port *pPort = SessionPeerPort(pSession);
    return pPort && (pPort->nFlags & PORT_TUNNEL_POST) ? pSession->peer.Reply : pPort;
}

void SessionRemoteText(const Session *pSession, char *szOut)
{
    const Port *pPort = SessionPeerPort(pSession);
    NetAddr none;
    SockAddrToString(pPort ? &pPort->remote : &none, szOut);
}

}  // namespace orx
