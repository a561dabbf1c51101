#include "server/methods/tunnel.h"

#include <cstdlib>
#include <cstring>

#include "base/assertion.h"
#include "base/base64.h"
#include "base/console.h"
#include "runtime/clock.h"
#include "server/media/send.h"
#include "server/core/registry.h"

namespace orx {

static constexpr char kTunnelType[] = "application/x-rtsp-tunnelled";
static constexpr uint32_t kPostedInputDelayMs = 10;

int IsTunnelType(const char *szType)
{
    return szType && strcasecmp(szType, kTunnelType) == 0;
}

static int ReplyMismatch(Session *pSession, Port *pPort)
{
    return ReplyFormat(pSession, pPort,
                       "HTTP/1.1 400 Bad Request(Content Types Mismatched)\r\n" ORX_SERVER_LINE ORX_NO_CACHE
                       "Connection: Close\r\n\r\n");
}

int HandleTunnelGet(Session *pSession, Port *pPort, Request *pRequest)
{
    const char *szCookie = RequestHeaderValue(pRequest, "x-sessioncookie");
    if (!szCookie && IsTunnelType(RequestHeaderValue(pRequest, "Accept")))
        return ReplyFormat(pSession, pPort,
                           "HTTP/1.1 400 Bad Request(no x-sessioncookie)\r\n" ORX_SERVER_LINE ORX_NO_CACHE
                           "\r\n");
    if (!szCookie)
        return ReplyMismatch(pSession, pPort);
    char *szCopy = strdup(szCookie);
    if (!szCopy)
        return ReplyFormat(pSession, pPort,
                           "HTTP/1.1 501 Internal error\r\n" ORX_SERVER_LINE ORX_NO_CACHE "\r\n");
    free(pSession->szCookie);
    pSession->szCookie = szCopy;
    pSession->nFlags |= SESSION_TUNNEL_GET;
    return ReplyFormat(pSession, pPort,
                       "HTTP/1.1 200 OK\r\n" ORX_SERVER_LINE
                       "Content-Type: application/x-rtsp-tunnelled\r\n" ORX_NO_CACHE "Date: %s\r\n\r\n",
                       SessionRefreshDate(pSession));
}

static Session *FindWaitingGet(const char *szCookie)
{
    for (auto *p = ListFirstOf<Session>(&g_server.sessions); p;
         p = static_cast<Session *>(ListNext(&g_server.sessions, p, 0)))
        if ((p->nFlags & SESSION_TUNNEL_GET) && p->szCookie && strcasecmp(p->szCookie, szCookie) == 0)
            return p;
    return nullptr;
}

// The GET session takes the POST connection over, with what it delivered behind its header.
static void Pair(Session *pGet, Session *pPost, Port *pPort)
{
    pGet->Reply = pGet->Cmd;
    pGet->Cmd = pPort;
    free(pGet->szCookie);
    pGet->szCookie = nullptr;
    pGet->nFlags &= ~SESSION_TUNNEL_GET;
    pPost->Cmd = nullptr;
    if (pPost->Reply == pPort)  // requests were answered on it before
        pPost->Reply = nullptr;
    AvlReplace(&g_server.sessionMap, pPort->fd, pGet);
    auto *pText = reinterpret_cast<const char *>(pPost->pBuf + pPost->nNext);
    uint32_t nText = pPost->nLen - pPost->nNext;
    if (nText == 0)
        return;
    pGet->tLastActivity = ClockUptime();  // it may have waited for longer than one may be silent
    if (TunnelDecode(pGet, pPort, pText, nText)) {
        PortPostEvent(pPort, PORT_POSTED_INPUT, kPostedInputDelayMs);
        return;
    }
    // not freed here: the handler's caller still uses the port; without media each half goes by itself
    PortPostEvent(pGet->Reply, MONITOR_CLOSE, 0);
    PortPostEvent(pPort, MONITOR_CLOSE, 0);
}

int BindToHttpGet(Session *pSession, Port *pPort, Request *pRequest)
{
    if (!IsTunnelType(RequestHeaderValue(pRequest, "Content-Type")))
        return ReplyMismatch(pSession, pPort);
    pPort->nFlags |= PORT_TUNNEL_POST;
    const char *szCookie = RequestHeaderValue(pRequest, "x-sessioncookie");
    Session *p = szCookie ? FindWaitingGet(szCookie) : nullptr;
    if (!p)
        return 0;
    if (!ORX_PEER_ASSERT(!p->Reply && pSession->Cmd == pPort, "!p->Reply && session->Cmd==port"))
        return 0;
    if (!ORX_PEER_ASSERT(!p->nLen, "!p->nLen"))
        return 0;
    Pair(p, pSession, pPort);
    return 0;
}

int HandleUnknown(Session *pSession, Port *pPort, Request *pRequest)
{
    print("HandleUnknown(Cmd=%s)!\r\n", RequestMethod(pRequest));
    const char *szProtocol = StrText(pRequest->protocol);
    if (strcasecmp(szProtocol, "HTTP") == 0)
        return ReplyMismatch(pSession, pPort);
    if (strcasecmp(szProtocol, "RTSP") == 0)
        return ReplyFormat(pSession, pPort,
                           "RTSP/1.0 500 Not implemented\r\n" ORX_SERVER_LINE ORX_NO_CACHE "\r\n");
    return 0;
}

static int IsBase64(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=';
}

static int IsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v';
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

int TunnelDecode(Session *pSession, Port *pPort, const char *pText, size_t nLen)
{
    uint32_t nFrom = pSession->nLen;
    for (size_t i = 0; i < nLen; i++) {
        if (IsSpace(pText[i]))
            continue;
        if (!IsBase64(pText[i])) {
            print("Invalid base64 text on fd=0x%x!\r\n", pPort->fd);
            return 0;
        }
        pPort->tail[pPort->nTail++] = pText[i];
        if (pPort->nTail < sizeof(pPort->tail))
            continue;
        pPort->nTail = 0;
        if (pSession->nTotal - 1 - pSession->nLen < 3)
            return 0;
        uint32_t nBytes = DecodeGroup(pPort->tail, pSession->pBuf + pSession->nLen);
        if (nBytes == 0)
            return 0;
        pSession->nLen += nBytes;
    }
    pSession->pBuf[pSession->nLen] = 0;
    if (pSession->nLen > nFrom)
        print("Base64Decode(OutLen=%u)\r\n%s", pSession->nLen - nFrom,
              reinterpret_cast<const char *>(pSession->pBuf + nFrom));
    return 1;
}

}  // namespace orx
