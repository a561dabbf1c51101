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
#include "server/media/replies.h"

namespace orx {

static constexpr char kTunnelType[] = "application/x-rtsp-tunnelled";
static constexpr uint32_t kPostedInputDelayMs = 10;  // the handler of the POST has returned by then

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

Verdict HandleTunnelGet(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szCookie = RequestHeaderValue(pRequest, "x-sessioncookie");
    if (!szCookie && IsTunnelType(RequestHeaderValue(pRequest, "Accept")))
        return ReplyStatus(pSession, pPort, HTTP_NO_COOKIE);
    if (!szCookie)
        return ReplyMismatch(pSession, pPort);
    char *szCopy = strdup(szCookie);
    if (!szCopy)
        return ReplyStatus(pSession, pPort, HTTP_FAILED);
    free(pSession->peer.szCookie);
    pSession->peer.szCookie = szCopy;
    pSession->nFlags |= SESSION_TUNNEL_GET;
    Message reply(pSession, pPort);
    ReplyBegin(&reply, HTTP_OK);
    TextAdd(&reply.text, "Content-Type: %s\r\n", kTunnelType);
    MessageNoCache(&reply);
    MessageDate(&reply);
    return MessageSend(&reply);
}

static Session *FindWaitingGet(const char *szCookie)
{
    for (Session *p = FirstSession(); p; p = NextSession(p))
        if ((p->nFlags & SESSION_TUNNEL_GET) && p->peer.szCookie &&
            strcasecmp(p->peer.szCookie, szCookie) == 0)
            return p;
    return nullptr;
}

// The GET session takes the POST connection over, with what it delivered behind its header.
static void Pair(Session *pGet, Session *pPost, Port *pPort)
{
    pGet->peer.Reply = pGet->peer.Cmd;
    pGet->peer.Cmd = pPort;
    free(pGet->peer.szCookie);
    pGet->peer.szCookie = nullptr;
    pGet->nFlags &= ~SESSION_TUNNEL_GET;
    pPost->peer.Cmd = nullptr;
    if (pPost->peer.Reply == pPort)  // requests were answered on it before
        pPost->peer.Reply = nullptr;
    AvlReplace(&g_server.sessionMap, pPort->fd, pGet);
    auto *pText = reinterpret_cast<const char *>(pPost->input.pBuf + pPost->input.nNext);
    uint32_t nText = pPost->input.nLen - pPost->input.nNext;
    if (nText == 0)
        return;
    pGet->peer.tLastActivity = ClockUptime();  // it may have waited for longer than one may be silent
    if (TunnelDecode(pGet, pPort, pText, nText)) {
        PortPostEvent(pPort, EVENT_POSTED_INPUT, kPostedInputDelayMs);
        return;
    }
    // a tunnel that cannot go on: each half goes as if its peer had closed it
    PortPostEvent(pGet->peer.Reply, MONITOR_CLOSE, 0);
    PortPostEvent(pPort, MONITOR_CLOSE, 0);
}

Verdict BindToHttpGet(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!IsTunnelType(RequestHeaderValue(pRequest, "Content-Type")))
        return ReplyMismatch(pSession, pPort);
    pPort->nFlags |= PORT_TUNNEL_POST;
    const char *szCookie = RequestHeaderValue(pRequest, "x-sessioncookie");
    Session *pGet = szCookie ? FindWaitingGet(szCookie) : nullptr;
    if (pGet &&
        ORX_PEER_ASSERT(!pGet->peer.Reply && pSession->peer.Cmd == pPort,
                        "!p->Reply && session->Cmd==port") &&
        ORX_PEER_ASSERT(!pGet->input.nLen, "!p->nLen"))
        Pair(pGet, pSession, pPort);
    return Verdict::End;  // of this session; its connection may go on as the other's
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
            return 0;
        }
        pPort->tail[pPort->nTail++] = pText[i];
        if (pPort->nTail < sizeof(pPort->tail))
            continue;
        pPort->nTail = 0;
        if (pSession->input.nTotal - 1 - pSession->input.nLen < 3)
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
