#include "shared/playtunnel.h"

#include <utility>

#include "base/base64.h"

namespace orx {

constexpr size_t kPostBytes = 32767;  // what every POST announces, as all clients do; servers close behind it

static std::string Head(RtspPlay *pPlay, const std::string &method)
{
    LinkTarget target;
    PlayFillTarget(pPlay, &target);
    std::string path = pPlay->url.path;
    if (path.empty() || path[0] != '/')
        path = "/" + path;
    std::string text =
        method + " " + path + " HTTP/1.0\r\nHost: " + LinkPeerName(target.host, target.nPort) + "\r\n";
    if (!pPlay->settings.agent.empty())
        text += "User-Agent: " + pPlay->settings.agent + "\r\n";
    if (pPlay->tunnelChallenge.scheme != LoginScheme::None)
        text += "Authorization: " +
                LoginAnswer(&pPlay->tunnelChallenge, &pPlay->user, method, path, ++pPlay->nTunnelUses,
                            pPlay->cnonce) +
                "\r\n";
    return text + "x-sessioncookie: " + pPlay->cnonce + "\r\nPragma: no-cache\r\nCache-Control: no-cache\r\n";
}

void PlayTunnelAsk(RtspPlay *pPlay)
{
    pPlay->step = PlayStep::Tunnel;
    pPlay->wire.bHttpHead = 1;
    LinkSendText(pPlay->pLink, Head(pPlay, "GET") + "Accept: application/x-rtsp-tunnelled\r\n\r\n");
    PlaySetDue(pPlay, &pPlay->nAnswerDueMs, pPlay->settings.nAnswerMs);
}

// --- POST ---

static void OnPostBytes(void *pUser, const uint8_t *, size_t)
{
    static_cast<void>(pUser);  // servers do not answer it, and what one says is of no use
}

static void OnPostEnded(void *pUser, LinkFault, const char *)
{
    auto *pPlay = static_cast<RtspPlay *>(pUser);
    PlayBusy busy(pPlay);
    LinkClose(std::exchange(pPlay->pPost, nullptr));  // the next request opens another
}

static void OpenPost(RtspPlay *pPlay)
{
    static const LinkProcs kProcs = {nullptr, OnPostBytes, nullptr, OnPostEnded};
    LinkTarget target;
    PlayFillTarget(pPlay, &target);
    LinkFinish(pPlay->pPost);
    pPlay->nPosted = 0;
    pPlay->pPost = LinkOpen(pPlay->pLoop, &target, &kProcs, pPlay);
    if (pPlay->pPost)
        LinkSendText(pPlay->pPost, Head(pPlay, "POST") + "Content-Type: application/x-rtsp-tunnelled\r\n" +
                                       "Content-Length: " + std::to_string(kPostBytes) +
                                       "\r\nExpires: Sun, 9 Jan 1972 00:00:00 GMT\r\n\r\n");
}

void PlayTunnelSend(RtspPlay *pPlay, std::string_view bytes)
{
    std::string text(Base64EncodedSize(bytes.size()), '\0');
    text.resize(Base64EncodeCount(text.data(), bytes.data(), bytes.size()) - 1);
    if (!pPlay->pPost || pPlay->nPosted + text.size() > kPostBytes)
        OpenPost(pPlay);
    pPlay->nPosted += text.size();
    if (pPlay->pPost)
        LinkSendText(pPlay->pPost, text);
}

}  // namespace orx
