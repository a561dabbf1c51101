#include "shared/playreply.h"

#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include "shared/playlink.h"
#include "shared/playrequest.h"

namespace orx {

constexpr int kMostTries =
    3;  // answers to challenges of one request, where each says that the last was stale
constexpr int kMostRedirects = 5;

// --- Challenges ---

static std::vector<std::string> Challenges(const RtspMessage *pReply)
{
    std::vector<std::string> values;
    for (const RtspHeader &header : pReply->headers)
        if (strcasecmp(header.name.c_str(), "WWW-Authenticate") == 0)
            values.push_back(header.value);
    return values;
}

// A server that another one named gets no password in clear that the first was not to have: it may be
// anybody.
static int MayAnswer(const RtspPlay *pPlay, const LoginChallenge *pChallenge)
{
    return pChallenge->scheme != LoginScheme::Basic || pPlay->bKnowsHost ||
           pPlay->challenge.scheme == LoginScheme::Basic;
}

int PlayTakeChallenge(RtspPlay *pPlay, const RtspMessage *pReply, int nTries)
{
    LoginChallenge challenge;
    if (pPlay->user.name.empty() && pPlay->user.password.empty())
        return 0;
    if (!LoginReadChallenges(Challenges(pReply), &challenge) || !MayAnswer(pPlay, &challenge))
        return 0;
    if (nTries > 0 && (!challenge.bStale || nTries >= kMostTries))
        return 0;
    pPlay->challenge = challenge;
    pPlay->nNonceUses = 0;
    return 1;
}

static void Challenged(RtspPlay *pPlay, PlayRequest request, const RtspMessage *pReply)
{
    if (!PlayTakeChallenge(pPlay, pReply, request.nTries)) {
        const char *szWhy = pPlay->user.name.empty() ? "it asks for a user and a password"
                            : request.nTries == 0    ? "it asks for a login of a kind that is not given"
                                                     : "the user or the password is wrong";
        PlayEnd(pPlay, PlayFault::Password, szWhy);
        return;
    }
    request.nTries++;
    pPlay->bAgain = 1;  // some servers hang up behind a 401
    PlaySend(pPlay, &request);
    pPlay->waiting.push_back(request);
    PlayAwaitAnswer(pPlay);
}

// --- Replies ---

// The server names another place.
static void Redirect(RtspPlay *pPlay, const RtspMessage *pReply)
{
    const char *szLocation = RtspFindHeader(pReply, "Location");
    CameraUrl url;
    if (!CameraUrlParse(szLocation ? szLocation : "", &url)) {
        PlayEnd(pPlay, PlayFault::Answer, "it names another place, which is no URL of RTSP");
        return;
    }
    if (++pPlay->nRedirects > kMostRedirects || (pPlay->url.bTls && !url.bTls)) {
        PlayEnd(pPlay, PlayFault::Answer,
                pPlay->nRedirects > kMostRedirects ? "it names other places again and again"
                                                   : "it names another place, without TLS");
        return;
    }
    if (!url.user.empty())
        pPlay->user = {url.user, url.password};
    pPlay->bKnowsHost = pPlay->bKnowsHost && url.host == pPlay->url.host;
    url.user.clear();
    url.password.clear();
    pPlay->url = url;
    PlayConnect(pPlay);
}

static std::vector<PlayRequest>::iterator FindRequest(RtspPlay *pPlay, const RtspMessage *pReply)
{
    if (!RtspFindHeader(pReply, "CSeq"))
        return pPlay->waiting.begin();
    int64_t nCSeq = RtspHeaderNumber(pReply, "CSeq", -1);
    return std::find_if(pPlay->waiting.begin(), pPlay->waiting.end(),
                        [nCSeq](const PlayRequest &request) { return request.nCSeq == nCSeq; });
}

static int IsRedirect(int nStatus)
{
    return (nStatus >= 301 && nStatus <= 303) || nStatus == 305 || nStatus == 307 || nStatus == 308;
}

void PlayTakeReply(RtspPlay *pPlay, const RtspMessage *pReply)
{
    auto found = FindRequest(pPlay, pReply);
    if (found == pPlay->waiting.end() || pReply->nStatus / 100 == 1)
        return;
    PlayRequest request = *found;
    pPlay->waiting.erase(found);
    pPlay->nAnswerDueMs = 0;
    if (pReply->nStatus == 401)
        Challenged(pPlay, request, pReply);
    else if (IsRedirect(pReply->nStatus) && pPlay->step < PlayStep::Playing)
        Redirect(pPlay, pReply);
    else
        request.pfnReply(pPlay, pReply);
}

void PlayTakeRequest(RtspPlay *pPlay, const RtspMessage *pRequest)
{
    const char *szCSeq = RtspFindHeader(pRequest, "CSeq");
    std::string text = pRequest->method == "OPTIONS" ? "RTSP/1.0 200 OK\r\nPublic: OPTIONS\r\n"
                                                     : "RTSP/1.0 501 Not Implemented\r\n";
    if (szCSeq)
        text += "CSeq: " + std::string(szCSeq).substr(0, 32) + "\r\n";
    PlaySendText(pPlay, text + "\r\n");
}

void PlayRefused(RtspPlay *pPlay, const char *szMethod, const RtspMessage *pReply)
{
    std::string why = std::string(szMethod) + " was answered with " + std::to_string(pReply->nStatus) + " ";
    for (char c : pReply->reason.substr(0, 80))
        why += c >= ' ' && c < 127 ? c : '?';
    PlayEnd(pPlay, pReply->nStatus == 404 ? PlayFault::NotFound : PlayFault::Answer, why);
}

}  // namespace orx
