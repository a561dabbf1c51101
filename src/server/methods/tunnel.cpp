#include "server/methods/tunnel.h"

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/base64.h"
#include "base/console.h"
#include "base/printable.h"
#include "base/textbuf.h"
#include "runtime/clock.h"
#include "server/core/registry.h"
#include "server/core/sessionevents.h"
#include "server/core/settings.h"
#include "server/media/replies.h"

namespace orx {

static constexpr char kTunnelType[] = "application/x-rtsp-tunnelled";
static constexpr uint32_t kPostedInputDelayMs = 10;  // the handler of either half has returned by then
static constexpr uint32_t kPostWaitsMs = 2000;       // of halves sent at once the GET is not far

int IsTunnelType(const char *szType)
{
    return szType && strcasecmp(szType, kTunnelType) == 0;
}

Verdict ReplyMismatch(Session *pSession, Port *pPort)
{
    Message reply(pSession, pPort);
    ReplyBegin(&reply, HTTP_MISMATCH);
    MessageNoCache(&reply);
    TextAdd(&reply.text, "Connection: Close\r\n");
    return MessageSend(&reply);
}

static int HasCookie(const Session *p, const char *szCookie)
{
    return p->peer.szCookie && strcasecmp(p->peer.szCookie, szCookie) == 0;
}

// The first session that waits for its other half under a name; nFlag says which half it is.
static Session *FindWaiting(uint32_t nFlag, const char *szCookie)
{
    for (Session *p = FirstSession(); p; p = NextSession(p))
        if ((p->nFlags & nFlag) && HasCookie(p, szCookie))
            return p;
    return nullptr;
}

// The session waits for its other half. Returns 0 without memory.
static int Wait(Session *pSession, uint32_t nFlag, const char *szCookie)
{
    char *szCopy = strdup(szCookie);
    if (!szCopy)
        return 0;
    free(pSession->peer.szCookie);
    pSession->peer.szCookie = szCopy;
    pSession->nFlags |= nFlag;
    return 1;
}

Verdict HandleTunnelGet(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szCookie = RequestHeaderValue(pRequest, "x-sessioncookie");
    if (!szCookie && IsTunnelType(RequestHeaderValue(pRequest, "Accept")))
        return ReplyStatus(pSession, pPort, HTTP_NO_COOKIE);
    if (!szCookie)
        return ReplyMismatch(pSession, pPort);
    if (!Wait(pSession, SESSION_TUNNEL_GET, szCookie))
        return ReplyStatus(pSession, pPort, HTTP_FAILED);
    const Session *pPost = FindWaiting(SESSION_TUNNEL_POST, szCookie);
    if (pPost)  // they are paired once this request is done with
        PortPostEvent(pPost->peer.Cmd, EVENT_POSTED_INPUT, kPostedInputDelayMs);
    Message reply(pSession, pPort);
    ReplyBegin(&reply, HTTP_OK);
    TextAdd(&reply.text, "Content-Type: %s\r\n", kTunnelType);
    MessageNoCache(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

// A standard player's session whose half for requests went, or has sent as much as it announced, and may be
// renewed from the same host.
static Session *FindRenewed(const char *szCookie, const Port *pPost)
{
    constexpr uint32_t kNoPlayer = SESSION_TUNNEL_GET | SESSION_TUNNEL_POST | SESSION_PUSHER;
    for (Session *p = FirstSession(); p; p = NextSession(p))
        if (HasCookie(p, szCookie) && !(p->nFlags & kNoPlayer) && p->peer.Reply &&
            p->peer.Cmd != p->peer.Reply && !p->hold.pPort &&
            AddrSameHost(&p->peer.Reply->remote, &pPost->remote))
            return p;
    return nullptr;
}

// The GET half waits again; half a request, on whichever of the two, is lost.
static void LeavePost(Session *pGet)
{
    if (pGet->peer.Cmd) {
        AvlForget(&g_server.sessionMap, pGet->peer.Cmd->fd);
        PortClose(pGet->peer.Cmd);
    }
    pGet->peer.Cmd = pGet->peer.Reply;
    pGet->peer.Reply = nullptr;
    pGet->input.nLen = 0;
    RequestReset(&pGet->peer.Cmd->request);  // its header block is gone with the rest
}

// The GET session takes the POST connection over, with what that delivered behind its header: from nFrom on
// in the POST session's buffer. Nothing happens when the two do not fit.
static void Pair(Session *pGet, Session *pPost, Port *pPort, uint32_t nFrom)
{
    if (!ORX_PEER_ASSERT(!pGet->peer.Reply && pPost->peer.Cmd == pPort, "!p->Reply && session->Cmd==port") ||
        !ORX_PEER_ASSERT(!pGet->input.nLen, "!p->nLen"))
        return;
    SessionNoteEnd(pPost, "it became half of a tunnel");
    pGet->peer.Reply = pGet->peer.Cmd;
    pGet->peer.Cmd = pPort;
    if (!pGet->standards.bPlayers) {
        free(pGet->peer.szCookie);
        pGet->peer.szCookie = nullptr;
    }
    pGet->nFlags &= ~SESSION_TUNNEL_GET;
    pPost->peer.Cmd = nullptr;
    if (pPost->peer.Reply == pPort)  // requests were answered on it before
        pPost->peer.Reply = nullptr;
    AvlReplace(&g_server.sessionMap, pPort->fd, pGet);
    auto *pText = reinterpret_cast<const char *>(pPost->input.pBuf + nFrom);
    uint32_t nText = pPost->input.nLen - nFrom;
    if (nText > 0)
        pGet->peer.tLastActivity = ClockUptime();  // it may have waited for longer than one may be silent
    if (nText == 0 || TunnelDecode(pGet, pPort, pText, nText)) {
        // also without a text: the end of the connection may have been reported already
        PortPostEvent(pPort, EVENT_POSTED_INPUT, kPostedInputDelayMs);
        return;
    }
    // a tunnel that cannot go on: each half goes as if its peer had closed it
    PortPostEvent(pGet->peer.Reply, MONITOR_CLOSE, 0);
    PortPostEvent(pPort, MONITOR_CLOSE, 0);
}

static int OnPostWaited(Task *pTask, uint32_t, uint32_t, uint32_t)
{
    Session *pPost = SessionOfTask(pTask);
    if (!pPost)
        return -1;
    SessionNoteEnd(pPost, "the other half of its tunnel did not come");
    SessionEnd(pPost);
    return -1;
}

// Clients that send both halves at once do not care which arrives first.
static int MayWaitForGet(const Session *pSession, const Port *pPort)
{
    return pSession->standards.bPlayers && pSession->nState == STATE_NEW && pSession->peer.Cmd == pPort &&
           !(pSession->nFlags & SESSION_TUNNEL_GET);
}

Verdict BindToHttpGet(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!IsTunnelType(RequestHeaderValue(pRequest, "Content-Type")))
        return ReplyMismatch(pSession, pPort);
    pPort->nFlags |= PORT_TUNNEL_POST;
    const char *szCookie = RequestHeaderValue(pRequest, "x-sessioncookie");
    Session *pGet = szCookie ? FindWaiting(SESSION_TUNNEL_GET, szCookie) : nullptr;
    if (!pGet && szCookie && (pGet = FindRenewed(szCookie, pPort)))
        LeavePost(pGet);
    if (pGet)
        Pair(pGet, pSession, pPort, pSession->input.nNext);
    else if (szCookie && MayWaitForGet(pSession, pPort) && Wait(pSession, SESSION_TUNNEL_POST, szCookie)) {
        SessionSchedule(pSession, OnPostWaited, kPostWaitsMs);
        return Verdict::Keep;
    }
    return Verdict::End;  // of this session; its connection may go on as the other's
}

void TunnelPairPost(Session *pPost, Port *pPort)
{
    Session *pGet = FindWaiting(SESSION_TUNNEL_GET, pPost->peer.szCookie);
    if (!pGet)
        return;
    Pair(pGet, pPost, pPort, 0);
    SessionEnd(pPost);
}

static int IsBase64(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=';
}

// Decodes one group of four into pOut. Returns 1 to 3 bytes; 0 for padding that no encoder makes.
static uint32_t DecodeGroup(const char *pGroup, uint8_t *pOut)
{
    uint32_t nPad = 0;
    while (nPad < 2 && pGroup[3 - nPad] == '=')
        nPad++;
    if (!ORX_PEER_ASSERT(!memchr(pGroup, '=', 4 - nPad), "!\"Invalid input stream!\""))
        return 0;
    char szOut[8];
    Base64Decode(pGroup, szOut, 4);
    memcpy(pOut, szOut, 3 - nPad);
    return 3 - nPad;
}

// The requests of a tunnel, for who looks for a fault; their credentials are nobody's business.
static void PrintDecoded(Port *pPort, const char *pText, uint32_t nLen)
{
    auto *szShown = static_cast<char *>(malloc(size_t{nLen} + 2));
    if (!szShown)
        return;
    szShown[CredentialMaskCopy(&pPort->mask, pText, nLen, szShown)] = '\0';
    print("Base64Decode(OutLen=%u)\r\n%s", nLen, PrintableDump(szShown).sz);
    free(szShown);
}

int TunnelDecode(Session *pSession, Port *pPort, const char *pText, size_t nLen)
{
    uint32_t nFrom = pSession->input.nLen;
    for (size_t i = 0; i < nLen; i++) {
        if (TextIsSpace(pText[i]))
            continue;
        if (!IsBase64(pText[i])) {
            print("Invalid base64 text on fd=0x%x!\r\n", pPort->fd);
            SessionNoteMalformed(pSession, "bad base64 in its tunnel");
            return 0;
        }
        pPort->tail[pPort->nTail++] = pText[i];
        if (pPort->nTail < sizeof(pPort->tail))
            continue;
        pPort->nTail = 0;
        if (!InputReserve(&pSession->input, 3) || InputRoom(&pSession->input) < 3)
            return 0;
        uint32_t nBytes = DecodeGroup(pPort->tail, pSession->input.pBuf + pSession->input.nLen);
        if (nBytes == 0)
            return 0;
        pSession->input.nLen += nBytes;
    }
    pSession->input.pBuf[pSession->input.nLen] = 0;
    if (pSession->input.nLen > nFrom)
        PrintDecoded(pPort, reinterpret_cast<const char *>(pSession->input.pBuf + nFrom),
                     pSession->input.nLen - nFrom);
    return 1;
}

}  // namespace orx
