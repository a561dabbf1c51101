#include "shared/playrequest.h"

#include <utility>

#include "shared/playtunnel.h"

namespace orx {

void PlaySendText(RtspPlay *pPlay, const std::string &text)
{
    if (pPlay->over == PlayOver::Http)
        PlayTunnelSend(pPlay, text);
    else if (pPlay->pLink)
        LinkSendText(pPlay->pLink, text);
}

static std::string Authorization(RtspPlay *pPlay, const PlayRequest *pRequest)
{
    if (pPlay->challenge.scheme == LoginScheme::None)
        return {};
    return "Authorization: " +
           LoginAnswer(&pPlay->challenge, &pPlay->user, pRequest->method, pRequest->uri, ++pPlay->nNonceUses,
                       pPlay->cnonce) +
           "\r\n";
}

void PlaySend(RtspPlay *pPlay, PlayRequest *pRequest)
{
    pRequest->nCSeq = ++pPlay->nCSeq;
    std::string text = pRequest->method + " " + pRequest->uri +
                       " RTSP/1.0\r\nCSeq: " + std::to_string(pRequest->nCSeq) + "\r\n";
    if (!pPlay->settings.agent.empty())
        text += "User-Agent: " + pPlay->settings.agent + "\r\n";
    if (!pPlay->session.empty())
        text += "Session: " + pPlay->session + "\r\n";
    text += Authorization(pPlay, pRequest) + pRequest->headers + "\r\n";
    PlaySendText(pPlay, text);
}

void PlayAwaitAnswer(RtspPlay *pPlay)
{
    if (pPlay->step < PlayStep::Playing)
        PlaySetDue(pPlay, &pPlay->nAnswerDueMs, pPlay->settings.nAnswerMs);
}

void PlayAsk(RtspPlay *pPlay, const char *szMethod, const std::string &uri, const std::string &headers,
             void (*pfnReply)(RtspPlay *pPlay, const RtspMessage *pReply))
{
    PlayRequest request;
    request.method = szMethod;
    request.uri = uri;
    request.headers = headers;
    request.pfnReply = pfnReply;
    request.nTries = std::exchange(pPlay->nTriesBefore, 0);
    PlaySend(pPlay, &request);
    pPlay->waiting.push_back(request);
    PlayAwaitAnswer(pPlay);
}

void PlayTell(RtspPlay *pPlay, const char *szMethod, const std::string &uri)
{
    PlayRequest request;
    request.method = szMethod;
    request.uri = uri;
    PlaySend(pPlay, &request);
}

}  // namespace orx
